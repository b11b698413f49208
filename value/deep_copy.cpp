// Deep copies of value chains and key-value lists.
#include <cstdlib>
#include <cstring>

#include "support/list.h"
#include "support/owned_copy.h"
#include "value/deep_copy.h"

namespace {

bool copy_node_into(obs_any_value *node, const obs_any_value *src);

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
    switch (OBS_VALUE_TYPE_CODE(src->type)) {
        case OBS_VALUE_STR:
            node->val.ptr = payload ? strdup(static_cast<const char *>(payload)) : nullptr;
            break;
        case OBS_VALUE_BYTES:
            if (!src->vlen) payload = nullptr;
            node->val.ptr = payload ? obs::copy_block(payload, src->vlen) : nullptr;
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

obs_any_value *copy_node(const obs_any_value *src) {
    auto *node = static_cast<obs_any_value *>(malloc(sizeof(obs_any_value)));
    if (node && !copy_node_into(node, src)) {
        free(node);
        return nullptr;
    }
    return node;
}

// The whole chain from node, or null when memory runs out.
obs_any_value *copy_chain(const obs_any_value *node) {
    return obs::list_copy_all(node, 0, copy_node, obs_any_value_free);
}

obs_key_value *copy_pair(const obs_key_value *src) {
    auto *pair = static_cast<obs_key_value *>(calloc(1, sizeof(obs_key_value)));
    if (!pair) return nullptr;
    pair->key = src->key;
    pair->val = copy_chain(src->val);
    if (!obs::copy_text_in_place(&pair->key) || (src->val && !pair->val)) {
        obs_key_value_free(pair);
        return nullptr;
    }
    return pair;
}

}  // namespace

obs_key_value *obs::key_value_deep_copy(const obs_key_value *list) {
    return obs::list_copy_all(list, 0, copy_pair, obs_key_value_free);
}
