// Attribute lists to the binding's maps, and the three attribute setters. Each signal gets a map
// of its own, built by its own conversion; a stored map is replaced whole, never merged.
#include "observability/sdk_ot.h"
#include "sdk_ot/lazy.h"

namespace {

constexpr unsigned kSignals[] = {OBS_SIGNAL_TRACES, OBS_SIGNAL_LOGS, OBS_SIGNAL_METRICS};

bool selects(unsigned mask, unsigned signal) {
    return mask == 0 || (mask & signal);
}

void set_entry(AttrMap *map, const obs_key_value *pair) {
    const obs_any_value *value = pair->val;
    switch (OBS_VALUE_TYPE_CODE(value->type)) {
        case OBS_VALUE_STR:
            _otelc_set_str_attr(map, pair->key, static_cast<const char *>(value->val.ptr));
            break;
        case OBS_VALUE_BOOL:
            _otelc_set_bool_attr(map, pair->key, value->val.b);
            break;
        case OBS_VALUE_INT:
            _otelc_set_int64_t_attr(map, pair->key, value->val.i);
            break;
        case OBS_VALUE_DOUBLE:
            _otelc_set_double_attr(map, pair->key, value->val.d);
            break;
        default:
            break;
    }
}

// What a signal's resource attributes live in and how its provider context is made again.
struct resource_slot {
    AttrMap **attrs;
    void **provider_ctx;
    void *(*init)(const char *, const char *, AttrMap *);
    void (*cleanup)(void *);
};

resource_slot resource_of(sdk_ot_ctx *ctx, unsigned signal) {
    switch (signal) {
        case OBS_SIGNAL_TRACES:
            return {&ctx->trace_resource_attrs, &ctx->tracer_provider_ctx,
                    _otelc_init_tracer_provider_ctx, _otelc_cleanup_tracer_provider_ctx};
        case OBS_SIGNAL_LOGS:
            return {&ctx->logger_resource_attrs, &ctx->logger_provider_ctx,
                    _otelc_init_logger_provider_ctx, _otelc_cleanup_logger_provider_ctx};
        default:
            return {&ctx->metrics_resource_attrs, &ctx->metrics_provider_ctx,
                    _otelc_init_metrics_provider_ctx, _otelc_cleanup_metrics_provider_ctx};
    }
}

// What a signal's scope attributes live in and how a handle held already is given them.
struct scope_slot {
    AttrMap **attrs;
    void *const *handle;
    void *const *provider_ctx;
    void (*set)(void *, void *, AttrMap *);
};

scope_slot scope_of(sdk_ot_ctx *ctx, scope_ctx *scope, unsigned signal) {
    switch (signal) {
        case OBS_SIGNAL_TRACES:
            return {&scope->trace_scope_attrs, &scope->tracer, &ctx->tracer_provider_ctx,
                    _otelc_set_trace_instrumentationscope_attrs};
        case OBS_SIGNAL_LOGS:
            return {&scope->logger_scope_attrs, &scope->logger, &ctx->logger_provider_ctx,
                    _otelc_set_logger_instrumentationscope_attrs};
        default:
            return {&scope->metrics_scope_attrs, &scope->meter, &ctx->metrics_provider_ctx,
                    _otelc_set_metrics_instrumentationscope_attrs};
    }
}

void replace_map(AttrMap **stored, AttrMap *map) {
    if (*stored) _otelc_destroy_attr_map(*stored);
    *stored = map;
}

}  // namespace

extern "C" {

AttrMap *sdk_ot_kv_to_attr_map(const obs_key_value *list) {
    AttrMap *map = _otelc_create_attr_map();
    if (!map) return nullptr;
    for (; list; list = list->next) {
        if (list->val) set_entry(map, list);
    }
    return map;
}

// The provider context in use is swapped under the creation lock, so a first use on another
// thread never makes a second one meanwhile.
void sdk_ot_resource_attrs_set(sdk_ot_ctx *ctx, unsigned signal, const obs_key_value *list) {
    if (!ctx) return;
    for (unsigned each : kSignals) {
        if (!selects(signal, each)) continue;
        resource_slot slot = resource_of(ctx, each);
        AttrMap *map = sdk_ot_kv_to_attr_map(list);
        obs::lazy_guard guard;
        if (map) replace_map(slot.attrs, map);
        void *old = *slot.provider_ctx;
        if (!old) continue;
        slot.cleanup(old);
        obs::store_handle(slot.provider_ctx, slot.init(ctx->service_name, nullptr, map));
    }
}

void sdk_ot_scope_attrs_set(sdk_ot_ctx *ctx, scope_ctx *scope, unsigned signal,
                            const obs_key_value *list) {
    if (!ctx || !scope) return;
    for (unsigned each : kSignals) {
        if (!selects(signal, each)) continue;
        AttrMap *map = sdk_ot_kv_to_attr_map(list);
        if (!map) continue;
        scope_slot slot = scope_of(ctx, scope, each);
        obs::lazy_guard guard;
        replace_map(slot.attrs, map);
        if (void *handle = *slot.handle) slot.set(*slot.provider_ctx, handle, map);
    }
}

void sdk_ot_span_attrs_set(span_ctx *span, const obs_key_value *list) {
    if (!span || !span->span) return;
    AttrMap *map = sdk_ot_kv_to_attr_map(list);
    if (!map) return;
    _otelc_set_span_attrs(span->span, map);
    _otelc_destroy_attr_map(map);
}

}  // extern "C"
