// Text encoding of value chains: every node is "{name length payload}", a chain of two or more is
// "[node,node]". Payloads are written as they are, never escaped; the length tells a reader where
// each one ends.
//
// A length is written before the text it measures, so encoding walks the chain twice. The
// sizing walk measures every payload, pair key and pair value, recording the lengths in the
// order the writing walk meets them, and keeps the text of each double, the one payload that is
// costly to format. The result is then allocated once at its final size and the writing walk
// fills it front to back without measuring or growing anything.
#include "observability/sds.h"
#include "observability/value.h"
#include "support/list.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The longest text whose length and counted NUL an obs_sds can hold.
constexpr uint64_t kMaxText = UINT32_MAX - 2;

// A growing array that starts in a block on the caller's stack, so a policy-sized document
// needs no allocation for it, and moves to the heap when a document outgrows that block.
template <typename T>
class spill_array {
  public:
    spill_array(T *block, uint32_t capacity) : items_(block), block_(block), capacity_(capacity) {}
    ~spill_array() {
        if (items_ != block_) free(items_);
    }
    spill_array(const spill_array &) = delete;
    spill_array &operator=(const spill_array &) = delete;

    // n more items at the end for the caller to fill, or null when memory runs out.
    T *extend(uint32_t n) {
        if (capacity_ - used_ < n && !grow(n)) return nullptr;
        T *room = items_ + used_;
        used_ += n;
        return room;
    }
    T &operator[](uint32_t i) { return items_[i]; }
    const T *data() const { return items_; }
    uint32_t size() const { return used_; }

  private:
    bool grow(uint32_t n) {
        uint64_t wanted = 2 * uint64_t{capacity_};
        if (wanted < uint64_t{used_} + n) wanted = uint64_t{used_} + n;
        if (wanted > UINT32_MAX || wanted > SIZE_MAX / sizeof(T)) return false;
        const size_t bytes = static_cast<size_t>(wanted) * sizeof(T);
        T *moved = static_cast<T *>(items_ == block_ ? malloc(bytes) : realloc(items_, bytes));
        if (!moved) return false;
        if (items_ == block_) memcpy(moved, block_, used_ * sizeof(T));
        items_ = moved;
        capacity_ = static_cast<uint32_t>(wanted);
        return true;
    }

    T *items_;
    T *const block_;
    uint32_t capacity_;
    uint32_t used_ = 0;
};

// What the sizing walk leaves for the writing walk.
struct text_plan {
    spill_array<uint32_t> lengths;
    spill_array<char> doubles;  // the texts of the doubles, back to back
};

// Where the writing walk is: in the result and in the plan.
struct text_cursor {
    char *out;
    const uint32_t *length;
    const char *doubles;
};

uint32_t decimal_length(uint64_t value) {
    uint32_t n = 1;
    for (uint64_t bound = 10; n < 20 && value >= bound; bound *= 10) ++n;
    return n;
}

uint64_t magnitude(int64_t value) {
    return value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

uint32_t signed_length(int64_t value) {
    return (value < 0) + decimal_length(magnitude(value));
}

// Counts are written as "%d" always wrote them: a count above INT32_MAX comes out negative.
int32_t as_written(uint32_t count) {
    return static_cast<int32_t>(count);
}

// Writes the n digits of value ending at out + n. Digits are taken with 32-bit division
// whenever the value allows, which is what a 32-bit target does cheaply.
void put_digits(char *out, uint32_t n, uint64_t value) {
    for (; value > UINT32_MAX; value /= 10) out[--n] = static_cast<char>('0' + value % 10);
    for (uint32_t rest = static_cast<uint32_t>(value); n > 0; rest /= 10)
        out[--n] = static_cast<char>('0' + rest % 10);
}

void put_decimal(text_cursor *c, uint64_t value) {
    const uint32_t n = decimal_length(value);
    put_digits(c->out, n, value);
    c->out += n;
}

// n is signed_length(value).
void put_signed(text_cursor *c, int64_t value, uint32_t n) {
    if (value < 0) *c->out = '-';
    put_digits(c->out + (value < 0), n - (value < 0), magnitude(value));
    c->out += n;
}

void put(text_cursor *c, const void *src, size_t n) {
    memcpy(c->out, src, n);
    c->out += n;
}

void put_char(text_cursor *c, char ch) {
    *c->out++ = ch;
}

// Adds n to a text length, false once the text is too long to encode.
bool add(uint64_t *length, uint64_t n) {
    *length += n;
    return *length <= kMaxText;
}

// Index of a length to be recorded once it is known, or false when memory runs out.
bool reserve(text_plan *plan, uint32_t n, uint32_t *slot) {
    *slot = plan->lengths.size();
    return plan->lengths.extend(n) != nullptr;
}

bool measure_chain(text_plan *plan, const obs_any_value *head, uint64_t *length);

// "%f" when it fits in 31 characters; a larger magnitude would be cut there, so it gets the
// shortest "%g" form that reads back to the same double instead.
bool measure_double(text_plan *plan, double value, uint64_t *payload) {
    char text[32];
    int n = snprintf(text, sizeof text, "%f", value);
    if (n >= static_cast<int>(sizeof text)) {
        for (int precision = 15; precision <= 17; ++precision) {
            n = snprintf(text, sizeof text, "%.*g", precision, value);
            if (strtod(text, nullptr) == value) break;
        }
    }
    if (n < 0) return false;
    char *kept = plan->doubles.extend(static_cast<uint32_t>(n));
    if (!kept) return false;
    memcpy(kept, text, static_cast<size_t>(n));
    *payload = static_cast<uint64_t>(n);
    return true;
}

// "<count> [" elements "]", or nothing for an empty array.
bool measure_array(text_plan *plan, const obs_any_value *array, uint64_t *payload) {
    const auto *elements = static_cast<const obs_any_value *>(array->val.ptr);
    if (array->vlen == 0 || !elements) return true;
    *payload = signed_length(as_written(array->vlen)) + 3 + (array->vlen - 1);
    for (uint32_t i = 0; i < array->vlen; ++i)
        if (!measure_chain(plan, &elements[i], payload)) return false;
    return true;
}

// "{str <key length + 2> "<key>" <value length> <value text>}"
bool measure_pair(text_plan *plan, const obs_key_value *pair, uint64_t *payload) {
    uint32_t slot;
    if (!reserve(plan, 2, &slot)) return false;
    const uint64_t key_length = strlen(pair->key);
    uint64_t value_length = 0;
    if (key_length > kMaxText || !measure_chain(plan, pair->val, &value_length)) return false;
    plan->lengths[slot] = static_cast<uint32_t>(key_length);
    plan->lengths[slot + 1] = static_cast<uint32_t>(value_length);
    return add(payload, key_length + decimal_length(key_length + 2) + value_length +
                            decimal_length(value_length) + 11);
}

// Pairs without a key or a value are left out; the count written is still the stored one.
bool measure_kvlist(text_plan *plan, const obs_any_value *kvlist, uint64_t *payload) {
    const auto *pairs = static_cast<const obs_key_value *>(kvlist->val.ptr);
    if (kvlist->vlen == 0 || !pairs) return true;
    *payload = signed_length(as_written(kvlist->vlen)) + 3;
    bool first = true;
    for (const obs_key_value *pair = pairs; pair; pair = pair->next) {
        if (!pair->key || !pair->val) continue;
        if (!first) ++*payload;
        if (!measure_pair(plan, pair, payload)) return false;
        first = false;
    }
    return true;
}

bool measure_payload(text_plan *plan, const obs_any_value *node, uint64_t *payload) {
    switch (OBS_VALUE_TYPE_CODE(node->type)) {
        case OBS_VALUE_STR: {
            const auto *str = static_cast<const char *>(node->val.ptr);
            return add(payload, 2 + (str ? strlen(str) : 0));
        }
        case OBS_VALUE_BOOL:
            *payload = node->val.b ? 4 : 5;
            return true;
        case OBS_VALUE_INT:
            *payload = signed_length(node->val.i);
            return true;
        case OBS_VALUE_DOUBLE:
            return measure_double(plan, node->val.d, payload);
        case OBS_VALUE_ARRAY:
            return measure_array(plan, node, payload);
        case OBS_VALUE_KVLIST:
            return measure_kvlist(plan, node, payload);
        case OBS_VALUE_BYTES:
            return add(payload, node->val.ptr ? 2 * uint64_t{node->vlen} : 0);
        default:
            *payload = 2;
            return true;
    }
}

bool measure_node(text_plan *plan, const obs_any_value *node, uint64_t *length) {
    uint32_t slot;
    uint64_t payload = 0;
    if (!reserve(plan, 1, &slot) || !measure_payload(plan, node, &payload)) return false;
    plan->lengths[slot] = static_cast<uint32_t>(payload);
    return add(length,
               strlen(obs_any_value_type_name(node->type)) + decimal_length(payload) + payload + 4);
}

bool measure_chain(text_plan *plan, const obs_any_value *head, uint64_t *length) {
    if (head->next) *length += 2;
    for (const obs_any_value *node = head; node; node = node->next) {
        if (node != head) ++*length;
        if (!measure_node(plan, node, length)) return false;
    }
    return true;
}

void write_chain(text_cursor *c, const obs_any_value *head);

void write_array(text_cursor *c, const obs_any_value *array) {
    const auto *elements = static_cast<const obs_any_value *>(array->val.ptr);
    put_signed(c, as_written(array->vlen), signed_length(as_written(array->vlen)));
    put(c, " [", 2);
    for (uint32_t i = 0; i < array->vlen; ++i) {
        if (i > 0) put_char(c, ',');
        write_chain(c, &elements[i]);
    }
    put_char(c, ']');
}

void write_pair(text_cursor *c, const obs_key_value *pair) {
    const uint32_t key_length = *c->length++;
    const uint32_t value_length = *c->length++;
    put(c, "{str ", 5);
    put_decimal(c, uint64_t{key_length} + 2);
    put(c, " \"", 2);
    put(c, pair->key, key_length);
    put(c, "\" ", 2);
    put_decimal(c, value_length);
    put_char(c, ' ');
    write_chain(c, pair->val);
    put_char(c, '}');
}

void write_kvlist(text_cursor *c, const obs_any_value *kvlist) {
    put_signed(c, as_written(kvlist->vlen), signed_length(as_written(kvlist->vlen)));
    put(c, " [", 2);
    bool first = true;
    for (const auto *pair = static_cast<const obs_key_value *>(kvlist->val.ptr); pair;
         pair = pair->next) {
        if (!pair->key || !pair->val) continue;
        if (!first) put_char(c, ',');
        write_pair(c, pair);
        first = false;
    }
    put_char(c, ']');
}

// Two lower-case digits per byte, as "%02x" writes them.
void write_bytes(text_cursor *c, const uint8_t *bytes, uint32_t n) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (uint32_t i = 0; i < n; ++i) {
        *c->out++ = kDigits[bytes[i] >> 4];
        *c->out++ = kDigits[bytes[i] & 0x0f];
    }
}

// payload is the length the sizing walk recorded; zero for an empty container or byte block.
void write_payload(text_cursor *c, const obs_any_value *node, uint32_t payload) {
    switch (OBS_VALUE_TYPE_CODE(node->type)) {
        case OBS_VALUE_STR:
            put_char(c, '"');
            if (payload > 2) put(c, node->val.ptr, payload - 2);
            put_char(c, '"');
            return;
        case OBS_VALUE_BOOL:
            put(c, node->val.b ? "true" : "false", payload);
            return;
        case OBS_VALUE_INT:
            put_signed(c, node->val.i, payload);
            return;
        case OBS_VALUE_DOUBLE:
            put(c, c->doubles, payload);
            c->doubles += payload;
            return;
        case OBS_VALUE_ARRAY:
            if (payload > 0) write_array(c, node);
            return;
        case OBS_VALUE_KVLIST:
            if (payload > 0) write_kvlist(c, node);
            return;
        case OBS_VALUE_BYTES:
            write_bytes(c, static_cast<const uint8_t *>(node->val.ptr), payload / 2);
            return;
        default:
            put(c, "ff", 2);
            return;
    }
}

void write_node(text_cursor *c, const obs_any_value *node) {
    const uint32_t payload = *c->length++;
    const char *name = obs_any_value_type_name(node->type);
    put_char(c, '{');
    put(c, name, strlen(name));
    put_char(c, ' ');
    put_decimal(c, payload);
    put_char(c, ' ');
    write_payload(c, node, payload);
    put_char(c, '}');
}

void write_chain(text_cursor *c, const obs_any_value *head) {
    if (head->next) put_char(c, '[');
    for (const obs_any_value *node = head; node; node = node->next) {
        if (node != head) put_char(c, ',');
        write_node(c, node);
    }
    if (head->next) put_char(c, ']');
}

// Enough for a policy record without touching the heap.
constexpr uint32_t kStackLengths = 128;
constexpr uint32_t kStackDoubleText = 64;

}  // namespace

extern "C" {

obs_sds obs_any_value_encode(const obs_any_value *head) {
    if (!head) return nullptr;
    uint32_t length_block[kStackLengths];
    char double_block[kStackDoubleText];
    text_plan plan = {{length_block, kStackLengths}, {double_block, kStackDoubleText}};
    uint64_t length = 0;
    if (!measure_chain(&plan, head, &length)) return nullptr;
    // The counted NUL at the end lets callers take the length with the terminator; sdscat
    // writes it with the rest of the zeros the text then replaces.
    obs_sds empty = obs_sdsempty();
    obs_sds text = empty ? obs_sdscat(empty, nullptr, static_cast<uint32_t>(length) + 1) : nullptr;
    if (!text) {
        obs_sdsfree(empty);
        return nullptr;
    }
    text_cursor cursor = {text, plan.lengths.data(), plan.doubles.data()};
    write_chain(&cursor, head);
    assert(cursor.out == text + length);
    return text;
}

obs_sds obs_key_value_encode(const obs_key_value *list) {
    if (!list) return nullptr;
    obs_any_value kvlist = {};
    kvlist.type = OBS_VALUE_KVLIST;
    kvlist.val.ptr = const_cast<obs_key_value *>(list);
    kvlist.vlen = obs::list_length(list);
    return obs_any_value_encode(&kvlist);
}

}  // extern "C"
