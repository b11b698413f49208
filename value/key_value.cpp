/* Key-value lists: pairs of a private key and a value chain, built at the tail. */
#include <cstdlib>
#include <cstring>

#include "observability/value.h"
#include "support/list.h"

namespace {

/* A pair holding a private copy of key and no value yet; null when key is null or memory
 * runs out. */
obs_key_value *pair_new(const char *key) {
    if (!key) return nullptr;
    auto *pair = static_cast<obs_key_value *>(calloc(1, sizeof(obs_key_value)));
    if (!pair) return nullptr;
    pair->key = strdup(key);
    if (!pair->key) {
        free(pair);
        return nullptr;
    }
    return pair;
}

/* The value is made by the value-list adder of the same name straight into the new pair, so
 * a pair is appended only when its value exists and a failed add leaves no trace. */
template <typename AddValue, typename... Args>
void add_pair(obs_key_value **head, const char *key, AddValue add_value, Args... args) {
    if (!head) return;
    obs_key_value *pair = pair_new(key);
    if (!pair) return;
    add_value(&pair->val, args...);
    if (!pair->val) {
        obs_key_value_free(pair);
        return;
    }
    obs::list_append(head, pair);
}

}  // namespace

void obs_key_value_add_generic(obs_key_value **head, const char *key, uint8_t type, const void *src,
                               uint32_t size) {
    add_pair(head, key, obs_any_value_add_generic, type, src, size);
}

void obs_key_value_add_str(obs_key_value **head, const char *key, const char *str, int borrow) {
    add_pair(head, key, obs_any_value_add_str, str, borrow);
}

void obs_key_value_add_byte(obs_key_value **head, const char *key, const void *bytes, uint32_t n,
                            uint8_t borrow) {
    add_pair(head, key, obs_any_value_add_byte, bytes, n, int{borrow});
}

void obs_key_value_add_bool(obs_key_value **head, const char *key, bool value) {
    add_pair(head, key, obs_any_value_add_bool, value);
}

void obs_key_value_add_int(obs_key_value **head, const char *key, int64_t value) {
    add_pair(head, key, obs_any_value_add_int, value);
}

void obs_key_value_add_double(obs_key_value **head, const char *key, double value) {
    add_pair(head, key, obs_any_value_add_double, value);
}

void obs_key_value_add_array(obs_key_value **head, const char *key, obs_any_value *elements,
                             uint32_t count, uint8_t borrow) {
    add_pair(head, key, obs_any_value_add_array, elements, count, int{borrow});
}

void obs_key_value_add_kvlist(obs_key_value **head, const char *key, obs_key_value *pairs,
                              int borrow) {
    add_pair(head, key, obs_any_value_add_kvlist, pairs, borrow);
}

void obs_key_value_add_list(obs_key_value **head, const char *key, obs_any_value *value) {
    add_pair(head, key, obs_any_value_add_list, value);
}

obs_key_value *obs_key_value_find(obs_key_value *list, const char *key) {
    if (!key) return nullptr;
    for (; list; list = list->next)
        if (list->key && strcmp(list->key, key) == 0) return list;
    return nullptr;
}

const char *obs_key_value_get_key(const obs_key_value *pair) {
    return pair ? pair->key : nullptr;
}

obs_any_value *obs_key_value_get_val(const obs_key_value *pair) {
    return pair ? pair->val : nullptr;
}

obs_key_value *obs_key_value_get_next(const obs_key_value *pair) {
    return pair ? pair->next : nullptr;
}

void obs_key_value_free(obs_key_value *list) {
    while (list) {
        obs_key_value *next = list->next;
        free(list->key);
        obs_any_value_free(list->val);
        free(list);
        list = next;
    }
}

obs_key_value *obs_key_value_clone(const obs_key_value *list, int only_first) {
    return obs::list_copy_all(
        list, only_first,
        [](const obs_key_value *src) {
            obs_key_value *pair = pair_new(src->key);
            if (pair) pair->val = obs_any_value_clone(src->val, 0);
            if (pair && src->val && !pair->val) {
                obs_key_value_free(pair);
                return static_cast<obs_key_value *>(nullptr);
            }
            return pair;
        },
        obs_key_value_free);
}
