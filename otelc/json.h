// A growable text buffer and the pieces of OTLP's JSON encoding written into it: escaped texts
// (invalid UTF-8 replaced by U+FFFD), hex ids, 64-bit integers as decimal strings, attributes.
#ifndef OTELC_JSON_H
#define OTELC_JSON_H

#include <cstddef>
#include <cstdint>

#include "otelc/attr_map.h"

namespace otelc {

// Once an append runs out of memory the buffer is marked failed and keeps what it had.
struct Buf {
    char *data;
    size_t length;
    size_t capacity;
    bool failed;
};

void buf_append(Buf *buf, const char *bytes, size_t n);
void buf_text(Buf *buf, const char *text);
void buf_printf(Buf *buf, const char *format, ...) __attribute__((format(printf, 2, 3)));
void buf_release(Buf *buf);

// A JSON string of text (null: empty).
void json_string(Buf *buf, const char *text);
// A JSON string of the lowercase hex of n bytes.
void json_hex(Buf *buf, const uint8_t *bytes, size_t n);
// "name":"<decimal>": how OTLP's JSON carries 64-bit integers and times.
void json_u64_field(Buf *buf, const char *name, uint64_t value);
// A JSON number; NaN and the infinities as the strings JSON's protobuf mapping uses.
void json_double(Buf *buf, double value);
// An AnyValue object of the attribute's value.
void json_any_value(Buf *buf, const Attr &attr);
// "attributes":[...] (nothing for an empty map), preceded by a comma when comma is set.
void json_attributes(Buf *buf, const AttrMap *attrs, bool comma);

}  // namespace otelc

#endif
