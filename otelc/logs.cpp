// Log records: made on the host thread (inside a span: with its ids), queued, encoded as OTLP log
// records by the exporter thread.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "otelc/diag.h"
#include "otelc/ids.h"
#include "otelc/span.h"

namespace otelc {

namespace {

struct LogRecord {
    const Scope *scope;
    uint64_t time_ns;
    int severity;
    bool in_span;
    SpanContext span;
    char *body;  // the bytes following the record
};

// OpenTelemetry's short names of the severity numbers 1 to 24, four to a name.
const char *severity_text(int severity, char *out, size_t n) {
    static const char *const names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
    if (severity < 1 || severity > 24) return nullptr;
    const int step = (severity - 1) % 4;
    if (step == 0) return names[(severity - 1) / 4];
    snprintf(out, n, "%s%d", names[(severity - 1) / 4], step + 1);
    return out;
}

const Scope *scope_of(const void *record) {
    return static_cast<const LogRecord *>(record)->scope;
}

void encode_record(Buf *out, const void *data) {
    const auto *record = static_cast<const LogRecord *>(data);
    buf_append(out, "{", 1);
    json_u64_field(out, "timeUnixNano", record->time_ns);
    buf_append(out, ",", 1);
    json_u64_field(out, "observedTimeUnixNano", record->time_ns);
    char text[8];
    if (const char *name = severity_text(record->severity, text, sizeof text)) {
        buf_printf(out, ",\"severityNumber\":%d,\"severityText\":\"%s\"", record->severity, name);
    }
    buf_text(out, ",\"body\":{\"stringValue\":");
    json_string(out, record->body);
    buf_append(out, "}", 1);
    if (record->in_span) {
        buf_text(out, ",\"traceId\":");
        json_hex(out, record->span.trace_id, 16);
        buf_text(out, ",\"spanId\":");
        json_hex(out, record->span.span_id, 8);
        buf_printf(out, ",\"flags\":%u", record->span.flags);
    }
    buf_append(out, "}", 1);
}

void encode_json(const Pipeline *pipeline, void *const *records, uint32_t n, Buf *out) {
    static const DocumentShape shape = {"resourceLogs", "scopeLogs", "logRecords", scope_of,
                                        encode_record};
    json_document(out, pipeline, records, n, shape);
}

void encode_console(const Pipeline *, void *const *records, uint32_t n, Buf *out) {
    char hex[33];
    char text[8];
    pthread_mutex_lock(&scopes_lock);
    for (uint32_t i = 0; i < n; ++i) {
        const auto *record = static_cast<const LogRecord *>(records[i]);
        const char *name = severity_text(record->severity, text, sizeof text);
        buf_printf(out, "log %s scope=%s", name ? name : "UNSPECIFIED", record->scope->name);
        if (record->in_span) {
            to_hex(record->span.trace_id, 16, hex);
            buf_printf(out, " trace_id=%.32s", hex);
            to_hex(record->span.span_id, 8, hex);
            buf_printf(out, " span_id=%.16s", hex);
        }
        buf_text(out, " body=");
        json_string(out, record->body);
        buf_append(out, "\n", 1);
    }
    pthread_mutex_unlock(&scopes_lock);
}

const SignalOps kOps = {encode_json, encode_console, free, nullptr};

}  // namespace

}  // namespace otelc

using otelc::Pipeline;

extern "C" {

OTELC_EXPORT void *otelc_init_logger_provider_ctx(const char *service_name,
                                                  const char *service_version, AttrMap *resource) {
    return otelc::pipeline_create(otelc::Signal::logs, &otelc::kOps, service_name, service_version,
                                  resource);
}

OTELC_EXPORT void otelc_cleanup_logger_provider_ctx(void *logger_provider_ctx) {
    otelc::pipeline_destroy(static_cast<Pipeline *>(logger_provider_ctx));
}

OTELC_EXPORT void otelc_log_with_ctx(void *logger_provider_ctx, void *span, void *logger,
                                     int severity_number, const char *body) {
    auto *pipeline = static_cast<Pipeline *>(logger_provider_ctx);
    auto *scope = static_cast<const otelc::Scope *>(logger);
    if (!pipeline || !scope || scope->signal != otelc::Signal::logs) return;
    const size_t length = body ? strlen(body) : 0;
    auto *record = static_cast<otelc::LogRecord *>(malloc(sizeof(otelc::LogRecord) + length + 1));
    if (!record) return;
    record->scope = scope;
    record->time_ns = otelc::wall_ns();
    record->severity = severity_number;
    record->in_span = span != nullptr;
    if (span) record->span = static_cast<const otelc::Span *>(span)->context;
    record->body = reinterpret_cast<char *>(record + 1);
    memcpy(record->body, body ? body : "", length + 1);
    otelc::pipeline_push(pipeline, record);
}

}  // extern "C"
