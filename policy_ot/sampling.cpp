// The sampling value a scope holds: reading its per-signal setting, printing, copying and
// releasing it. The values 0, 1 and 2 are settings in their own right; anything else is a
// pointer to a sampler list, of which only the first sampler is consulted.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "observability/policy_ot.h"
#include "support/list.h"
#include "support/owned_copy.h"

namespace {

constexpr obs_sampling kNoSampling = 0;
constexpr obs_sampling kAllOff = 1;
constexpr obs_sampling kAllOn = 2;

bool is_sampler_list(obs_sampling sampling) {
    return sampling > kAllOn;
}

const obs_policy_ot_sampler *first_sampler(obs_sampling sampling) {
    return reinterpret_cast<const obs_policy_ot_sampler *>(sampling);
}

const char *on_off(int32_t setting, const char *on, const char *off) {
    return setting == OBS_SAMPLING_ON ? on : off;
}

// A copy of one sampler with next cleared, or null when memory runs out.
obs_policy_ot_sampler *copy_sampler(const obs_policy_ot_sampler *src) {
    auto *copy = static_cast<obs_policy_ot_sampler *>(malloc(sizeof(obs_policy_ot_sampler)));
    if (!copy) return nullptr;
    *copy = *src;
    copy->next = nullptr;
    if (!obs::copy_text_in_place(&copy->name)) {
        free(copy);
        return nullptr;
    }
    return copy;
}

}  // namespace

extern "C" {

int obs_policy_ot_sampler_get_config(obs_sampling sampling, unsigned signal) {
    if (sampling == kNoSampling || sampling == kAllOff) return OBS_SAMPLING_OFF;
    if (sampling == kAllOn) return OBS_SAMPLING_ON;
    // Several bits: traces win over metrics, metrics over logs.
    const obs_policy_ot_sampler *sampler = first_sampler(sampling);
    if (signal & OBS_SIGNAL_TRACES) return sampler->traces_config;
    if (signal & OBS_SIGNAL_METRICS) return sampler->metrics_config;
    if (signal & OBS_SIGNAL_LOGS) return sampler->logs_config;
    return OBS_SAMPLING_OFF;
}

const char *obs_policy_ot_sampler_dump_config(obs_sampling sampling, char *buf, uint32_t size) {
    if (sampling == kNoSampling || sampling == kAllOff) return "[all:off]";
    if (sampling == kAllOn) return "[all:on]";
    if (!buf || size == 0) return "";
    const obs_policy_ot_sampler *sampler = first_sampler(sampling);
    snprintf(buf, size, "%s%s%s", on_off(sampler->traces_config, "[trace:on]", "[trace:off]"),
             on_off(sampler->metrics_config, "[metrics:on]", "[metrics:off]"),
             on_off(sampler->logs_config, "[logs:on]", "[logs:off]"));
    return buf;
}

obs_sampling obs_policy_ot_sampler_clone(obs_sampling sampling, int only_first) {
    if (!is_sampler_list(sampling)) return sampling;
    return reinterpret_cast<obs_sampling>(
        obs::list_copy(first_sampler(sampling), only_first, copy_sampler));
}

void obs_policy_ot_sampler_free(obs_sampling sampling) {
    if (!is_sampler_list(sampling)) return;
    obs::list_release(reinterpret_cast<obs_policy_ot_sampler *>(sampling),
                      [](obs_policy_ot_sampler *sampler) {
                          free(sampler->name);
                          free(sampler);
                      });
}

}  // extern "C"
