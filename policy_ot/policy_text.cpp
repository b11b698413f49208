// The sampling policy's text form: one kvlist per entry, with its samplers and rules as chains
// of kvlists. The text arrives from the policy agent and is untrusted: a value is read only when
// its node has the type the format gives that key, and every payload an entry takes from the
// decoded tree is taken exactly once (its node is marked OBS_VALUE_REF), so releasing the tree
// afterwards frees everything else and nothing twice.
#include <cstdlib>
#include <cstring>

#include "observability/policy_ot.h"
#include "observability/sds.h"
#include "policy_ot/sampler_list.h"
#include "support/list.h"
#include "value/bounded_text.h"
#include "value/deep_copy.h"

namespace {

constexpr int kRuleKinds = 5;
// In the order the rule lists of an entry are written.
const char *const kRuleKeys[kRuleKinds] = {"resource_rule", "scope_rule", "span_rule", "log_rule",
                                           "metric_rule"};

bool has_type(const obs_any_value *node, uint8_t code) {
    return node && (node->type & ~OBS_VALUE_REF) == code;
}

// The value of key when it is one node of the given type, else null (as if the key were absent).
obs_any_value *find_single(obs_key_value *pairs, const char *key, uint8_t code) {
    obs_any_value *value = obs_key_value_get_val(obs_key_value_find(pairs, key));
    return has_type(value, code) && !value->next ? value : nullptr;
}

bool find_int(obs_key_value *pairs, const char *key, int64_t *out) {
    const obs_any_value *value = find_single(pairs, key, OBS_VALUE_INT);
    if (value) *out = value->val.i;
    return value != nullptr;
}

uint8_t low_byte(obs_key_value *pairs, const char *key) {
    int64_t value = 0;
    find_int(pairs, key, &value);
    return static_cast<uint8_t>(value);
}

int32_t low_word(obs_key_value *pairs, const char *key) {
    int64_t value = 0;
    find_int(pairs, key, &value);
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

// "sampling" read as a whole-signal setting; only the int 0, 1 or 2 counts, so a text can never
// make the sampling a pointer.
bool find_sampling(obs_key_value *pairs, obs_sampling *out) {
    int64_t value = -1;
    if (!find_int(pairs, "sampling", &value) || value < 0 || value > OBS_SAMPLING_ALL_ON)
        return false;
    *out = static_cast<obs_sampling>(value);
    return true;
}

// A payload for the caller to own: taken over when node owns it, copied when node only refers
// to it (someone else owns it, or it was taken before). Null when memory runs out.
char *take_string(obs_any_value *node) {
    auto *str = static_cast<char *>(node->val.ptr);
    if (node->type & OBS_VALUE_REF) return strdup(str);
    node->type |= OBS_VALUE_REF;
    return str;
}

obs_key_value *take_pairs(obs_any_value *node) {
    auto *pairs = static_cast<obs_key_value *>(node->val.ptr);
    if (node->type & OBS_VALUE_REF) return obs::key_value_deep_copy(pairs);
    node->type |= OBS_VALUE_REF;
    return pairs;
}

// Sets *out to the string under key, if any; false only when memory runs out.
bool read_string(obs_key_value *pairs, const char *key, char **out) {
    obs_any_value *node = find_single(pairs, key, OBS_VALUE_STR);
    if (!node || !node->val.ptr) return true;
    *out = take_string(node);
    return *out != nullptr;
}

// Sets *out to the pair list of the kvlist under key, if any; false only when memory runs out.
bool read_pairs(obs_key_value *pairs, const char *key, obs_key_value **out) {
    obs_any_value *node = find_single(pairs, key, OBS_VALUE_KVLIST);
    if (!node || !node->val.ptr) return true;
    *out = take_pairs(node);
    return *out != nullptr;
}

// A sampler made from one kvlist's pairs, or null when memory runs out.
obs_policy_ot_sampler *sampler_from_pairs(obs_key_value *pairs) {
    auto *sampler = static_cast<obs_policy_ot_sampler *>(calloc(1, sizeof(obs_policy_ot_sampler)));
    if (!sampler) return nullptr;
    if (!read_string(pairs, "name", &sampler->name)) {
        free(sampler);
        return nullptr;
    }
    sampler->traces_config = low_word(pairs, "traces_config");
    sampler->metrics_config = low_word(pairs, "metrics_config");
    sampler->logs_config = low_word(pairs, "logs_config");
    return sampler;
}

obs_policy_ot_rule *rule_from_pairs(obs_key_value *pairs) {
    auto *rule = static_cast<obs_policy_ot_rule *>(calloc(1, sizeof(obs_policy_ot_rule)));
    if (!rule) return nullptr;
    if (!read_pairs(pairs, "kv", &rule->kv)) {
        free(rule);
        return nullptr;
    }
    rule->match = low_byte(pairs, "match");
    rule->action = low_byte(pairs, "action");
    return rule;
}

// Null when memory runs out; then nothing was taken from the pairs.
obs_policy_ot *entry_from_pairs(obs_key_value *pairs) {
    auto *entry = static_cast<obs_policy_ot *>(calloc(1, sizeof(obs_policy_ot)));
    if (!entry) return nullptr;
    if (!read_string(pairs, "scope_name", &entry->scope_name)) {
        free(entry);
        return nullptr;
    }
    entry->signal = low_byte(pairs, "signal");
    entry->log_level = low_byte(pairs, "log_level");
    if (!find_sampling(pairs, &entry->sampler))
        sdk_policy_ot_sampler_from_key_value(pairs, &entry->sampler);
    obs_policy_ot_rule **const lists[kRuleKinds] = {&entry->resource_rule, &entry->scope_rule,
                                                    &entry->span_rule, &entry->log_rule,
                                                    &entry->metric_rule};
    for (int i = 0; i < kRuleKinds; ++i)
        sdk_policy_ot_rule_from_key_value(kRuleKeys[i], pairs, lists[i]);
    return entry;
}

obs_any_value *parse_text(const char *text, uint32_t len) {
    obs::bounded_text bounded(text, len);
    obs_any_value *tree = nullptr;
    if (bounded.chars())
        obs_any_value_decode(bounded.chars(), static_cast<uint32_t>(bounded.length() + 1), &tree);
    return tree;
}

// Appends pairs to the chain as an owned kvlist node; releases them when the node cannot be
// made. An empty pair list adds nothing.
void append_kvlist(obs_any_value **chain, obs_key_value *pairs) {
    if (!pairs) return;
    while (*chain) chain = &(*chain)->next;
    obs_any_value_add_kvlist(chain, pairs, 0);
    if (!*chain) obs_key_value_free(pairs);
}

// Adds chain under key; releases it when the pair cannot be made. An empty chain adds nothing.
void add_chain(obs_key_value **pairs, const char *key, obs_any_value *chain) {
    if (!chain) return;
    while (*pairs) pairs = &(*pairs)->next;
    obs_key_value_add_list(pairs, key, chain);
    if (!*pairs) obs_any_value_free(chain);
}

obs_key_value *entry_pairs(const obs_policy_ot *entry) {
    obs_key_value *pairs = nullptr;
    if (entry->signal) obs_key_value_add_int(&pairs, "signal", entry->signal);
    if (entry->scope_name) obs_key_value_add_str(&pairs, "scope_name", entry->scope_name, 0);
    if (obs::is_sampler_list(entry->sampler)) {
        sdk_policy_ot_sampler_encode(&pairs, obs::sampler_list(entry->sampler));
    } else if (entry->sampler) {
        obs_key_value_add_int(&pairs, "sampling", static_cast<int64_t>(entry->sampler));
    }
    if (entry->log_level) obs_key_value_add_int(&pairs, "log_level", entry->log_level);
    const obs_policy_ot_rule *const rules[kRuleKinds] = {entry->resource_rule, entry->scope_rule,
                                                         entry->span_rule, entry->log_rule,
                                                         entry->metric_rule};
    for (int i = 0; i < kRuleKinds; ++i)
        sdk_policy_ot_rule_to_key_value(kRuleKeys[i], rules[i], &pairs);
    return pairs;
}

obs_key_value *sampler_pairs(const obs_policy_ot_sampler *sampler) {
    obs_key_value *pairs = nullptr;
    if (sampler->name) obs_key_value_add_str(&pairs, "name", sampler->name, 1);
    if (sampler->traces_config)
        obs_key_value_add_int(&pairs, "traces_config", sampler->traces_config);
    if (sampler->metrics_config)
        obs_key_value_add_int(&pairs, "metrics_config", sampler->metrics_config);
    if (sampler->logs_config) obs_key_value_add_int(&pairs, "logs_config", sampler->logs_config);
    return pairs;
}

obs_key_value *rule_pairs(const obs_policy_ot_rule *rule) {
    obs_key_value *pairs = nullptr;
    if (rule->kv) obs_key_value_add_kvlist(&pairs, "kv", rule->kv, 1);
    obs_key_value_add_int(&pairs, "match", rule->match);
    obs_key_value_add_int(&pairs, "action", rule->action);
    return pairs;
}

}  // namespace

extern "C" {

void sdk_policy_ot_internal_encode(const obs_policy_ot *entries, char **text, uint32_t *len,
                                   int whole_list) {
    if (!text || !len) return;
    obs_any_value *chain = nullptr;
    for (; entries; entries = whole_list ? entries->next : nullptr)
        append_kvlist(&chain, entry_pairs(entries));
    if (!chain) return;
    obs_sds encoded = obs_any_value_encode(chain);
    obs_any_value_free(chain);
    char *copy = encoded && encoded[0] ? strdup(encoded) : nullptr;
    obs_sdsfree(encoded);
    if (!copy) return;
    *text = copy;
    *len = static_cast<uint32_t>(strlen(copy) + 1);
}

void sdk_policy_ot_internal_decode(const char *text, uint32_t len, obs_policy_ot **list) {
    if (!text || !list || len == 0) return;
    obs_any_value *tree = parse_text(text, len);
    obs_policy_ot **tail = list;
    for (obs_any_value *node = tree; node && node->type == OBS_VALUE_KVLIST; node = node->next) {
        obs_policy_ot *entry = entry_from_pairs(static_cast<obs_key_value *>(node->val.ptr));
        if (!entry) break;
        obs::list_append(tail, entry);
        tail = &entry->next;
    }
    obs_any_value_free(tree);
}

void sdk_policy_ot_sampler_encode(obs_key_value **pairs, const obs_policy_ot_sampler *samplers) {
    if (!pairs) return;
    obs_any_value *chain = nullptr;
    for (; samplers; samplers = samplers->next) append_kvlist(&chain, sampler_pairs(samplers));
    add_chain(pairs, "sampler", chain);
}

void sdk_policy_ot_rule_to_key_value(const char *key, const obs_policy_ot_rule *rules,
                                     obs_key_value **pairs) {
    if (!pairs) return;
    obs_any_value *chain = nullptr;
    for (; rules; rules = rules->next) append_kvlist(&chain, rule_pairs(rules));
    add_chain(pairs, key, chain);
}

void sdk_policy_ot_sampler_from_key_value(obs_key_value *pairs, obs_sampling *sampling) {
    if (!sampling || *sampling == OBS_SAMPLING_ALL_OFF || *sampling == OBS_SAMPLING_ALL_ON) return;
    obs_policy_ot_sampler *head = obs::sampler_list(*sampling);
    obs_policy_ot_sampler **tail = &head;
    obs_any_value *chain = obs_key_value_get_val(obs_key_value_find(pairs, "sampler"));
    for (; chain; chain = chain->next) {
        if (!has_type(chain, OBS_VALUE_KVLIST)) continue;
        obs_policy_ot_sampler *sampler =
            sampler_from_pairs(static_cast<obs_key_value *>(chain->val.ptr));
        if (!sampler) continue;
        obs::list_append(tail, sampler);
        tail = &sampler->next;
    }
    *sampling = obs::as_sampling(head);
}

void sdk_policy_ot_rule_from_key_value(const char *key, obs_key_value *pairs,
                                       obs_policy_ot_rule **rules) {
    if (!rules) return;
    obs_policy_ot_rule **tail = rules;
    obs_any_value *chain = obs_key_value_get_val(obs_key_value_find(pairs, key));
    for (; chain; chain = chain->next) {
        if (!has_type(chain, OBS_VALUE_KVLIST)) continue;
        obs_policy_ot_rule *rule = rule_from_pairs(static_cast<obs_key_value *>(chain->val.ptr));
        if (!rule) continue;
        obs::list_append(tail, rule);
        tail = &rule->next;
    }
}

}  // extern "C"
