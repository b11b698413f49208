// Sampling policies built as the library builds them (all malloc'd), example texts, and the text
// codec with outputs in test types.
#ifndef TESTS_POLICY_OT_POLICY_BUILDERS_H
#define TESTS_POLICY_OT_POLICY_BUILDERS_H

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/value_text.h"

namespace policy_ot_test {

using namespace obs_test;

// A rule's kvlist: its pairs when given, match, action 0.
inline std::string rule(int match, const std::string &kv = "") {
    std::vector<std::string> pairs = {pair("match", integer(match)), pair("action", integer(0))};
    if (!kv.empty()) pairs.insert(pairs.begin(), pair("kv", kv));
    return kvlist(pairs);
}

// "default" all on at log level 3; "*" with one sampler, traces on and metrics off.
const std::string kDefaultAllOn =
    kvlist({pair("scope_name", str("default")), pair("sampling", integer(2)),
            pair("log_level", integer(3))});
const std::string kEverySampler =
    kvlist({pair("scope_name", str("*")),
            pair("sampler", kvlist({pair("name", str("s1")), pair("traces_config", integer(2)),
                                    pair("metrics_config", integer(1))}))});
// A signal, a sampler and rules in every list, two in the first, one with pairs to own.
const std::string kRichEntry = kvlist(
    {pair("signal", integer(7)), pair("scope_name", str("rich")),
     pair("sampler", kvlist({pair("name", str("s2")), pair("logs_config", integer(2))})),
     pair("log_level", integer(4)),
     pair("resource_rule",
          joined({rule(1, kvlist({pair("s", str("v")), pair("k", kvlist({pair("r", str("eu"))}))})),
                  rule(3)})),
     pair("scope_rule", rule(5)), pair("span_rule", rule(7)), pair("log_rule", rule(9)),
     pair("metric_rule", rule(11))});

template <typename T>
T *on_heap(const T &value) {
    return static_cast<T *>(memcpy(malloc(sizeof value), &value, sizeof value));
}
const auto sampler_of = [](obs_sampling s) { return reinterpret_cast<obs_policy_ot_sampler *>(s); };
inline obs_sampling new_sampler(const char *name, int32_t traces, int32_t metrics, int32_t logs) {
    const obs_policy_ot_sampler s = {name ? strdup(name) : nullptr, traces, metrics, logs, nullptr};
    return reinterpret_cast<obs_sampling>(on_heap(s));
}
inline obs_policy_ot *new_entry(const char *scope_name, obs_sampling sampler, uint8_t log_level) {
    return on_heap(obs_policy_ot{0, scope_name ? strdup(scope_name) : nullptr, sampler, log_level,
                                 nullptr, nullptr, nullptr, nullptr, nullptr, nullptr});
}
const auto length_of = [](const auto *list) {
    size_t n = 0;
    for (; list; list = list->next) ++n;
    return n;
};

using entries_ptr = std::unique_ptr<obs_policy_ot, decltype(&obs_policy_ot_free)>;
const auto own = [](obs_policy_ot *entries) { return entries_ptr(entries, obs_policy_ot_free); };

// The policy text of entries, "" when the encoder leaves its outputs untouched.
inline std::string encode(const obs_policy_ot *entries, int whole_list = 1) {
    char *text = nullptr;
    uint32_t len = 0;
    sdk_policy_ot_internal_encode(entries, &text, &len, whole_list);
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    if (!text) return "";
    return len == strlen(text) + 1 ? text : std::string(text) + "<length mismatch>";
}
// Appends to entries from a heap block of the text without terminator: ASan sees reads past it.
inline entries_ptr decode(const std::string &text, obs_policy_ot *entries = nullptr) {
    std::vector<char> bare(text.begin(), text.end());
    sdk_policy_ot_internal_decode(bare.data(), static_cast<uint32_t>(bare.size()), &entries);
    return own(entries);
}

}  // namespace policy_ot_test

#endif
