/* Value nodes: building, reading, releasing and shallow copying chains of typed values. */
#include <cstdlib>
#include <cstring>

#include "observability/value.h"
#include "support/list.h"
#include "support/owned_copy.h"

namespace {

constexpr const char *type_names[] = {"na",     "str",   "bool",   "int",
                                      "double", "array", "kvlist", "byte"};

constexpr uint8_t with_borrow(uint8_t code, int borrow) {
    return borrow ? code | OBS_VALUE_REF : code;
}

/* Fills node as obs_any_value_set_generic documents; false when a payload copy could not be
 * allocated, so a caller building a new node can drop it instead of keeping a hollow one. */
bool fill_node(obs_any_value *node, uint8_t type, const void *src, uint32_t size) {
    const bool borrowed = type & OBS_VALUE_REF;
    node->type = type;
    node->vlen = size;
    node->next = nullptr;
    switch (OBS_VALUE_TYPE_CODE(type)) {
        case OBS_VALUE_STR:
            node->val.ptr = borrowed
                                ? const_cast<void *>(src)
                                : obs::copy_block(src, strlen(static_cast<const char *>(src)) + 1);
            return node->val.ptr != nullptr;
        case OBS_VALUE_BOOL:
            node->val.b = *static_cast<const uint8_t *>(src);
            return true;
        case OBS_VALUE_INT:
        case OBS_VALUE_DOUBLE:
            memcpy(&node->val, src, 8);
            return true;
        case OBS_VALUE_ARRAY:
        case OBS_VALUE_KVLIST:
            node->val.ptr = const_cast<void *>(src);
            return true;
        case OBS_VALUE_BYTES:
            if (borrowed) {
                node->val.ptr = const_cast<void *>(src);
            } else if (size) {
                node->val.ptr = obs::copy_block(src, size);
                return node->val.ptr != nullptr;
            }
            return true;
        default:
            return true;
    }
}

/* What a node owns; its own next and the node itself are the caller's business. */
void release_payload(obs_any_value *node) {
    switch (OBS_VALUE_TYPE_CODE(node->type)) {
        case OBS_VALUE_STR:
        case OBS_VALUE_BYTES:
            free(node->val.ptr);
            break;
        case OBS_VALUE_ARRAY: {
            // The elements live inside the block: release what they own, then the block once.
            auto *elements = static_cast<obs_any_value *>(node->val.ptr);
            for (uint32_t i = 0; elements && i < node->vlen; ++i)
                obs_any_value_free_generic(&elements[i], 1);
            free(elements);
            break;
        }
        case OBS_VALUE_KVLIST:
            obs_key_value_free(static_cast<obs_key_value *>(node->val.ptr));
            break;
        default:
            break;
    }
}

}  // namespace

void obs_any_value_set_generic(obs_any_value *node, uint8_t type, const void *src, uint32_t size) {
    if (node && src) fill_node(node, type, src, size);
}

void obs_any_value_add_generic(obs_any_value **head, uint8_t type, const void *src, uint32_t size) {
    if (!head || !src) return;
    if (type == OBS_VALUE_NONE) {
        obs::list_append(head, static_cast<obs_any_value *>(const_cast<void *>(src)));
        return;
    }
    auto *node = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
    if (!node) return;
    if (!fill_node(node, type, src, size)) {
        free(node);
        return;
    }
    obs::list_append(head, node);
}

void obs_any_value_add_str(obs_any_value **head, const char *str, int borrow) {
    if (!str) return;
    obs_any_value_add_generic(head, with_borrow(OBS_VALUE_STR, borrow), str,
                              static_cast<uint32_t>(strlen(str) + 1));
}

void obs_any_value_add_byte(obs_any_value **head, const void *bytes, uint32_t n, int borrow) {
    obs_any_value_add_generic(head, with_borrow(OBS_VALUE_BYTES, borrow), bytes, n);
}

void obs_any_value_add_bool(obs_any_value **head, bool value) {
    const uint8_t byte = value;
    obs_any_value_add_generic(head, OBS_VALUE_BOOL, &byte, 1);
}

void obs_any_value_add_int(obs_any_value **head, int64_t value) {
    obs_any_value_add_generic(head, OBS_VALUE_INT, &value, 8);
}

void obs_any_value_add_double(obs_any_value **head, double value) {
    obs_any_value_add_generic(head, OBS_VALUE_DOUBLE, &value, 8);
}

void obs_any_value_add_array(obs_any_value **head, obs_any_value *elements, uint32_t count,
                             int borrow) {
    obs_any_value_add_generic(head, with_borrow(OBS_VALUE_ARRAY, borrow), elements, count);
}

void obs_any_value_add_kvlist(obs_any_value **head, obs_key_value *pairs, int borrow) {
    obs_any_value_add_generic(head, with_borrow(OBS_VALUE_KVLIST, borrow), pairs,
                              obs::list_length(pairs));
}

void obs_any_value_add_list(obs_any_value **head, obs_any_value *node) {
    obs_any_value_add_generic(head, OBS_VALUE_NONE, node, 0);
}

uint8_t obs_any_value_get_type(const obs_any_value *node) {
    return node ? node->type : 0;
}

uint32_t obs_any_value_get_vlen(const obs_any_value *node) {
    return node ? node->vlen : 0;
}

obs_any_value *obs_any_value_get_next(const obs_any_value *node) {
    return node ? node->next : nullptr;
}

const char *obs_any_value_get_str(const obs_any_value *node) {
    return node ? static_cast<const char *>(node->val.ptr) : nullptr;
}

const void *obs_any_value_get_byte(const obs_any_value *node) {
    return node ? node->val.ptr : nullptr;
}

obs_any_value *obs_any_value_get_array(const obs_any_value *node) {
    return node ? static_cast<obs_any_value *>(node->val.ptr) : nullptr;
}

obs_key_value *obs_any_value_get_kvlist(const obs_any_value *node) {
    return node ? static_cast<obs_key_value *>(node->val.ptr) : nullptr;
}

unsigned int obs_any_value_get_bool(const obs_any_value *node) {
    return node ? node->val.b : 0;
}

int64_t obs_any_value_get_int(const obs_any_value *node) {
    return node ? node->val.i : 0;
}

double obs_any_value_get_double(const obs_any_value *node) {
    return node ? node->val.d : 0.0;
}

void *obs_any_value_get_val(obs_any_value *node, uint8_t type) {
    if (!node) return nullptr;
    switch (OBS_VALUE_TYPE_CODE(type)) {
        case OBS_VALUE_STR:
        case OBS_VALUE_ARRAY:
        case OBS_VALUE_KVLIST:
        case OBS_VALUE_BYTES:
            return node->val.ptr;
        case OBS_VALUE_BOOL:
        case OBS_VALUE_INT:
        case OBS_VALUE_DOUBLE:
            return &node->val;
        default:
            return nullptr;
    }
}

const char *obs_any_value_type_name(uint8_t type) {
    const uint8_t code = OBS_VALUE_TYPE_CODE(type);
    return code < sizeof type_names / sizeof type_names[0] ? type_names[code] : type_names[0];
}

void obs_any_value_free_generic(obs_any_value *node, int keep_nodes) {
    while (node) {
        obs_any_value *next = node->next;
        if (!(node->type & OBS_VALUE_REF)) release_payload(node);
        if (!keep_nodes) free(node);
        node = next;
    }
}

void obs_any_value_free(obs_any_value *node) {
    obs_any_value_free_generic(node, 0);
}

obs_any_value *obs_any_value_clone(const obs_any_value *node, int only_first) {
    return obs::list_copy_all(
        node, only_first,
        [](const obs_any_value *src) {
            auto *twin = static_cast<obs_any_value *>(malloc(sizeof(obs_any_value)));
            if (twin) {
                *twin = *src;
                twin->type |= OBS_VALUE_REF;
                twin->next = nullptr;
            }
            return twin;
        },
        obs_any_value_free);
}
