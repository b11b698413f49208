// A span from its start to its end: owned by the host thread that started it until it ends, then
// by its context's queue.
#ifndef OTELC_SPAN_H
#define OTELC_SPAN_H

#include "otelc/ids.h"
#include "otelc/scope.h"

namespace otelc {

struct Event {
    char *name;
    uint64_t time_ns;
    AttrMap attrs;
};

struct Span {
    Pipeline *pipeline;
    const Scope *scope;
    SpanContext context;
    uint8_t parent_span_id[8];
    bool has_parent;
    char *name;
    uint64_t start_ns;
    uint64_t end_ns;
    int status;
    char *status_message;
    AttrMap attrs;
    uint32_t dropped_attrs;
    Event *events;
    uint32_t event_count;
    uint32_t dropped_events;
};

}  // namespace otelc

#endif
