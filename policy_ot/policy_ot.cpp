// Sampling policy entries and their rules: lookup, copies that own everything they hold (rule
// pairs are copied down to every value payload), release; and copies of policy record lists whose
// translated entry chains are copied along.
#include <cstdlib>
#include <cstring>

#include "observability/policy_ot.h"
#include "policy_ot/translated_record.h"
#include "policy_ot/value_copy.h"

namespace {

bool copy_node_into(obs_any_value *node, const obs_any_value *src);

// Copies the text in *field in place; false when memory runs out (the field is then null).
bool copy_text(char **field) {
    if (!*field) return true;
    *field = strdup(*field);
    return *field != nullptr;
}

void *copy_block(const void *src, size_t n) {
    void *block = malloc(n);
    if (block) memcpy(block, src, n);
    return block;
}

// The elements live in one block whose nodes have no next of their own.
obs_any_value *copy_elements(const obs_any_value *elements, uint32_t count) {
    auto *block = static_cast<obs_any_value *>(calloc(count, sizeof(obs_any_value)));
    if (!block) return nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        if (!copy_node_into(&block[i], &elements[i])) {
            for (uint32_t j = 0; j < i; ++j) obs_any_value_free_generic(&block[j], 1);
            free(block);
            return nullptr;
        }
    }
    return block;
}

// Gives node, a bitwise copy of src, a payload of its own; false when memory runs out.
bool own_payload(obs_any_value *node, const obs_any_value *src) {
    const void *payload = src->val.ptr;
    switch (src->type & 0x0f) {
        case OBS_VALUE_STR:
            node->val.ptr = payload ? strdup(static_cast<const char *>(payload)) : nullptr;
            break;
        case OBS_VALUE_BYTES:
            if (!src->vlen) payload = nullptr;
            node->val.ptr = payload ? copy_block(payload, src->vlen) : nullptr;
            break;
        case OBS_VALUE_ARRAY:
            if (!src->vlen) payload = nullptr;
            node->val.ptr =
                payload ? copy_elements(static_cast<const obs_any_value *>(payload), src->vlen)
                        : nullptr;
            break;
        case OBS_VALUE_KVLIST:
            node->val.ptr = obs::key_value_deep_copy(static_cast<const obs_key_value *>(payload));
            break;
        default:
            return true;
    }
    return node->val.ptr || !payload;
}

// node becomes a copy of src with next null that owns what it holds; false when memory runs
// out, node then holding nothing to release.
bool copy_node_into(obs_any_value *node, const obs_any_value *src) {
    *node = *src;
    node->next = nullptr;
    node->type = src->type & ~OBS_VALUE_REF;
    return own_payload(node, src);
}

// The whole chain from node, or null when memory runs out.
obs_any_value *copy_chain(const obs_any_value *node) {
    obs_any_value *copy = nullptr;
    obs_any_value **link = &copy;
    for (; node; node = node->next) {
        auto *twin = static_cast<obs_any_value *>(malloc(sizeof(obs_any_value)));
        if (!twin || !copy_node_into(twin, node)) {
            free(twin);
            obs_any_value_free(copy);
            return nullptr;
        }
        *link = twin;
        link = &twin->next;
    }
    return copy;
}

obs_key_value *copy_pair(const obs_key_value *src) {
    auto *pair = static_cast<obs_key_value *>(calloc(1, sizeof(obs_key_value)));
    if (!pair) return nullptr;
    pair->key = src->key;
    pair->val = copy_chain(src->val);
    if (!copy_text(&pair->key) || (src->val && !pair->val)) {
        obs_key_value_free(pair);
        return nullptr;
    }
    return pair;
}

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
    if (!copy_text(&entry->scope_name)) {
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

}  // namespace

obs_key_value *obs::key_value_deep_copy(const obs_key_value *list) {
    obs_key_value *copy = nullptr;
    obs_key_value **link = &copy;
    for (; list; list = list->next) {
        obs_key_value *pair = copy_pair(list);
        if (!pair) {
            obs_key_value_free(copy);
            return nullptr;
        }
        *link = pair;
        link = &pair->next;
    }
    return copy;
}

extern "C" {

obs_policy_ot *obs_policy_ot_find(obs_policy_ot *list, const char *scope_name) {
    if (!scope_name) return nullptr;
    for (; list; list = list->next)
        if (list->scope_name && strcmp(list->scope_name, scope_name) == 0) return list;
    return nullptr;
}

obs_policy_ot_rule *obs_policy_ot_rule_clone(const obs_policy_ot_rule *rules, int only_first) {
    obs_policy_ot_rule *copy = nullptr;
    obs_policy_ot_rule **link = &copy;
    for (; rules; rules = only_first ? nullptr : rules->next) {
        obs_policy_ot_rule *rule = copy_rule(rules);
        if (!rule) continue;
        *link = rule;
        link = &rule->next;
    }
    return copy;
}

void obs_policy_ot_rule_free(obs_policy_ot_rule *rules) {
    while (rules) {
        obs_policy_ot_rule *next = rules->next;
        obs_key_value_free(rules->kv);
        free(rules);
        rules = next;
    }
}

obs_policy_ot *obs_policy_ot_clone(const obs_policy_ot *list, int only_first) {
    obs_policy_ot *copy = nullptr;
    obs_policy_ot **link = &copy;
    for (; list; list = only_first ? nullptr : list->next) {
        obs_policy_ot *entry = copy_entry(list);
        if (!entry) continue;
        *link = entry;
        link = &entry->next;
    }
    return copy;
}

void obs_policy_ot_free(obs_policy_ot *list) {
    while (list) {
        obs_policy_ot *next = list->next;
        free(list->scope_name);
        obs_policy_ot_rule_free(list->resource_rule);
        obs_policy_ot_rule_free(list->scope_rule);
        obs_policy_ot_rule_free(list->span_rule);
        obs_policy_ot_rule_free(list->log_rule);
        obs_policy_ot_rule_free(list->metric_rule);
        obs_policy_ot_sampler_free(list->sampler);
        free(list);
        list = next;
    }
}

obs_policy *sdk_policy_ot_clone(const obs_policy *policies, int only_first) {
    obs_policy *copy = nullptr;
    obs_policy **link = &copy;
    for (; policies; policies = only_first ? nullptr : policies->next) {
        obs_policy *record = copy_record(policies);
        if (!record) continue;
        *link = record;
        link = &record->next;
    }
    return copy;
}

}  // extern "C"
