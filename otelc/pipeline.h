// A provider context: one signal's resource, its exporter and a bounded queue of finished records
// that one exporter thread, shared by every context, drains in batches.
//
// Host threads only push (lock-free, never waiting); the exporter thread and a context's cleanup
// pop, one at a time under the exporter lock. Every record pushed is exported or released.
#ifndef OTELC_PIPELINE_H
#define OTELC_PIPELINE_H

#include <atomic>
#include <cstdint>

#include "otelc/attr_map.h"
#include "otelc/json.h"

namespace otelc {

enum class Signal : uint8_t { traces, logs, metrics };
enum class ExporterKind : uint8_t { none, console, file, otlp };

struct Pipeline;
struct OtlpTarget;

// What differs between signals.
struct SignalOps {
    // Writes the OTLP JSON document (TracesData, LogsData, MetricsData) of records.
    void (*encode_json)(const Pipeline *pipeline, void *const *records, uint32_t n, Buf *out);
    // Writes one readable line per span, record or point.
    void (*encode_console)(const Pipeline *pipeline, void *const *records, uint32_t n, Buf *out);
    void (*release)(void *record);
    // Metrics only: the records of one collection (into *records, malloc'd), their number.
    uint32_t (*collect)(Pipeline *pipeline, void ***records, bool final);
};

struct Slot {
    std::atomic<uint32_t> sequence;
    void *record;
};

struct Pipeline {
    Signal signal;
    ExporterKind kind;
    const SignalOps *ops;
    char *service_name;
    AttrMap resource;
    int fd;            // where the console and file exporters write; -1 for none
    OtlpTarget *otlp;  // where the otlp exporter posts
    uint32_t max_queue;
    uint32_t max_batch;
    uint32_t delay_ms;
    uint32_t timeout_ms;
    uint32_t span_attr_limit;
    uint32_t span_event_limit;

    Slot *slots;  // a ring of a power of two slots, at least max_queue
    uint32_t mask;
    std::atomic<uint32_t> head;
    uint32_t tail;  // the exporter's side, under the exporter lock
    std::atomic<uint32_t> queued;
    std::atomic<uint64_t> dropped;
    std::atomic<uint64_t> exported;

    uint64_t due_ns;  // monotonic time of the next scheduled export
    Pipeline *next;   // in the exporter thread's list
};

// A context for signal configured from the environment, registered with the exporter thread;
// null when the SDK is disabled or memory runs out.
Pipeline *pipeline_create(Signal signal, const SignalOps *ops, const char *service_name,
                          const char *service_version, const AttrMap *resource);
// Exports what is queued (and, for metrics, a last collection), bounded by the export timeout,
// then releases the context.
void pipeline_destroy(Pipeline *pipeline);
// Hands record over for export; when the queue is full (or nothing exports) the record is
// released and counted as dropped. Never blocks.
void pipeline_push(Pipeline *pipeline, void *record);

}  // namespace otelc

#endif
