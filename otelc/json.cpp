#include "otelc/json.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cinttypes>

#include "otelc/ids.h"

namespace otelc {

namespace {

bool reserve(Buf *buf, size_t more) {
    if (buf->failed) return false;
    if (buf->length + more <= buf->capacity) return true;
    size_t capacity = buf->capacity ? buf->capacity : 256;
    while (capacity < buf->length + more) capacity *= 2;
    auto *data = static_cast<char *>(realloc(buf->data, capacity));
    if (!data) {
        buf->failed = true;
        return false;
    }
    buf->data = data;
    buf->capacity = capacity;
    return true;
}

// Length of the valid UTF-8 sequence at s (n bytes available), 0 when it is not one: no
// overlong forms, no surrogates, nothing above U+10FFFF.
size_t utf8_sequence(const unsigned char *s, size_t n) {
    const unsigned char c = s[0];
    size_t length;
    uint32_t min, code;
    if (c >= 0xc2 && c <= 0xdf) {
        length = 2, min = 0x80, code = c & 0x1f;
    } else if (c >= 0xe0 && c <= 0xef) {
        length = 3, min = 0x800, code = c & 0x0f;
    } else if (c >= 0xf0 && c <= 0xf4) {
        length = 4, min = 0x10000, code = c & 0x07;
    } else {
        return 0;
    }
    if (length > n) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((s[i] & 0xc0) != 0x80) return 0;
        code = code << 6 | (s[i] & 0x3f);
    }
    if (code < min || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return 0;
    return length;
}

void escaped_byte(Buf *buf, unsigned char c) {
    switch (c) {
        case '"':
            return buf_append(buf, "\\\"", 2);
        case '\\':
            return buf_append(buf, "\\\\", 2);
        case '\n':
            return buf_append(buf, "\\n", 2);
        case '\r':
            return buf_append(buf, "\\r", 2);
        case '\t':
            return buf_append(buf, "\\t", 2);
        case '\b':
            return buf_append(buf, "\\b", 2);
        case '\f':
            return buf_append(buf, "\\f", 2);
        default:
            buf_printf(buf, "\\u%04x", c);
    }
}

}  // namespace

void buf_append(Buf *buf, const char *bytes, size_t n) {
    if (!reserve(buf, n)) return;
    memcpy(buf->data + buf->length, bytes, n);
    buf->length += n;
}

void buf_text(Buf *buf, const char *text) {
    buf_append(buf, text, strlen(text));
}

void buf_printf(Buf *buf, const char *format, ...) {
    char small[64];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (length < 0) return;
    if (static_cast<size_t>(length) < sizeof small) return buf_append(buf, small, length);
    if (!reserve(buf, length + 1)) return;
    va_start(args, format);
    vsnprintf(buf->data + buf->length, length + 1, format, args);
    va_end(args);
    buf->length += length;
}

void buf_release(Buf *buf) {
    free(buf->data);
    *buf = Buf{};
}

void json_string(Buf *buf, const char *text) {
    static const char replacement[] = "\xef\xbf\xbd";
    buf_append(buf, "\"", 1);
    if (text) {
        const auto *s = reinterpret_cast<const unsigned char *>(text);
        size_t n = strlen(text);
        while (n > 0) {
            size_t plain = 0;
            while (plain < n && s[plain] >= 0x20 && s[plain] < 0x80 && s[plain] != '"' &&
                   s[plain] != '\\')
                ++plain;
            buf_append(buf, reinterpret_cast<const char *>(s), plain);
            s += plain, n -= plain;
            if (n == 0) break;
            if (*s < 0x80) {
                escaped_byte(buf, *s);
                ++s, --n;
            } else if (const size_t length = utf8_sequence(s, n)) {
                buf_append(buf, reinterpret_cast<const char *>(s), length);
                s += length, n -= length;
            } else {
                buf_append(buf, replacement, 3);
                ++s, --n;
            }
        }
    }
    buf_append(buf, "\"", 1);
}

void json_hex(Buf *buf, const uint8_t *bytes, size_t n) {
    char hex[34];
    hex[0] = '"';
    to_hex(bytes, n, hex + 1);
    hex[2 * n + 1] = '"';
    buf_append(buf, hex, 2 * n + 2);
}

void json_u64_field(Buf *buf, const char *name, uint64_t value) {
    buf_printf(buf, "\"%s\":\"%" PRIu64 "\"", name, value);
}

void json_double(Buf *buf, double value) {
    if (std::isnan(value)) return buf_text(buf, "\"NaN\"");
    if (std::isinf(value)) return buf_text(buf, value > 0 ? "\"Infinity\"" : "\"-Infinity\"");
    buf_printf(buf, "%.17g", value);
}

void json_any_value(Buf *buf, const Attr &attr) {
    switch (attr.type) {
        case AttrType::boolean:
            return buf_text(buf,
                            attr.value.boolean ? "{\"boolValue\":true}" : "{\"boolValue\":false}");
        case AttrType::int64:
            return buf_printf(buf, "{\"intValue\":\"%" PRId64 "\"}", attr.value.int64);
        case AttrType::real:
            buf_text(buf, "{\"doubleValue\":");
            json_double(buf, attr.value.real);
            return buf_append(buf, "}", 1);
        case AttrType::text:
            buf_text(buf, "{\"stringValue\":");
            json_string(buf, attr.value.text);
            return buf_append(buf, "}", 1);
    }
}

void json_attributes(Buf *buf, const AttrMap *attrs, bool comma) {
    if (!attrs || attrs->count == 0) return;
    buf_text(buf, comma ? ",\"attributes\":[" : "\"attributes\":[");
    for (uint32_t i = 0; i < attrs->count; ++i) {
        buf_text(buf, i ? ",{\"key\":" : "{\"key\":");
        json_string(buf, attrs->items[i].key);
        buf_text(buf, ",\"value\":");
        json_any_value(buf, attrs->items[i]);
        buf_append(buf, "}", 1);
    }
    buf_append(buf, "]", 1);
}

}  // namespace otelc
