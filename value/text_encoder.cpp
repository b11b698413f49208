// Text encoding of value chains: every node is "{name length payload}", a chain of two or more is
// "[node,node]". Payloads are written as they are, never escaped; the length tells a reader where
// each one ends.
#include "observability/sds.h"
#include "observability/value.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint8_t kTypeCodeMask = 0x0F;

// A node's length is written before its payload but known only after it, so each payload is
// formatted into a scratch string first. There is one scratch string per nesting level, reused
// by every node at that level; level 0 is the result itself. Levels are addressed by index
// because entering a deeper level may move the array.
struct text_writer {
    obs_sds *levels;
    uint32_t count;
};

bool append(text_writer *w, uint32_t level, const void *src, uint32_t n) {
    obs_sds grown = obs_sdscat(w->levels[level], src, n);
    if (!grown) return false;
    w->levels[level] = grown;
    return true;
}

bool append_text(text_writer *w, uint32_t level, const char *text) {
    return append(w, level, text, static_cast<uint32_t>(strlen(text)));
}

bool append_formatted(text_writer *w, uint32_t level, const char *text, int n) {
    return n >= 0 && append(w, level, text, static_cast<uint32_t>(n));
}

bool append_level(text_writer *w, uint32_t level, uint32_t source) {
    return append(w, level, w->levels[source], obs_sdslen(w->levels[source]));
}

// Empties the scratch string of level, making it on first use.
bool begin_level(text_writer *w, uint32_t level) {
    while (w->count <= level) {
        void *grown = realloc(w->levels, (w->count + 1) * sizeof(obs_sds));
        if (!grown) return false;
        w->levels = static_cast<obs_sds *>(grown);
        w->levels[w->count] = obs_sdsempty();
        if (!w->levels[w->count]) return false;
        ++w->count;
    }
    obs_sdsclear(w->levels[level]);
    return true;
}

void release(text_writer *w) {
    for (uint32_t i = 0; i < w->count; ++i) obs_sdsfree(w->levels[i]);
    free(w->levels);
}

bool write_text(text_writer *w, uint32_t level, const obs_any_value *head);

// "%f" when it fits in 31 characters; a larger magnitude would be cut there, so it gets the
// shortest "%g" form that reads back to the same double instead.
bool write_double(text_writer *w, uint32_t level, double value) {
    char text[32];
    int n = snprintf(text, sizeof text, "%f", value);
    if (n >= static_cast<int>(sizeof text)) {
        for (int precision = 15; precision <= 17; ++precision) {
            n = snprintf(text, sizeof text, "%.*g", precision, value);
            if (strtod(text, nullptr) == value) break;
        }
    }
    return append_formatted(w, level, text, n);
}

bool write_str(text_writer *w, uint32_t level, const char *str) {
    return append(w, level, "\"", 1) && (!str || append_text(w, level, str)) &&
           append(w, level, "\"", 1);
}

// Two lower-case digits per byte, as "%02x" writes them.
bool write_bytes(text_writer *w, uint32_t level, const uint8_t *bytes, uint32_t n) {
    static constexpr char kDigits[] = "0123456789abcdef";
    char hex[64];
    uint32_t used = 0;
    for (uint32_t i = 0; i < n; ++i) {
        hex[used++] = kDigits[bytes[i] >> 4];
        hex[used++] = kDigits[bytes[i] & 0x0f];
        if (used == sizeof hex || i + 1 == n) {
            if (!append(w, level, hex, used)) return false;
            used = 0;
        }
    }
    return true;
}

bool write_count(text_writer *w, uint32_t level, uint32_t count) {
    char text[32];
    return append_formatted(w, level, text,
                            snprintf(text, sizeof text, "%d [", static_cast<int>(count)));
}

bool write_array(text_writer *w, uint32_t level, const obs_any_value *array) {
    const auto *elements = static_cast<const obs_any_value *>(array->val.ptr);
    if (array->vlen == 0 || !elements) return true;
    if (!write_count(w, level, array->vlen)) return false;
    for (uint32_t i = 0; i < array->vlen; ++i) {
        if (i > 0 && !append(w, level, ",", 1)) return false;
        if (!write_text(w, level, &elements[i])) return false;
    }
    return append(w, level, "]", 1);
}

// "{str <key length + 2> "<key>" <value length> <value text>}"; the value text is formatted one
// level down first for its length.
bool write_pair(text_writer *w, uint32_t level, const obs_key_value *pair) {
    uint32_t value_level = level + 1;
    if (!begin_level(w, value_level) || !write_text(w, value_level, pair->val)) return false;
    size_t key_length = strlen(pair->key);
    char key_head[32];
    char value_head[32];
    int key_head_length =
        snprintf(key_head, sizeof key_head, "{str %ld \"", static_cast<long>(key_length + 2));
    int value_head_length = snprintf(value_head, sizeof value_head, "\" %ld ",
                                     static_cast<long>(obs_sdslen(w->levels[value_level])));
    return append_formatted(w, level, key_head, key_head_length) &&
           append(w, level, pair->key, static_cast<uint32_t>(key_length)) &&
           append_formatted(w, level, value_head, value_head_length) &&
           append_level(w, level, value_level) && append(w, level, "}", 1);
}

// Pairs without a key or a value are left out; the count written is still the stored one.
bool write_kvlist(text_writer *w, uint32_t level, const obs_any_value *kvlist) {
    const auto *pairs = static_cast<const obs_key_value *>(kvlist->val.ptr);
    if (kvlist->vlen == 0 || !pairs) return true;
    if (!write_count(w, level, kvlist->vlen)) return false;
    bool first = true;
    for (const obs_key_value *pair = pairs; pair; pair = pair->next) {
        if (!pair->key || !pair->val) continue;
        if (!first && !append(w, level, ",", 1)) return false;
        if (!write_pair(w, level, pair)) return false;
        first = false;
    }
    return append(w, level, "]", 1);
}

bool write_payload(text_writer *w, uint32_t level, const obs_any_value *node) {
    char text[32];
    switch (node->type & kTypeCodeMask) {
        case OBS_VALUE_STR:
            return write_str(w, level, static_cast<const char *>(node->val.ptr));
        case OBS_VALUE_BOOL:
            return append_text(w, level, node->val.b ? "true" : "false");
        case OBS_VALUE_INT:
            return append_formatted(
                w, level, text,
                snprintf(text, sizeof text, "%lld", static_cast<long long>(node->val.i)));
        case OBS_VALUE_DOUBLE:
            return write_double(w, level, node->val.d);
        case OBS_VALUE_ARRAY:
            return write_array(w, level, node);
        case OBS_VALUE_KVLIST:
            return write_kvlist(w, level, node);
        case OBS_VALUE_BYTES:
            return !node->val.ptr ||
                   write_bytes(w, level, static_cast<const uint8_t *>(node->val.ptr), node->vlen);
        default:
            return append_text(w, level, "ff");
    }
}

bool write_node(text_writer *w, uint32_t level, const obs_any_value *node) {
    uint32_t payload_level = level + 1;
    if (!begin_level(w, payload_level) || !write_payload(w, payload_level, node)) return false;
    char length[32];
    int n = snprintf(length, sizeof length, " %d ",
                     static_cast<int>(obs_sdslen(w->levels[payload_level])));
    return append(w, level, "{", 1) && append_text(w, level, obs_any_value_type_name(node->type)) &&
           append_formatted(w, level, length, n) && append_level(w, level, payload_level) &&
           append(w, level, "}", 1);
}

bool write_text(text_writer *w, uint32_t level, const obs_any_value *head) {
    bool is_list = head->next != nullptr;
    if (is_list && !append(w, level, "[", 1)) return false;
    for (const obs_any_value *node = head; node; node = node->next) {
        if (node != head && !append(w, level, ",", 1)) return false;
        if (!write_node(w, level, node)) return false;
    }
    return !is_list || append(w, level, "]", 1);
}

}  // namespace

extern "C" {

obs_sds obs_any_value_encode(const obs_any_value *head) {
    if (!head) return nullptr;
    text_writer w = {nullptr, 0};
    obs_sds text = nullptr;
    // The counted NUL at the end lets callers take the length with the terminator.
    if (begin_level(&w, 0) && write_text(&w, 0, head) && append(&w, 0, nullptr, 1)) {
        text = w.levels[0];
        w.levels[0] = nullptr;
    }
    release(&w);
    return text;
}

obs_sds obs_key_value_encode(const obs_key_value *list) {
    if (!list) return nullptr;
    obs_any_value kvlist = {};
    kvlist.type = OBS_VALUE_KVLIST;
    kvlist.val.ptr = const_cast<obs_key_value *>(list);
    for (const obs_key_value *pair = list; pair; pair = pair->next) ++kvlist.vlen;
    return obs_any_value_encode(&kvlist);
}

}  // extern "C"
