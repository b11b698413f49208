/* The built-in telemetry SDK provider: OpenTelemetry through the C binding
 * "libopentelemetry-c.so" (observability/otelc.h), loaded with dlopen when a context is created
 * and called through the _otelc_* pointers bound then.
 *
 * Binding: the library is opened at every init (the loader counts the openings) and never closed
 * after a success; its functions are looked up once per process, by the first init that finds
 * all 27, so the pointers never change while contexts use them. An init that misses one sets
 * every pointer it bound back to null and closes the library again.
 *
 * Lazy creation: provider contexts, tracers, loggers, meters and instruments are made on first
 * use. Two threads' first uses at once make one of each: creation is serialised on one
 * process-wide lock that only a first use (or setting resource attributes) takes; later uses read
 * the handle with an acquire load. */
#ifndef OBSERVABILITY_SDK_OT_H
#define OBSERVABILITY_SDK_OT_H

#include "observability/common.h"
#include "observability/instrumentation.h"
#include "observability/otelc.h"
#include "observability/value.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The SDK context of one observability context. */
typedef struct sdk_ot_ctx {
    char *service_name;
    obs_ctx *owner;             /* not owned; not read by the provider */
    void *tracer_provider_ctx;  /* made by the first span */
    void *logger_provider_ctx;  /* made by the first log record */
    void *metrics_provider_ctx; /* made by the first counter add */
    AttrMap *trace_resource_attrs;
    AttrMap *logger_resource_attrs;
    AttrMap *metrics_resource_attrs;
} sdk_ot_ctx;

/* One instrumentation scope. */
typedef struct scope_ctx {
    char *name;
    char *version; /* or null */
    void *tracer;  /* obtained by the scope's first span */
    void *logger;  /* by its first log record */
    void *meter;   /* by the first add to one of its counters */
    AttrMap *trace_scope_attrs;
    AttrMap *logger_scope_attrs;
    AttrMap *metrics_scope_attrs;
} scope_ctx;

/* Capacity of a span's context text, terminator included. */
#define SDK_OT_SPAN_CONTEXT_SIZE 200

/* One started span. */
typedef struct span_ctx {
    void *span;                             /* never null in a record handed out */
    char context[SDK_OT_SPAN_CONTEXT_SIZE]; /* written by the binding; "" when it wrote nothing */
} span_ctx;

/* One counter's instrument, made by its first add. */
typedef struct inst_ctx {
    int inst_type;     /* OBS_INST_UPDOWN_COUNTER is the one kind made */
    int val_type;      /* OBS_VALUE_TYPE_INT64 or OBS_VALUE_TYPE_DOUBLE */
    char *name;        /* the first 256 characters */
    char *second_text; /* the first 256 characters, or null */
    sdk_ot_ctx *ctx;
    scope_ctx *scope_ctx;
    void *otelc_priv_data;                       /* the binding's instrument */
    otelc_destroy_metrics_inst_fn otelc_destroy; /* its release, recorded when it is made */
} inst_ctx;

/* The provider table: "opentelemetry" "1.16.1" and the sdk_ot_* operations below. */
OBS_EXPORT extern obs_sdk_provider __sdk_ot_cpp_provider;
OBS_EXPORT obs_sdk_provider *obs_get_default_sdk_ot_buildin_provider(void);

/* The binding's functions; null until bound. The last seven are never bound. */
OBS_EXPORT extern otelc_init_tracer_provider_ctx_fn _otelc_init_tracer_provider_ctx;
OBS_EXPORT extern otelc_cleanup_tracer_provider_ctx_fn _otelc_cleanup_tracer_provider_ctx;
OBS_EXPORT extern otelc_init_logger_provider_ctx_fn _otelc_init_logger_provider_ctx;
OBS_EXPORT extern otelc_cleanup_logger_provider_ctx_fn _otelc_cleanup_logger_provider_ctx;
OBS_EXPORT extern otelc_init_metrics_provider_ctx_fn _otelc_init_metrics_provider_ctx;
OBS_EXPORT extern otelc_cleanup_metrics_provider_ctx_fn _otelc_cleanup_metrics_provider_ctx;
OBS_EXPORT extern otelc_get_tracer_fn _otelc_get_tracer;
OBS_EXPORT extern otelc_get_logger_fn _otelc_get_logger;
OBS_EXPORT extern otelc_get_meter_fn _otelc_get_meter;
OBS_EXPORT extern otelc_set_trace_instrumentationscope_attrs_fn
    _otelc_set_trace_instrumentationscope_attrs;
OBS_EXPORT extern otelc_set_logger_instrumentationscope_attrs_fn
    _otelc_set_logger_instrumentationscope_attrs;
OBS_EXPORT extern otelc_set_metrics_instrumentationscope_attrs_fn
    _otelc_set_metrics_instrumentationscope_attrs;
OBS_EXPORT extern otelc_log_with_ctx_fn _otelc_log_with_ctx;
OBS_EXPORT extern otelc_start_span_with_tracer_fn _otelc_start_span_with_tracer;
OBS_EXPORT extern otelc_create_attr_map_fn _otelc_create_attr_map;
OBS_EXPORT extern otelc_set_bool_attr_fn _otelc_set_bool_attr;
OBS_EXPORT extern otelc_set_int64_t_attr_fn _otelc_set_int64_t_attr;
OBS_EXPORT extern otelc_set_double_attr_fn _otelc_set_double_attr;
OBS_EXPORT extern otelc_set_str_attr_fn _otelc_set_str_attr;
OBS_EXPORT extern otelc_destroy_attr_map_fn _otelc_destroy_attr_map;
OBS_EXPORT extern otelc_set_span_attrs_fn _otelc_set_span_attrs;
OBS_EXPORT extern otelc_end_span_fn _otelc_end_span;
OBS_EXPORT extern otelc_set_span_status_fn _otelc_set_span_status;
OBS_EXPORT extern otelc_create_metrics_inst_from_meter_fn _otelc_create_metrics_inst_from_meter;
OBS_EXPORT extern otelc_metrics_inst_add_int64_attrs_fn _otelc_metrics_inst_add_int64_attrs;
OBS_EXPORT extern otelc_metrics_inst_add_double_attrs_fn _otelc_metrics_inst_add_double_attrs;
OBS_EXPORT extern otelc_destroy_metrics_inst_fn _otelc_destroy_metrics_inst;
OBS_EXPORT extern otelc_add_span_event_fn _otelc_add_span_event;
OBS_EXPORT extern otelc_create_int64_up_down_counter_fn _otelc_create_int64_up_down_counter;
OBS_EXPORT extern otelc_destroy_up_down_counter_fn _otelc_destroy_up_down_counter;
OBS_EXPORT extern otelc_get_trace_from_ctx_fn _otelc_get_trace_from_ctx;
OBS_EXPORT extern otelc_set_int32_t_attr_fn _otelc_set_int32_t_attr;
OBS_EXPORT extern otelc_set_trace_to_ctx_fn _otelc_set_trace_to_ctx;
OBS_EXPORT extern otelc_set_uint64_t_attr_fn _otelc_set_uint64_t_attr;

/* init: loads and binds the library, logging "ot libopentelemetry-c.so loaded: %p" and "ot all
 * api detected"; null after "Error loading ot library: %s" or "ot lib api load error: %s %s". */
OBS_EXPORT sdk_ot_ctx *sdk_ot_init(obs_ctx *owner, const char *service_name);
/* free: cleans up the provider contexts made and destroys the resource maps. */
OBS_EXPORT void sdk_ot_free(sdk_ot_ctx *ctx);

/* A new map holding the str, bool, int and double entries of list, in order (other types are
 * skipped); the caller destroys it with otelc_destroy_attr_map. Null when the binding makes none.
 */
OBS_EXPORT AttrMap *sdk_ot_kv_to_attr_map(const obs_key_value *list);
/* Per signal of the mask (1 traces, 2 logs, 4 metrics, 0 all), in that order: the signal's map is
 * replaced by a conversion of list; an existing provider context is made again with it. */
OBS_EXPORT void sdk_ot_resource_attrs_set(sdk_ot_ctx *ctx, unsigned signal,
                                          const obs_key_value *list);
/* The same for a scope's maps; a tracer, logger or meter held already is given the new map. */
OBS_EXPORT void sdk_ot_scope_attrs_set(sdk_ot_ctx *ctx, scope_ctx *scope, unsigned signal,
                                       const obs_key_value *list);
OBS_EXPORT void sdk_ot_span_attrs_set(span_ctx *span, const obs_key_value *list);

/* Scopes, spans and log records; nothing is made in the binding before its first use. */
OBS_EXPORT scope_ctx *sdk_ot_scope_create(sdk_ot_ctx *ctx, const char *name, const char *version,
                                          obs_sampling sampling);
OBS_EXPORT void sdk_ot_scope_free(scope_ctx *scope);
OBS_EXPORT span_ctx *sdk_ot_span_start(sdk_ot_ctx *ctx, span_ctx *parent, scope_ctx *scope,
                                       const char *name);
OBS_EXPORT span_ctx *sdk_ot_span_start_from_context(sdk_ot_ctx *ctx, const char *parent_context,
                                                    scope_ctx *scope, const char *name);
/* status -1 leaves the status unset. The record is released. */
OBS_EXPORT void sdk_ot_span_end(span_ctx *span, int status, const char *description);
/* The span's context text, valid until it ends; arg1 and arg2 are not used. */
OBS_EXPORT const char *sdk_ot_span_to_context(span_ctx *span, void *arg1, void *arg2);
/* 0 when the record was handed to the binding (with severity DEBUG whatever level), else -1. */
OBS_EXPORT int sdk_ot_span_log(sdk_ot_ctx *ctx, span_ctx *span, scope_ctx *scope, int level,
                               const char *message);

/* Instruments: create records what is to be made; every add first makes the metrics provider
 * context, the scope's meter and the instrument as far as missing. Failures are logged
 * "[SDK_OT_CPP <operation>:<line>] Error: ...". */
OBS_EXPORT inst_ctx *sdk_ot_inst_create(int inst_type, int val_type, sdk_ot_ctx *ctx,
                                        scope_ctx *scope, const char *name,
                                        const char *second_text);
OBS_EXPORT void sdk_ot_inst_destroy(inst_ctx *inst);
/* The binding's result (0 when added), or -1. */
OBS_EXPORT int sdk_ot_inst_add_int64(inst_ctx *inst, int64_t value, const obs_key_value *attrs);
OBS_EXPORT int sdk_ot_inst_add_double(inst_ctx *inst, double value, const obs_key_value *attrs);

#ifdef __cplusplus
}
#endif

#endif
