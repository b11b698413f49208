// Spans: made and filled by the host thread that owns them, handed to their context's queue when
// they end, encoded as OTLP spans (kind INTERNAL) by the exporter thread.
#include <atomic>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "otelc/diag.h"
#include "otelc/ids.h"
#include "otelc/span.h"

namespace otelc {

namespace {

constexpr int kSpanKindInternal = 1;

// A span with room for its name and a few short attributes, so that a usual span allocates
// nothing of its own.
struct SpanBlock {
    Span span;
    SpanBlock *next;  // in a pool
    Attr items[6];
    char name[48];
    char text[192];
};

// Spans end on the host's threads and are released on the exporter's, where glibc's per-thread
// cache cannot hand them back: each start would take the allocator's lock against the exporter's
// frees. Released blocks are pushed instead onto one lock-free stack (push only, taken whole,
// so no ABA), and each host thread takes the whole stack when its own list runs dry. At most
// kPoolLimit blocks wait, the rest are freed.
constexpr uint32_t kPoolLimit = 128;
std::atomic<SpanBlock *> returned{nullptr};
std::atomic<uint32_t> pooled{0};

// A host thread's own list, drained when the thread exits. The binding links no C++ runtime, so
// the exit hook is a pthread key's destructor rather than a thread_local's.
struct LocalPool {
    SpanBlock *head;
    uint32_t taken;  // blocks handed out since pooled last counted them
    bool hooked;
};

thread_local LocalPool local_pool;
pthread_once_t key_once = PTHREAD_ONCE_INIT;
pthread_key_t exit_key;
bool key_made;

void drain(void *data) {
    auto *pool = static_cast<LocalPool *>(data);
    while (SpanBlock *block = pool->head) {
        pool->head = block->next;
        free(block);
        ++pool->taken;
    }
    pooled.fetch_sub(pool->taken, std::memory_order_relaxed);
    pool->taken = 0;
}

void make_key() {
    key_made = pthread_key_create(&exit_key, drain) == 0;
}

// A library unloaded must leave no destructor of its own for threads that exit later.
__attribute__((destructor)) void forget_key() {
    if (key_made) pthread_key_delete(exit_key);
}

SpanBlock *take_block() {
    LocalPool &pool = local_pool;
    if (!pool.hooked) {
        pthread_once(&key_once, make_key);
        pool.hooked = key_made && pthread_setspecific(exit_key, &pool) == 0;
    }
    if (!pool.head) {
        if (pool.taken) pooled.fetch_sub(pool.taken, std::memory_order_relaxed);
        pool.taken = 0;
        if (returned.load(std::memory_order_relaxed))
            pool.head = returned.exchange(nullptr, std::memory_order_acquire);
        if (!pool.head) return static_cast<SpanBlock *>(malloc(sizeof(SpanBlock)));
    }
    SpanBlock *block = pool.head;
    pool.head = block->next;
    ++pool.taken;
    return block;
}

void return_block(SpanBlock *block) {
    if (pooled.fetch_add(1, std::memory_order_relaxed) >= kPoolLimit) {
        pooled.fetch_sub(1, std::memory_order_relaxed);
        free(block);
        return;
    }
    block->next = returned.load(std::memory_order_relaxed);
    while (!returned.compare_exchange_weak(block->next, block, std::memory_order_release,
                                           std::memory_order_relaxed)) {
    }
}

SpanBlock *block_of(Span *span) {
    return reinterpret_cast<SpanBlock *>(span);
}

// A span with its name, empty otherwise; null when memory runs out.
Span *make_span(const char *name) {
    SpanBlock *block = take_block();
    if (!block) return nullptr;
    Span *span = &block->span;
    *span = Span{};
    const size_t size = strlen(name) + 1;
    if (size <= sizeof block->name) {
        span->name = static_cast<char *>(memcpy(block->name, name, size));
    } else if (!(span->name = static_cast<char *>(malloc(size)))) {
        return_block(block);
        return nullptr;
    } else {
        memcpy(span->name, name, size);
    }
    attrs_init(&span->attrs, block->items, 6, block->text, sizeof block->text);
    return span;
}

void release_span(void *record) {
    auto *span = static_cast<Span *>(record);
    SpanBlock *block = block_of(span);
    if (span->name != block->name) free(span->name);
    free(span->status_message);
    attrs_clear(&span->attrs);
    for (uint32_t i = 0; i < span->event_count; ++i) {
        free(span->events[i].name);
        attrs_clear(&span->events[i].attrs);
    }
    free(span->events);
    return_block(block);
}

const Scope *scope_of(const void *record) {
    return static_cast<const Span *>(record)->scope;
}

void encode_event(Buf *out, const Event &event) {
    buf_append(out, "{", 1);
    json_u64_field(out, "timeUnixNano", event.time_ns);
    buf_text(out, ",\"name\":");
    json_string(out, event.name);
    json_attributes(out, &event.attrs, true);
    buf_append(out, "}", 1);
}

void encode_span(Buf *out, const void *record) {
    const auto *span = static_cast<const Span *>(record);
    buf_text(out, "{\"traceId\":");
    json_hex(out, span->context.trace_id, 16);
    buf_text(out, ",\"spanId\":");
    json_hex(out, span->context.span_id, 8);
    if (span->has_parent) {
        buf_text(out, ",\"parentSpanId\":");
        json_hex(out, span->parent_span_id, 8);
    }
    buf_printf(out, ",\"flags\":%u,\"name\":", span->context.flags);
    json_string(out, span->name);
    buf_printf(out, ",\"kind\":%d,", kSpanKindInternal);
    json_u64_field(out, "startTimeUnixNano", span->start_ns);
    buf_append(out, ",", 1);
    json_u64_field(out, "endTimeUnixNano", span->end_ns);
    json_attributes(out, &span->attrs, true);
    if (span->dropped_attrs) buf_printf(out, ",\"droppedAttributesCount\":%u", span->dropped_attrs);
    if (span->event_count) {
        buf_text(out, ",\"events\":[");
        for (uint32_t i = 0; i < span->event_count; ++i) {
            if (i) buf_append(out, ",", 1);
            encode_event(out, span->events[i]);
        }
        buf_append(out, "]", 1);
    }
    if (span->dropped_events) buf_printf(out, ",\"droppedEventsCount\":%u", span->dropped_events);
    if (span->status != OTELC_STATUS_UNSET) {
        buf_printf(out, ",\"status\":{\"code\":%d", span->status);
        if (span->status_message) {
            buf_text(out, ",\"message\":");
            json_string(out, span->status_message);
        }
        buf_append(out, "}", 1);
    }
    buf_append(out, "}", 1);
}

void encode_json(const Pipeline *pipeline, void *const *records, uint32_t n, Buf *out) {
    static const DocumentShape shape = {"resourceSpans", "scopeSpans", "spans", scope_of,
                                        encode_span};
    json_document(out, pipeline, records, n, shape);
}

void console_attrs(Buf *out, const AttrMap *attrs) {
    buf_append(out, "{", 1);
    for (uint32_t i = 0; i < attrs->count; ++i) {
        const Attr &attr = attrs->items[i];
        if (i) buf_text(out, ", ");
        buf_text(out, attr.key);
        buf_append(out, "=", 1);
        switch (attr.type) {
            case AttrType::boolean:
                buf_text(out, attr.value.boolean ? "true" : "false");
                break;
            case AttrType::int64:
                buf_printf(out, "%" PRId64, attr.value.int64);
                break;
            case AttrType::real:
                json_double(out, attr.value.real);
                break;
            case AttrType::text:
                json_string(out, attr.value.text);
                break;
        }
    }
    buf_append(out, "}", 1);
}

void encode_console(const Pipeline *, void *const *records, uint32_t n, Buf *out) {
    char hex[33];
    pthread_mutex_lock(&scopes_lock);
    for (uint32_t i = 0; i < n; ++i) {
        const auto *span = static_cast<const Span *>(records[i]);
        buf_text(out, "span ");
        json_string(out, span->name);
        to_hex(span->context.trace_id, 16, hex);
        buf_printf(out, " trace_id=%.32s", hex);
        to_hex(span->context.span_id, 8, hex);
        buf_printf(out, " span_id=%.16s", hex);
        if (span->has_parent) {
            to_hex(span->parent_span_id, 8, hex);
            buf_printf(out, " parent_span_id=%.16s", hex);
        }
        buf_printf(out, " scope=%s duration_us=%" PRIu64 " status=%d", span->scope->name,
                   (span->end_ns - span->start_ns) / 1000, span->status);
        if (span->status_message) {
            buf_append(out, " ", 1);
            json_string(out, span->status_message);
        }
        buf_text(out, " attributes=");
        console_attrs(out, &span->attrs);
        buf_append(out, "\n", 1);
    }
    pthread_mutex_unlock(&scopes_lock);
}

const SignalOps kOps = {encode_json, encode_console, release_span, nullptr};

}  // namespace

}  // namespace otelc

using otelc::Event;
using otelc::Pipeline;
using otelc::Span;

extern "C" {

OTELC_EXPORT void *otelc_init_tracer_provider_ctx(const char *service_name,
                                                  const char *service_version, AttrMap *resource) {
    return otelc::pipeline_create(otelc::Signal::traces, &otelc::kOps, service_name,
                                  service_version, resource);
}

OTELC_EXPORT void otelc_cleanup_tracer_provider_ctx(void *tracer_provider_ctx) {
    otelc::pipeline_destroy(static_cast<Pipeline *>(tracer_provider_ctx));
}

OTELC_EXPORT void *otelc_start_span_with_tracer(void *tracer_provider_ctx, void *tracer,
                                                const char *name, AttrMap *attrs,
                                                const char *parent_context, char *context,
                                                int *capacity) {
    auto *pipeline = static_cast<Pipeline *>(tracer_provider_ctx);
    auto *scope = static_cast<const otelc::Scope *>(tracer);
    if (!pipeline || !scope || scope->signal != otelc::Signal::traces) return nullptr;
    Span *span = otelc::make_span(name ? name : "");
    if (!span) return nullptr;
    span->pipeline = pipeline;
    span->scope = scope;
    otelc::SpanContext parent;
    if (otelc::parse_traceparent(parent_context, &parent)) {
        memcpy(span->context.trace_id, parent.trace_id, 16);
        memcpy(span->parent_span_id, parent.span_id, 8);
        span->has_parent = true;
    } else {
        otelc::new_trace_id(span->context.trace_id);
    }
    otelc::new_span_id(span->context.span_id);
    // Every span made here is recorded and exported.
    span->context.flags = otelc::kSampled;
    otelc::attrs_merge(&span->attrs, attrs, pipeline->span_attr_limit, &span->dropped_attrs);
    if (capacity) *capacity = otelc::write_traceparent(span->context, context, *capacity);
    span->start_ns = otelc::wall_ns();
    return span;
}

OTELC_EXPORT void otelc_set_span_attrs(void *handle, AttrMap *attrs) {
    auto *span = static_cast<Span *>(handle);
    if (!span) return;
    otelc::attrs_merge(&span->attrs, attrs, span->pipeline->span_attr_limit, &span->dropped_attrs);
}

OTELC_EXPORT void otelc_set_span_status(void *handle, int status, const char *description) {
    auto *span = static_cast<Span *>(handle);
    if (!span) return;
    free(span->status_message);
    span->status_message = nullptr;
    if (status != OTELC_STATUS_OK && status != OTELC_STATUS_ERROR) status = OTELC_STATUS_UNSET;
    span->status = status;
    if (status == OTELC_STATUS_ERROR && description) span->status_message = strdup(description);
}

OTELC_EXPORT void otelc_add_span_event(void *handle, const char *name, AttrMap *attrs) {
    auto *span = static_cast<Span *>(handle);
    if (!span) return;
    if (span->event_count >= span->pipeline->span_event_limit) {
        ++span->dropped_events;
        return;
    }
    auto *events =
        static_cast<Event *>(realloc(span->events, (span->event_count + 1) * sizeof(Event)));
    if (!events) {
        ++span->dropped_events;
        return;
    }
    span->events = events;
    Event *event = &events[span->event_count];
    *event = Event{};
    event->name = strdup(name ? name : "");
    event->time_ns = otelc::wall_ns();
    uint32_t dropped = 0;
    otelc::attrs_merge(&event->attrs, attrs, otelc::kUnlimited, &dropped);
    if (!event->name || dropped) {
        free(event->name);
        otelc::attrs_clear(&event->attrs);
        ++span->dropped_events;
        return;
    }
    ++span->event_count;
}

OTELC_EXPORT void otelc_end_span(void *handle) {
    auto *span = static_cast<Span *>(handle);
    if (!span) return;
    span->end_ns = otelc::wall_ns();
    otelc::pipeline_push(span->pipeline, span);
}

}  // extern "C"
