/* The OpenTelemetry C binding, "libopentelemetry-c.so": the functions the built-in telemetry
 * provider loads at run time (dlopen, never linked) and calls through the _otelc_* pointers it
 * binds. This header is the one contract between that provider, a binding, and the test
 * stand-in; a binding implements every function declared here with C linkage.
 *
 * Conventions for a binding:
 * - Handles (provider contexts, tracers, loggers, meters, spans, instruments) are opaque pointers
 *   of the binding's; null is the one failure result of a function that makes a handle.
 * - Texts are borrowed for the call: a binding copies what it keeps. A null text means "none"
 *   where a declaration allows it.
 * - An AttrMap passed to a function stays the caller's: the binding copies what it needs before
 *   returning, and the caller destroys the map with otelc_destroy_attr_map.
 * - Functions may be called from several threads at once, with different handles or the same.
 * - Results described as "ignored" are not read by the provider; such functions return nothing. */
#ifndef OBSERVABILITY_OTELC_H
#define OBSERVABILITY_OTELC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A set of attributes: keys with scalar values, a later value for a key replacing the earlier. */
typedef struct AttrMap AttrMap;

/* Severity numbers of log records, as OpenTelemetry numbers them; the provider passes DEBUG. */
#define OTELC_SEVERITY_DEBUG 5

/* Span status codes, as OpenTelemetry numbers them; any other value reads as unset. */
#define OTELC_STATUS_UNSET 0
#define OTELC_STATUS_OK 1
#define OTELC_STATUS_ERROR 2

/* What instrument otelc_create_metrics_inst_from_meter makes, passed by value: the provider
 * passes {OTELC_INSTRUMENT_UPDOWN_COUNTER, 1, OTELC_VALUE_INT64 or OTELC_VALUE_DOUBLE}. */
#define OTELC_INSTRUMENT_UPDOWN_COUNTER 0
#define OTELC_VALUE_INT64 0
#define OTELC_VALUE_DOUBLE 1
typedef struct otelc_instrument_kind {
    int32_t instrument;  /* OTELC_INSTRUMENT_UPDOWN_COUNTER */
    int32_t synchronous; /* 1: values are recorded by the add calls */
    int32_t value_type;  /* OTELC_VALUE_INT64 or OTELC_VALUE_DOUBLE */
} otelc_instrument_kind;

/* Capacity the provider offers for a span's context text, terminator included. */
#define OTELC_CONTEXT_CAPACITY 200

/* Provider contexts, one per signal of a service. service_name names the service's resource;
 * service_version (the provider passes null: none) its version; resource adds attributes to the
 * resource (null: none). Null when the signal is disabled or the context cannot be made. */
void *otelc_init_tracer_provider_ctx(const char *service_name, const char *service_version,
                                     AttrMap *resource);
void *otelc_init_logger_provider_ctx(const char *service_name, const char *service_version,
                                     AttrMap *resource);
void *otelc_init_metrics_provider_ctx(const char *service_name, const char *service_version,
                                      AttrMap *resource);
/* Flush what the context holds (bounded in time) and release it. Tracers, loggers, meters and
 * instruments obtained from it stay usable with a context made to replace it. */
void otelc_cleanup_tracer_provider_ctx(void *tracer_provider_ctx);
void otelc_cleanup_logger_provider_ctx(void *logger_provider_ctx);
void otelc_cleanup_metrics_provider_ctx(void *metrics_provider_ctx);

/* The tracer, logger or meter of one instrumentation scope: name, version (null: none),
 * schema_url (the provider passes null: none) and the scope's attributes (null: none). They live
 * as long as the binding; there is no release. */
void *otelc_get_tracer(void *tracer_provider_ctx, const char *name, const char *version,
                       const char *schema_url, AttrMap *scope_attrs);
void *otelc_get_logger(void *logger_provider_ctx, const char *name, const char *version,
                       const char *schema_url, AttrMap *scope_attrs);
void *otelc_get_meter(void *metrics_provider_ctx, const char *name, const char *version,
                      const char *schema_url, AttrMap *scope_attrs);
/* Replace the attributes of a scope obtained before. */
void otelc_set_trace_instrumentationscope_attrs(void *tracer_provider_ctx, void *tracer,
                                                AttrMap *attrs);
void otelc_set_logger_instrumentationscope_attrs(void *logger_provider_ctx, void *logger,
                                                 AttrMap *attrs);
void otelc_set_metrics_instrumentationscope_attrs(void *metrics_provider_ctx, void *meter,
                                                  AttrMap *attrs);

/* A log record with the body text and a severity number (OTELC_SEVERITY_*), inside span when it
 * is not null (the record carries the span's trace and span ids). */
void otelc_log_with_ctx(void *logger_provider_ctx, void *span, void *logger, int severity_number,
                        const char *body);

/* Start a span named name. attrs (the provider passes null: none) are its first attributes.
 * parent_context is the parent's context text as this function writes it ("" or malformed: a new
 * trace). The new span's context text is written into context, which holds *capacity bytes:
 * NUL-terminated and cut to fit; *capacity receives the length written, without the terminator.
 * The span, released by otelc_end_span; null on failure. */
void *otelc_start_span_with_tracer(void *tracer_provider_ctx, void *tracer, const char *name,
                                   AttrMap *attrs, const char *parent_context, char *context,
                                   int *capacity);
/* Attributes on a live span; a later value for a key replaces the earlier. */
void otelc_set_span_attrs(void *span, AttrMap *attrs);
/* OTELC_STATUS_*; description (null: none) is kept for OTELC_STATUS_ERROR only. */
void otelc_set_span_status(void *span, int status, const char *description);
/* End the span and release it: the handle is not used again. */
void otelc_end_span(void *span);

/* A new empty map, owned by the caller until otelc_destroy_attr_map; null when none can be made. */
AttrMap *otelc_create_attr_map(void);
/* Set key (copied) to a value in map; a key set twice keeps the later value. value of the bool
 * setter is one byte, 0 false and anything else true; the str setter copies value. */
void otelc_set_bool_attr(AttrMap *map, const char *key, uint8_t value);
void otelc_set_int64_t_attr(AttrMap *map, const char *key, int64_t value);
void otelc_set_double_attr(AttrMap *map, const char *key, double value);
void otelc_set_str_attr(AttrMap *map, const char *key, const char *value);
/* Release map and what it holds; the binding keeps its own copies of maps it was given. */
void otelc_destroy_attr_map(AttrMap *map);

/* An instrument of meter. unit (the provider passes null: none) and description (null: none)
 * describe it. Null on failure. */
void *otelc_create_metrics_inst_from_meter(otelc_instrument_kind kind, void *meter,
                                           const char *name, const char *unit,
                                           const char *description);
/* Add value under the attribute set attrs (null: none). 0 when recorded. */
int otelc_metrics_inst_add_int64_attrs(void *instrument, int64_t value, AttrMap *attrs);
int otelc_metrics_inst_add_double_attrs(void *instrument, double value, AttrMap *attrs);
/* Values added before are still exported by the next collection, then forgotten. */
void otelc_destroy_metrics_inst(void *instrument);

/* Functions of the binding the provider does not use. */
/* An event named name with attributes (null: none) on a live span. */
void otelc_add_span_event(void *span, const char *name, AttrMap *attrs);
/* An int64 up-down counter of meter; released by otelc_destroy_up_down_counter. */
void *otelc_create_int64_up_down_counter(void *meter, const char *name, const char *unit,
                                         const char *description);
void otelc_destroy_up_down_counter(void *counter);
/* The 32 hexadecimal digits of the trace id of a context text into trace_id (*capacity bytes;
 * *capacity receives the length written). 0, or -1 for a malformed context. */
int otelc_get_trace_from_ctx(const char *context, char *trace_id, int *capacity);
/* A context text for trace_id (32 hex digits) and span_id (16 hex digits) into context, as
 * otelc_start_span_with_tracer writes it. 0, or -1 for malformed ids. */
int otelc_set_trace_to_ctx(const char *trace_id, const char *span_id, char *context, int *capacity);
/* Further scalar setters, as otelc_set_int64_t_attr. */
void otelc_set_int32_t_attr(AttrMap *map, const char *key, int32_t value);
void otelc_set_uint64_t_attr(AttrMap *map, const char *key, uint64_t value);

/* The type of each function, for pointers bound at run time. */
typedef void *(*otelc_init_tracer_provider_ctx_fn)(const char *, const char *, AttrMap *);
typedef void (*otelc_cleanup_tracer_provider_ctx_fn)(void *);
typedef void *(*otelc_init_logger_provider_ctx_fn)(const char *, const char *, AttrMap *);
typedef void (*otelc_cleanup_logger_provider_ctx_fn)(void *);
typedef void *(*otelc_init_metrics_provider_ctx_fn)(const char *, const char *, AttrMap *);
typedef void (*otelc_cleanup_metrics_provider_ctx_fn)(void *);
typedef void *(*otelc_get_tracer_fn)(void *, const char *, const char *, const char *, AttrMap *);
typedef void *(*otelc_get_logger_fn)(void *, const char *, const char *, const char *, AttrMap *);
typedef void *(*otelc_get_meter_fn)(void *, const char *, const char *, const char *, AttrMap *);
typedef void (*otelc_set_trace_instrumentationscope_attrs_fn)(void *, void *, AttrMap *);
typedef void (*otelc_set_logger_instrumentationscope_attrs_fn)(void *, void *, AttrMap *);
typedef void (*otelc_set_metrics_instrumentationscope_attrs_fn)(void *, void *, AttrMap *);
typedef void (*otelc_log_with_ctx_fn)(void *, void *, void *, int, const char *);
typedef void *(*otelc_start_span_with_tracer_fn)(void *, void *, const char *, AttrMap *,
                                                 const char *, char *, int *);
typedef AttrMap *(*otelc_create_attr_map_fn)(void);
typedef void (*otelc_set_bool_attr_fn)(AttrMap *, const char *, uint8_t);
typedef void (*otelc_set_int64_t_attr_fn)(AttrMap *, const char *, int64_t);
typedef void (*otelc_set_double_attr_fn)(AttrMap *, const char *, double);
typedef void (*otelc_set_str_attr_fn)(AttrMap *, const char *, const char *);
typedef void (*otelc_destroy_attr_map_fn)(AttrMap *);
typedef void (*otelc_set_span_attrs_fn)(void *, AttrMap *);
typedef void (*otelc_end_span_fn)(void *);
typedef void (*otelc_set_span_status_fn)(void *, int, const char *);
typedef void *(*otelc_create_metrics_inst_from_meter_fn)(otelc_instrument_kind, void *,
                                                         const char *, const char *, const char *);
typedef int (*otelc_metrics_inst_add_int64_attrs_fn)(void *, int64_t, AttrMap *);
typedef int (*otelc_metrics_inst_add_double_attrs_fn)(void *, double, AttrMap *);
typedef void (*otelc_destroy_metrics_inst_fn)(void *);
typedef void (*otelc_add_span_event_fn)(void *, const char *, AttrMap *);
typedef void *(*otelc_create_int64_up_down_counter_fn)(void *, const char *, const char *,
                                                       const char *);
typedef void (*otelc_destroy_up_down_counter_fn)(void *);
typedef int (*otelc_get_trace_from_ctx_fn)(const char *, char *, int *);
typedef int (*otelc_set_trace_to_ctx_fn)(const char *, const char *, char *, int *);
typedef void (*otelc_set_int32_t_attr_fn)(AttrMap *, const char *, int32_t);
typedef void (*otelc_set_uint64_t_attr_fn)(AttrMap *, const char *, uint64_t);

#ifdef __cplusplus
}
#endif

#endif
