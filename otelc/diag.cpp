#include "otelc/diag.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

namespace otelc {

void diag(const char *format, ...) {
    char line[512];
    int length = snprintf(line, sizeof line, "otelc: ");
    va_list args;
    va_start(args, format);
    const int text = vsnprintf(line + length, sizeof line - length - 1, format, args);
    va_end(args);
    if (text > 0) length += text;
    if (length > static_cast<int>(sizeof line) - 2) length = sizeof line - 2;
    line[length++] = '\n';
    ssize_t ignored = write(STDERR_FILENO, line, length);
    (void)ignored;
}

namespace {

uint64_t clock_ns(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

uint64_t wall_ns() {
    return clock_ns(CLOCK_REALTIME);
}

uint64_t mono_ns() {
    return clock_ns(CLOCK_MONOTONIC);
}

const char *env_text(const char *name) {
    const char *text = getenv(name);
    return text && *text ? text : nullptr;
}

uint32_t env_uint(const char *name, uint32_t fallback, uint32_t min, uint32_t max) {
    const char *text = env_text(name);
    if (!text) return fallback;
    char *end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(text, &end, 10);
    if (*text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && value >= min && value <= max)
        return static_cast<uint32_t>(value);
    diag("%s='%s' is not a number in [%u, %u]; using %u", name, text, min, max, fallback);
    return fallback;
}

}  // namespace otelc
