// The otlp exporter's transport: OTLP/HTTP with the JSON encoding, as plain HTTP/1.1 over a TCP
// socket of the C library (a collector on the device or its gateway terminates TLS).
//
// Everything read from the network is untrusted: reads are bounded, responses that are not HTTP
// fail the export with a log line.
#ifndef OTELC_OTLP_HTTP_H
#define OTELC_OTLP_HTTP_H

#include <cstddef>
#include <cstdint>

namespace otelc {

struct OtlpTarget;

// Where and how the signal ("traces", "logs", "metrics") is posted, from the environment
// (OTEL_EXPORTER_OTLP_ENDPOINT, OTEL_EXPORTER_OTLP_<SIGNAL>_ENDPOINT, _HEADERS, _TIMEOUT,
// _PROTOCOL); null, after one log line, when it cannot be exported (an https or malformed
// endpoint, no memory).
OtlpTarget *otlp_target_create(const char *signal);
void otlp_target_release(OtlpTarget *target);

enum class SendResult : uint8_t {
    delivered,
    rejected,  // the receiver refused the batch; sending it again would not help
    failed,    // unreachable or overloaded until the deadline
};

// Posts the JSON document body (of records records, for the log line), retrying with backoff on
// 429, 502, 503, 504 and connection failures, until deadline (monotonic ns) or the target's
// timeout from now, whichever is first. Failures log one line, repeated ones only once.
SendResult otlp_send(OtlpTarget *target, const char *body, size_t n, uint32_t records,
                     uint64_t deadline);

}  // namespace otelc

#endif
