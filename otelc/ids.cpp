#include "otelc/ids.h"

#include <cstring>
#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

#include "otelc/diag.h"
#include "observability/otelc.h"

namespace otelc {

namespace {

// xoshiro256**: fast, and its state seeded from getrandom makes ids unpredictable enough for
// tracing (not for secrets). A fork bumps the generation so that parent and child reseed and
// never hand out the same ids.
struct Generator {
    uint64_t state[4];
    uint32_t generation;
};

uint32_t fork_generation = 1;
pthread_once_t fork_hook_once = PTHREAD_ONCE_INIT;
thread_local Generator generator;

void after_fork() {
    __atomic_add_fetch(&fork_generation, 1, __ATOMIC_RELAXED);
}

void install_fork_hook() {
    pthread_atfork(nullptr, nullptr, after_fork);
}

uint64_t splitmix(uint64_t *x) {
    uint64_t z = (*x += 0x9e3779b97f4a7c15u);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
}

void seed(Generator *g, uint32_t generation) {
    uint64_t bytes[4] = {};
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
        // Without the kernel's pool (early boot): time, process and the thread's own address.
        uint64_t x = mono_ns() ^ wall_ns() ^ (static_cast<uint64_t>(getpid()) << 32) ^
                     reinterpret_cast<uintptr_t>(g);
        for (uint64_t &word : bytes) word ^= splitmix(&x);
    }
    uint64_t mix = bytes[0] ^ bytes[1] ^ bytes[2] ^ bytes[3];
    for (int i = 0; i < 4; ++i) g->state[i] = bytes[i] ^ splitmix(&mix);
    g->generation = generation;
}

uint64_t rotl(uint64_t x, int k) {
    return (x << k) | (x >> (64 - k));
}

uint64_t next_random() {
    Generator *g = &generator;
    const uint32_t generation = __atomic_load_n(&fork_generation, __ATOMIC_RELAXED);
    if (g->generation != generation) {
        pthread_once(&fork_hook_once, install_fork_hook);
        seed(g, generation);
    }
    uint64_t *s = g->state;
    const uint64_t result = rotl(s[1] * 5, 7) * 9;
    const uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = rotl(s[3], 45);
    return result;
}

void fill_nonzero(uint8_t *id, size_t n) {
    bool zero = true;
    while (zero) {
        for (size_t i = 0; i < n; i += 8) {
            const uint64_t word = next_random();
            memcpy(id + i, &word, n - i < 8 ? n - i : 8);
        }
        for (size_t i = 0; i < n && zero; ++i) zero = id[i] == 0;
    }
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool lower_hex(const char *text, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

}  // namespace

void new_trace_id(uint8_t id[16]) {
    fill_nonzero(id, 16);
}

void new_span_id(uint8_t id[8]) {
    fill_nonzero(id, 8);
}

namespace {

// Both digits of every byte, so that each span's traceparent costs a copy per byte.
struct HexPairs {
    char pair[256][2];
    constexpr HexPairs() : pair() {
        const char digits[] = "0123456789abcdef";
        for (int i = 0; i < 256; ++i) {
            pair[i][0] = digits[i >> 4];
            pair[i][1] = digits[i & 15];
        }
    }
};

constexpr HexPairs kHexPairs;

}  // namespace

void to_hex(const uint8_t *bytes, size_t n, char *out) {
    for (size_t i = 0; i < n; ++i) memcpy(out + 2 * i, kHexPairs.pair[bytes[i]], 2);
}

bool id_from_hex(const char *hex, size_t n, uint8_t *bytes) {
    bool zero = true;
    for (size_t i = 0; i < n; ++i) {
        const int high = hex_value(hex[2 * i]);
        if (high < 0) return false;
        const int low = hex_value(hex[2 * i + 1]);
        if (low < 0) return false;
        bytes[i] = static_cast<uint8_t>(high << 4 | low);
        zero = zero && bytes[i] == 0;
    }
    return !zero;
}

bool parse_traceparent(const char *text, SpanContext *context) {
    if (!text) return false;
    const size_t length = strnlen(text, kTraceparentLength + 1);
    if (length < static_cast<size_t>(kTraceparentLength)) return false;
    if (!lower_hex(text, 2) || text[2] != '-' || !lower_hex(text + 3, 32) || text[35] != '-' ||
        !lower_hex(text + 36, 16) || text[52] != '-' || !lower_hex(text + 53, 2))
        return false;
    if (text[0] == 'f' && text[1] == 'f') return false;
    const bool version_00 = text[0] == '0' && text[1] == '0';
    if (length > static_cast<size_t>(kTraceparentLength) && (version_00 || text[55] != '-'))
        return false;
    if (!id_from_hex(text + 3, 16, context->trace_id) ||
        !id_from_hex(text + 36, 8, context->span_id))
        return false;
    context->flags = static_cast<uint8_t>(hex_value(text[53]) << 4 | hex_value(text[54]));
    return true;
}

int write_cut(const char *text, int length, char *out, int capacity) {
    if (!out || capacity <= 0) return 0;
    const int written = length < capacity ? length : capacity - 1;
    memcpy(out, text, written);
    out[written] = '\0';
    return written;
}

int write_traceparent(const SpanContext &context, char *out, int capacity) {
    char text[kTraceparentLength];
    memcpy(text, "00-", 3);
    to_hex(context.trace_id, 16, text + 3);
    text[35] = '-';
    to_hex(context.span_id, 8, text + 36);
    text[52] = '-';
    to_hex(&context.flags, 1, text + 53);
    return write_cut(text, kTraceparentLength, out, capacity);
}

}  // namespace otelc

extern "C" {

OTELC_EXPORT int otelc_get_trace_from_ctx(const char *context, char *trace_id, int *capacity) {
    otelc::SpanContext parsed;
    if (!capacity) return -1;
    if (!otelc::parse_traceparent(context, &parsed)) {
        *capacity = otelc::write_cut("", 0, trace_id, *capacity);
        return -1;
    }
    *capacity = otelc::write_cut(context + 3, 32, trace_id, *capacity);
    return 0;
}

OTELC_EXPORT int otelc_set_trace_to_ctx(const char *trace_id, const char *span_id, char *context,
                                        int *capacity) {
    otelc::SpanContext made;
    made.flags = otelc::kSampled;
    if (!capacity) return -1;
    if (!trace_id || !span_id || strnlen(trace_id, 33) != 32 || strnlen(span_id, 17) != 16 ||
        !otelc::id_from_hex(trace_id, 16, made.trace_id) ||
        !otelc::id_from_hex(span_id, 8, made.span_id)) {
        *capacity = otelc::write_cut("", 0, context, *capacity);
        return -1;
    }
    *capacity = otelc::write_traceparent(made, context, *capacity);
    return 0;
}

}  // extern "C"
