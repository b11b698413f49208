// Sampling policy entries and their rules: lookup, copies that own everything they hold (rule
// pairs are copied down to every value payload), release; and copies of policy record lists whose
// translated entry chains are copied along.
#include <cstdlib>
#include <cstring>

#include "observability/policy_ot.h"
#include "policy_ot/translated_record.h"
#include "support/list.h"
#include "support/owned_copy.h"
#include "value/deep_copy.h"

namespace {

obs_policy_ot_rule *copy_rule(const obs_policy_ot_rule *src) {
    auto *rule = static_cast<obs_policy_ot_rule *>(calloc(1, sizeof(obs_policy_ot_rule)));
    if (!rule) return nullptr;
    rule->match = src->match;
    rule->action = src->action;
    rule->kv = obs::key_value_deep_copy(src->kv);
    if (src->kv && !rule->kv) {
        free(rule);
        return nullptr;
    }
    return rule;
}

obs_policy_ot *copy_entry(const obs_policy_ot *src) {
    auto *entry = static_cast<obs_policy_ot *>(malloc(sizeof(obs_policy_ot)));
    if (!entry) return nullptr;
    *entry = *src;
    entry->next = nullptr;
    if (!obs::copy_text_in_place(&entry->scope_name)) {
        free(entry);
        return nullptr;
    }
    entry->resource_rule = obs_policy_ot_rule_clone(src->resource_rule, 0);
    entry->scope_rule = obs_policy_ot_rule_clone(src->scope_rule, 0);
    entry->span_rule = obs_policy_ot_rule_clone(src->span_rule, 0);
    entry->log_rule = obs_policy_ot_rule_clone(src->log_rule, 0);
    entry->metric_rule = obs_policy_ot_rule_clone(src->metric_rule, 0);
    entry->sampler = obs_policy_ot_sampler_clone(src->sampler, 0);
    return entry;
}

// Copy of one record: a translated entry chain is copied, any other codec value dropped.
obs_policy *copy_record(const obs_policy *src) {
    obs_policy *copy = obs_policy_clone_one(src, 0);
    if (copy && obs::is_translated_record(src)) {
        const auto *entries = static_cast<const obs_policy_ot *>(src->codec_val);
        obs::store_translated_chain(copy, obs_policy_ot_clone(entries, 0));
    }
    return copy;
}

void release_rule(obs_policy_ot_rule *rule) {
    obs_key_value_free(rule->kv);
    free(rule);
}

void release_entry(obs_policy_ot *entry) {
    free(entry->scope_name);
    obs_policy_ot_rule_free(entry->resource_rule);
    obs_policy_ot_rule_free(entry->scope_rule);
    obs_policy_ot_rule_free(entry->span_rule);
    obs_policy_ot_rule_free(entry->log_rule);
    obs_policy_ot_rule_free(entry->metric_rule);
    obs_policy_ot_sampler_free(entry->sampler);
    free(entry);
}

}  // namespace

extern "C" {

obs_policy_ot *obs_policy_ot_find(obs_policy_ot *list, const char *scope_name) {
    if (!scope_name) return nullptr;
    for (; list; list = list->next)
        if (list->scope_name && strcmp(list->scope_name, scope_name) == 0) return list;
    return nullptr;
}

obs_policy_ot_rule *obs_policy_ot_rule_clone(const obs_policy_ot_rule *rules, int only_first) {
    return obs::list_copy(rules, only_first, copy_rule);
}

void obs_policy_ot_rule_free(obs_policy_ot_rule *rules) {
    obs::list_release(rules, release_rule);
}

obs_policy_ot *obs_policy_ot_clone(const obs_policy_ot *list, int only_first) {
    return obs::list_copy(list, only_first, copy_entry);
}

void obs_policy_ot_free(obs_policy_ot *list) {
    obs::list_release(list, release_entry);
}

obs_policy *sdk_policy_ot_clone(const obs_policy *policies, int only_first) {
    return obs::list_copy(policies, only_first, copy_record);
}

}  // extern "C"
