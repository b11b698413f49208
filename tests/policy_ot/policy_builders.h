// Sampling policies built for the tests the way the library builds them (every part malloc'd, so
// the library's release functions can take them), and policy texts built piece by piece.
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

using obs_test::integer;
using obs_test::joined;
using obs_test::kvlist;
using obs_test::node;
using obs_test::pair;
using obs_test::str;

// The two example policies: scope "default" all on with log level 3; every scope with one
// sampler s1, traces on and metrics off.
const char kDefaultAllOn[] =
    "{kvlist 111 3 [{str 12 \"scope_name\" 17 {str 9 \"default\"}},{str 10 \"sampling\" 9 {int 1 "
    "2}},{str 11 \"log_level\" 9 {int 1 3}}]}";
const char kEverySampler[] =
    "{kvlist 185 2 [{str 12 \"scope_name\" 11 {str 3 \"*\"}},{str 9 \"sampler\" 122 {kvlist 109 3 "
    "[{str 6 \"name\" 12 {str 4 \"s1\"}},{str 15 \"traces_config\" 9 {int 1 2}},{str 16 "
    "\"metrics_config\" 9 {int 1 1}}]}}]}";

inline obs_policy_ot_sampler *new_sampler(const char *name, int32_t traces, int32_t metrics,
                                          int32_t logs) {
    auto *sampler = static_cast<obs_policy_ot_sampler *>(calloc(1, sizeof(obs_policy_ot_sampler)));
    *sampler = {name ? strdup(name) : nullptr, traces, metrics, logs, nullptr};
    return sampler;
}
inline obs_sampling as_sampling(const obs_policy_ot_sampler *sampler) {
    return reinterpret_cast<obs_sampling>(sampler);
}
inline obs_policy_ot_sampler *sampler_of(obs_sampling sampling) {
    return reinterpret_cast<obs_policy_ot_sampler *>(sampling);
}
inline obs_policy_ot_rule *new_rule(obs_key_value *kv, uint8_t match, uint8_t action) {
    auto *rule = static_cast<obs_policy_ot_rule *>(calloc(1, sizeof(obs_policy_ot_rule)));
    *rule = {kv, match, action, nullptr};
    return rule;
}
inline obs_policy_ot *new_entry(const char *scope_name, obs_sampling sampler, uint8_t log_level) {
    auto *entry = static_cast<obs_policy_ot *>(calloc(1, sizeof(obs_policy_ot)));
    entry->scope_name = scope_name ? strdup(scope_name) : nullptr;
    entry->sampler = sampler;
    entry->log_level = log_level;
    return entry;
}

using entries_ptr = std::unique_ptr<obs_policy_ot, decltype(&obs_policy_ot_free)>;
inline entries_ptr own(obs_policy_ot *entries) {
    return entries_ptr(entries, obs_policy_ot_free);
}

// The policy text of entries, "" when the encoder leaves its outputs untouched.
inline std::string encode(const obs_policy_ot *entries, int whole_list = 1) {
    char *text = nullptr;
    uint32_t len = 0;
    sdk_policy_ot_internal_encode(entries, &text, &len, whole_list);
    if (!text) return "";
    std::string result(text);
    if (len != result.size() + 1) result += "<length mismatch>";
    free(text);
    return result;
}
inline entries_ptr decode(const std::string &text) {
    obs_policy_ot *entries = nullptr;
    sdk_policy_ot_internal_decode(text.c_str(), static_cast<uint32_t>(text.size() + 1), &entries);
    return own(entries);
}

template <typename Node>
size_t length_of(const Node *list) {
    size_t n = 0;
    for (; list; list = list->next) ++n;
    return n;
}

}  // namespace policy_ot_test

#endif
