// Scopes, spans and log records on the binding. Tracer and logger provider contexts, and each
// scope's tracer and logger, are made by their first use; a span is one allocation holding its
// context text, and a log record none.
#include <cstdlib>
#include <cstring>

#include "observability/sdk_ot.h"
#include "sdk_ot/lazy.h"

namespace {

constexpr int kLogSeverity = OTELC_SEVERITY_DEBUG;

// A signal's provider context and the scope's handle of it, each made when missing; false when
// either cannot be made.
struct signal_handles {
    void *provider;
    void *handle;
};

bool tracer_of(sdk_ot_ctx *ctx, scope_ctx *scope, signal_handles *out) {
    out->provider = obs::lazily(&ctx->tracer_provider_ctx, [ctx] {
        return _otelc_init_tracer_provider_ctx(ctx->service_name, nullptr,
                                               ctx->trace_resource_attrs);
    });
    if (!out->provider) return false;
    out->handle = obs::lazily(&scope->tracer, [out, scope] {
        return _otelc_get_tracer(out->provider, scope->name, scope->version, nullptr,
                                 scope->trace_scope_attrs);
    });
    return out->handle != nullptr;
}

bool logger_of(sdk_ot_ctx *ctx, scope_ctx *scope, signal_handles *out) {
    out->provider = obs::lazily(&ctx->logger_provider_ctx, [ctx] {
        return _otelc_init_logger_provider_ctx(ctx->service_name, nullptr,
                                               ctx->logger_resource_attrs);
    });
    if (!out->provider) return false;
    out->handle = obs::lazily(&scope->logger, [out, scope] {
        return _otelc_get_logger(out->provider, scope->name, scope->version, nullptr,
                                 scope->logger_scope_attrs);
    });
    return out->handle != nullptr;
}

}  // namespace

extern "C" {

scope_ctx *sdk_ot_scope_create(sdk_ot_ctx *, const char *name, const char *version, obs_sampling) {
    auto *scope = static_cast<scope_ctx *>(calloc(1, sizeof(scope_ctx)));
    if (!scope) return nullptr;
    scope->name = name ? strdup(name) : nullptr;
    scope->version = version ? strdup(version) : nullptr;
    if ((name && !scope->name) || (version && !scope->version)) {
        sdk_ot_scope_free(scope);
        return nullptr;
    }
    return scope;
}

void sdk_ot_scope_free(scope_ctx *scope) {
    if (!scope) return;
    AttrMap *const maps[] = {scope->trace_scope_attrs, scope->logger_scope_attrs,
                             scope->metrics_scope_attrs};
    for (AttrMap *map : maps) {
        if (map) _otelc_destroy_attr_map(map);
    }
    free(scope->name);
    free(scope->version);
    free(scope);
}

span_ctx *sdk_ot_span_start_from_context(sdk_ot_ctx *ctx, const char *parent_context,
                                         scope_ctx *scope, const char *name) {
    if (!ctx || !scope) return nullptr;
    signal_handles tracer;
    if (!tracer_of(ctx, scope, &tracer)) return nullptr;
    // Zero-filled field by field rather than by calloc (or a whole-record memset, which the
    // compiler turns into calloc): glibc's calloc bypasses the per-thread cache and costs a span
    // more than the rest of its start and end.
    auto *span = static_cast<span_ctx *>(malloc(sizeof(span_ctx)));
    if (!span) return nullptr;
    span->span = nullptr;
    memset(span->context, 0, sizeof span->context);
    int capacity = SDK_OT_SPAN_CONTEXT_SIZE;
    span->span = _otelc_start_span_with_tracer(tracer.provider, tracer.handle, name, nullptr,
                                               parent_context ? parent_context : "", span->context,
                                               &capacity);
    if (!span->span) {
        free(span);
        return nullptr;
    }
    return span;
}

// The parent travels as its context text only.
span_ctx *sdk_ot_span_start(sdk_ot_ctx *ctx, span_ctx *parent, scope_ctx *scope, const char *name) {
    return sdk_ot_span_start_from_context(ctx, parent ? parent->context : nullptr, scope, name);
}

void sdk_ot_span_end(span_ctx *span, int status, const char *description) {
    if (!span) return;
    if (span->span) {
        if (status != OBS_SPAN_STATUS_UNSET)
            _otelc_set_span_status(span->span, status, description);
        _otelc_end_span(span->span);
    }
    free(span);
}

const char *sdk_ot_span_to_context(span_ctx *span, void *, void *) {
    return span ? span->context : "";
}

int sdk_ot_span_log(sdk_ot_ctx *ctx, span_ctx *span, scope_ctx *scope, int, const char *message) {
    if (!ctx || !scope) return OBS_ERR_FAILED;
    signal_handles logger;
    if (!logger_of(ctx, scope, &logger)) return OBS_ERR_FAILED;
    _otelc_log_with_ctx(logger.provider, span ? span->span : nullptr, logger.handle, kLogSeverity,
                        message);
    return OBS_OK;
}

}  // extern "C"
