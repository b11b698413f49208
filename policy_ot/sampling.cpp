// The sampling value a scope holds: reading its per-signal setting, printing, copying and
// releasing it. The values 0, 1 and 2 are settings in their own right; anything else is a
// pointer to a sampler list, of which only the first sampler is consulted.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "observability/policy_ot.h"
#include "policy_ot/sampler_list.h"
#include "support/list.h"
#include "support/owned_copy.h"

namespace {

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
    if (sampling == OBS_SAMPLING_NONE || sampling == OBS_SAMPLING_ALL_OFF) return OBS_SAMPLING_OFF;
    if (sampling == OBS_SAMPLING_ALL_ON) return OBS_SAMPLING_ON;
    // Several bits: traces win over metrics, metrics over logs.
    const obs_policy_ot_sampler *sampler = obs::sampler_list(sampling);
    if (signal & OBS_SIGNAL_TRACES) return sampler->traces_config;
    if (signal & OBS_SIGNAL_METRICS) return sampler->metrics_config;
    if (signal & OBS_SIGNAL_LOGS) return sampler->logs_config;
    return OBS_SAMPLING_OFF;
}

const char *obs_policy_ot_sampler_dump_config(obs_sampling sampling, char *buf, uint32_t size) {
    if (sampling == OBS_SAMPLING_NONE || sampling == OBS_SAMPLING_ALL_OFF) return "[all:off]";
    if (sampling == OBS_SAMPLING_ALL_ON) return "[all:on]";
    if (!buf || size == 0) return "";
    const obs_policy_ot_sampler *sampler = obs::sampler_list(sampling);
    snprintf(buf, size, "%s%s%s", on_off(sampler->traces_config, "[trace:on]", "[trace:off]"),
             on_off(sampler->metrics_config, "[metrics:on]", "[metrics:off]"),
             on_off(sampler->logs_config, "[logs:on]", "[logs:off]"));
    return buf;
}

obs_sampling obs_policy_ot_sampler_clone(obs_sampling sampling, int only_first) {
    if (!obs::is_sampler_list(sampling)) return sampling;
    return obs::as_sampling(obs::list_copy(obs::sampler_list(sampling), only_first, copy_sampler));
}

void obs_policy_ot_sampler_free(obs_sampling sampling) {
    if (!obs::is_sampler_list(sampling)) return;
    obs::list_release(obs::sampler_list(sampling), [](obs_policy_ot_sampler *sampler) {
        free(sampler->name);
        free(sampler);
    });
}

}  // extern "C"
