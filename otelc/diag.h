// What every part of the binding shares: the export mark, the one diagnostic line, clocks and the
// reading of OpenTelemetry's environment variables.
#ifndef OTELC_DIAG_H
#define OTELC_DIAG_H

#include <cstdint>

#define OTELC_EXPORT __attribute__((visibility("default")))

namespace otelc {

// One line "otelc: <text>" on standard error, written with a single call so that lines of
// several threads do not interleave.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Nanoseconds since the epoch (what OTLP times are) and of the monotonic clock (for deadlines).
uint64_t wall_ns();
uint64_t mono_ns();

// The variable's text, null when it is unset or empty.
const char *env_text(const char *name);
// The variable as a decimal number within [min, max]; anything else (when set) logs one line and
// gives fallback.
uint32_t env_uint(const char *name, uint32_t fallback, uint32_t min, uint32_t max);

}  // namespace otelc

#endif
