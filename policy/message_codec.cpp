// A policy record as a message: one kvlist value in the value text format. Messages arrive from
// other processes, so the decoder trusts nothing in them: it never reads past the bytes
// received, takes an entry only when its value has the type the message format gives, and
// takes a payload only when its length entry is backed by that many bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "observability/policy.h"
#include "observability/sds.h"
#include "observability/value.h"
#include "support/list.h"
#include "support/log.h"
#include "support/owned_copy.h"
#include "value/bounded_text.h"

namespace {

// The entries of one message, counted as they are asked for, so that an entry lost to a failed
// allocation fails the whole message instead of leaving a field out unnoticed.
struct message_pairs {
    obs_key_value *head;
    uint32_t wanted;
};

void add_text(message_pairs *m, const char *key, const char *text) {
    if (!text) return;
    ++m->wanted;
    obs_key_value_add_str(&m->head, key, text, 1);
}

void add_int(message_pairs *m, const char *key, int64_t value) {
    ++m->wanted;
    obs_key_value_add_int(&m->head, key, value);
}

// Zero bytes would be written "{byte 0 }", which no reader accepts, so such a payload is left
// out; a reader drops a payload whose length is 0 anyway. The pairs live only while the record
// is encoded, so they borrow the payload.
void add_bytes(message_pairs *m, const char *key, const void *bytes, uint32_t n) {
    if (n == 0) return;
    ++m->wanted;
    obs_key_value_add_byte(&m->head, key, bytes, n, 1);
}

// A payload with its length entry first: bytes when the record's format says so, else a text.
void add_payload(message_pairs *m, const char *length_key, const char *key, const void *payload,
                 uint32_t length, bool bytes) {
    if (!payload) return;
    add_int(m, length_key, length);
    if (bytes) {
        add_bytes(m, key, payload, length);
    } else {
        add_text(m, key, static_cast<const char *>(payload));
    }
}

// The entries in message order; null when any of them could not be made.
obs_key_value *pairs_of(const obs_policy *policy) {
    message_pairs m = {nullptr, 0};
    add_text(&m, "reqid", policy->reqid);
    add_text(&m, "name", policy->name);
    add_text(&m, "path", policy->path);
    add_int(&m, "type", policy->type);
    add_int(&m, "op", policy->op);
    add_int(&m, "format", policy->format);
    add_int(&m, "seq_id", static_cast<int64_t>(policy->seq_id));
    add_text(&m, "traceid", policy->traceid);
    // A translated entry chain is this process's memory (addresses included): it never leaves.
    if (!(policy->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED))
        add_payload(&m, "codec_vlen", "codec_val", policy->codec_val, policy->codec_vlen,
                    policy->format & OBS_POLICY_FORMAT_CODEC_BYTES);
    add_payload(&m, "raw_vlen", "raw_val", policy->raw_val, policy->raw_vlen,
                policy->format & OBS_POLICY_FORMAT_RAW_BYTES);
    if (obs::list_length(m.head) == m.wanted) return m.head;
    obs_key_value_free(m.head);
    return nullptr;
}

obs_sds encode_message(const obs_policy *policy) {
    obs_key_value *pairs = pairs_of(policy);
    if (!pairs) return nullptr;
    obs_any_value *message = nullptr;
    obs_any_value_add_kvlist(&message, pairs, 0);
    if (!message) {
        obs_key_value_free(pairs);
        return nullptr;
    }
    obs_sds text = obs_any_value_encode(message);
    // Texts and codec bytes are only referenced by the tree, so they stay with the record.
    obs_any_value_free(message);
    return text;
}

// The value of the first entry with key when it is one node of type code type (never a node
// already taken over), else null.
obs_any_value *entry_of_type(obs_key_value *pairs, const char *key, uint8_t type) {
    obs_any_value *value = obs_key_value_get_val(obs_key_value_find(pairs, key));
    return value && value->type == type && !value->next ? value : nullptr;
}

// A str node whose text ends exactly where its length says.
bool is_whole_text(const obs_any_value *value) {
    const auto *text = static_cast<const char *>(value->val.ptr);
    return text && value->vlen >= 1 && memchr(text, '\0', value->vlen) == text + value->vlen - 1;
}

// The node's payload passes to the caller: releasing the tree leaves it alone.
void *take_payload(obs_any_value *value) {
    value->type |= OBS_VALUE_REF;
    return value->val.ptr;
}

void take_text(obs_key_value *pairs, const char *key, char **field) {
    obs_any_value *value = entry_of_type(pairs, key, OBS_VALUE_STR);
    if (value && is_whole_text(value)) *field = static_cast<char *>(take_payload(value));
}

bool read_int(obs_key_value *pairs, const char *key, int64_t *out) {
    obs_any_value *value = entry_of_type(pairs, key, OBS_VALUE_INT);
    if (value) *out = value->val.i;
    return value != nullptr;
}

void read_byte(obs_key_value *pairs, const char *key, uint8_t *field) {
    int64_t value;
    if (read_int(pairs, key, &value)) *field = static_cast<uint8_t>(value);
}

// A length from 1 to the largest 32-bit number, else 0.
uint32_t read_length(obs_key_value *pairs, const char *key) {
    int64_t value;
    if (!read_int(pairs, key, &value) || value < 1 || value > int64_t{UINT32_MAX}) return 0;
    return static_cast<uint32_t>(value);
}

// Takes the payload of key when its length is backed by the payload itself: exactly that many
// bytes, or a text with at least that many bytes counting its terminator. Otherwise the length
// is cleared, so that no length ever promises bytes the record does not hold.
void take_sized_payload(obs_key_value *pairs, const char *key, bool as_bytes, void **field,
                        uint32_t *length) {
    obs_any_value *value = nullptr;
    if (*length != 0) value = entry_of_type(pairs, key, as_bytes ? OBS_VALUE_BYTES : OBS_VALUE_STR);
    bool backed = value && (as_bytes ? value->val.ptr && value->vlen == *length
                                     : is_whole_text(value) && *length <= value->vlen);
    if (backed) {
        *field = take_payload(value);
    } else {
        *length = 0;
    }
}

void fill_record(obs_policy *record, obs_key_value *pairs) {
    take_text(pairs, "reqid", &record->reqid);
    take_text(pairs, "name", &record->name);
    take_text(pairs, "path", &record->path);
    take_text(pairs, "traceid", &record->traceid);
    read_byte(pairs, "type", &record->type);
    read_byte(pairs, "op", &record->op);
    read_byte(pairs, "format", &record->format);
    int64_t seq_id;
    if (read_int(pairs, "seq_id", &seq_id)) record->seq_id = static_cast<uint64_t>(seq_id);
    record->codec_vlen = read_length(pairs, "codec_vlen");
    take_sized_payload(pairs, "codec_val", record->format & OBS_POLICY_FORMAT_CODEC_BYTES,
                       &record->codec_val, &record->codec_vlen);
    record->raw_vlen = read_length(pairs, "raw_vlen");
    take_sized_payload(pairs, "raw_val", record->format & OBS_POLICY_FORMAT_RAW_BYTES,
                       &record->raw_val, &record->raw_vlen);
}

// The parsed message when text holds one (a single kvlist node), else null.
obs_any_value *parse_message(const obs::bounded_text &text) {
    if (!text.chars()) return nullptr;
    obs_any_value *tree = nullptr;
    obs_any_value_decode(text.chars(), static_cast<uint32_t>(text.length() + 1), &tree);
    if (tree && tree->type == OBS_VALUE_KVLIST && !tree->next) return tree;
    obs_any_value_free(tree);
    return nullptr;
}

obs_policy *record_from(obs_any_value *message) {
    auto *record = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    if (record) fill_record(record, static_cast<obs_key_value *>(message->val.ptr));
    return record;
}

}  // namespace

extern "C" {

void obs_policy_internal_encode(const obs_policy *policy, char **text, uint32_t *len) {
    if (!policy || !text || !len) return;
    obs_sds encoded = encode_message(policy);
    size_t length = encoded ? strlen(encoded) : 0;
    auto *copy = length ? static_cast<char *>(obs::copy_block(encoded, length + 1)) : nullptr;
    if (copy) {
        *text = copy;
        *len = static_cast<uint32_t>(length + 1);
        obs::log_line("encode to:");
        obs::log_line("%s", copy);
    }
    obs_sdsfree(encoded);
}

void obs_policy_internal_decode(const void *data, uint32_t len, obs_policy **out) {
    if (!data || len == 0 || !out) return;
    obs::bounded_text text(static_cast<const char *>(data), len);
    obs::log_line("decode from:");
    obs::log_line("%s", text.chars() ? text.chars() : "");
    obs_any_value *message = parse_message(text);
    if (!message) return;
    obs_policy *record = record_from(message);
    if (record) {
        OBS_LOG("reqid=%s path=%s policy=%s codec len=%d raw len=%d",
                obs::text_or_na(record->reqid), obs::text_or_na(record->path),
                obs::text_or_na(record->name), static_cast<int>(record->codec_vlen),
                static_cast<int>(record->raw_vlen));
    }
    *out = record;
    // Every payload the record took is marked as referenced, so the tree leaves it alone.
    obs_any_value_free(message);
}

}  // extern "C"
