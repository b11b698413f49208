// Trace and span ids, and the W3C traceparent text that carries them between processes:
// "00-<32 hex trace id>-<16 hex span id>-<2 hex flags>", lowercase.
#ifndef OTELC_IDS_H
#define OTELC_IDS_H

#include <cstddef>
#include <cstdint>

namespace otelc {

struct SpanContext {
    uint8_t trace_id[16];
    uint8_t span_id[8];
    uint8_t flags;
};

constexpr uint8_t kSampled = 0x01;
constexpr int kTraceparentLength = 55;

// Fresh random ids, never all zero, from a generator per thread seeded by the kernel.
void new_trace_id(uint8_t id[16]);
void new_span_id(uint8_t id[8]);

// Lowercase hex of n bytes into out (2n characters, no terminator).
void to_hex(const uint8_t *bytes, size_t n, char *out);
// n bytes from 2n hex digits (either case); false on anything else or an all-zero id.
bool id_from_hex(const char *hex, size_t n, uint8_t *bytes);

// false for anything but a valid traceparent (a later version may append "-..." fields).
bool parse_traceparent(const char *text, SpanContext *context);
// The traceparent of context into out (capacity bytes, terminated and cut to fit); its length.
int write_traceparent(const SpanContext &context, char *out, int capacity);
// text into out (capacity bytes, terminated and cut to fit); the length written.
int write_cut(const char *text, int length, char *out, int capacity);

}  // namespace otelc

#endif
