#include "otelc/scope.h"

#include <cstdlib>
#include <cstring>

#include "otelc/diag.h"

namespace otelc {

pthread_mutex_t scopes_lock = PTHREAD_MUTEX_INITIALIZER;
Scope *scopes;

namespace {

bool same_text(const char *a, const char *b) {
    return strcmp(a ? a : "", b ? b : "") == 0;
}

char *copy_or_null(const char *text, bool *failed) {
    if (!text) return nullptr;
    char *copy = strdup(text);
    if (!copy) *failed = true;
    return copy;
}

void release(Scope *scope) {
    free(scope->name);
    free(scope->version);
    free(scope->schema_url);
    free(scope->service_name);
    attrs_clear(&scope->attrs);
    free(scope);
}

}  // namespace

Scope *scope_get(Signal signal, Pipeline *pipeline, const char *name, const char *version,
                 const char *schema_url, const AttrMap *attrs) {
    if (!pipeline || pipeline->signal != signal) return nullptr;
    const char *service = signal == Signal::metrics ? pipeline->service_name : nullptr;
    pthread_mutex_lock(&scopes_lock);
    for (Scope *s = scopes; s; s = s->next) {
        if (s->signal == signal && same_text(s->name, name) && same_text(s->version, version) &&
            same_text(s->schema_url, schema_url) && same_text(s->service_name, service) &&
            attrs_equal(&s->attrs, attrs)) {
            pthread_mutex_unlock(&scopes_lock);
            return s;
        }
    }
    auto *scope = static_cast<Scope *>(calloc(1, sizeof(Scope)));
    if (!scope) {
        pthread_mutex_unlock(&scopes_lock);
        return nullptr;
    }
    bool failed = false;
    scope->signal = signal;
    scope->name = copy_or_null(name ? name : "", &failed);
    scope->version = copy_or_null(version, &failed);
    scope->schema_url = copy_or_null(schema_url, &failed);
    scope->service_name = copy_or_null(service, &failed);
    uint32_t dropped = 0;
    attrs_merge(&scope->attrs, attrs, kUnlimited, &dropped);
    if (failed || dropped) {
        pthread_mutex_unlock(&scopes_lock);
        release(scope);
        return nullptr;
    }
    scope->next = scopes;
    scopes = scope;
    pthread_mutex_unlock(&scopes_lock);
    return scope;
}

void scope_set_attrs(Scope *scope, const AttrMap *attrs) {
    if (!scope) return;
    AttrMap replacement{};
    uint32_t dropped = 0;
    attrs_merge(&replacement, attrs, kUnlimited, &dropped);
    if (dropped) {
        diag("out of memory: the attributes of scope %s are kept", scope->name);
        attrs_clear(&replacement);
        return;
    }
    pthread_mutex_lock(&scopes_lock);
    AttrMap previous = scope->attrs;
    scope->attrs = replacement;
    pthread_mutex_unlock(&scopes_lock);
    attrs_clear(&previous);
}

void json_scope(Buf *out, const Scope *scope) {
    buf_text(out, "\"scope\":{\"name\":");
    json_string(out, scope->name);
    if (scope->version) {
        buf_text(out, ",\"version\":");
        json_string(out, scope->version);
    }
    json_attributes(out, &scope->attrs, true);
    buf_append(out, "}", 1);
    if (scope->schema_url) {
        buf_text(out, ",\"schemaUrl\":");
        json_string(out, scope->schema_url);
    }
}

void json_document(Buf *out, const Pipeline *pipeline, void *const *records, uint32_t n,
                   const DocumentShape &shape) {
    buf_printf(out, "{\"%s\":[{\"resource\":{", shape.resource_key);
    json_attributes(out, &pipeline->resource, false);
    buf_printf(out, "},\"%s\":[", shape.scope_key);
    pthread_mutex_lock(&scopes_lock);
    for (uint32_t i = 0; i < n; ++i) {
        const Scope *scope = shape.scope_of(records[i]);
        bool seen = false;
        for (uint32_t j = 0; j < i && !seen; ++j) seen = shape.scope_of(records[j]) == scope;
        if (seen) continue;
        buf_text(out, i ? ",{" : "{");
        json_scope(out, scope);
        buf_printf(out, ",\"%s\":[", shape.records_key);
        for (uint32_t j = i, written = 0; j < n; ++j) {
            if (shape.scope_of(records[j]) != scope) continue;
            if (written++) buf_append(out, ",", 1);
            shape.encode(out, records[j]);
        }
        buf_text(out, "]}");
    }
    pthread_mutex_unlock(&scopes_lock);
    buf_text(out, "]}]}");
}

}  // namespace otelc

using otelc::Pipeline;
using otelc::Scope;
using otelc::Signal;

extern "C" {

OTELC_EXPORT void *otelc_get_tracer(void *tracer_provider_ctx, const char *name,
                                    const char *version, const char *schema_url,
                                    AttrMap *scope_attrs) {
    return otelc::scope_get(Signal::traces, static_cast<Pipeline *>(tracer_provider_ctx), name,
                            version, schema_url, scope_attrs);
}

OTELC_EXPORT void *otelc_get_logger(void *logger_provider_ctx, const char *name,
                                    const char *version, const char *schema_url,
                                    AttrMap *scope_attrs) {
    return otelc::scope_get(Signal::logs, static_cast<Pipeline *>(logger_provider_ctx), name,
                            version, schema_url, scope_attrs);
}

OTELC_EXPORT void *otelc_get_meter(void *metrics_provider_ctx, const char *name,
                                   const char *version, const char *schema_url,
                                   AttrMap *scope_attrs) {
    return otelc::scope_get(Signal::metrics, static_cast<Pipeline *>(metrics_provider_ctx), name,
                            version, schema_url, scope_attrs);
}

OTELC_EXPORT void otelc_set_trace_instrumentationscope_attrs(void *, void *tracer, AttrMap *attrs) {
    otelc::scope_set_attrs(static_cast<Scope *>(tracer), attrs);
}

OTELC_EXPORT void otelc_set_logger_instrumentationscope_attrs(void *, void *logger,
                                                              AttrMap *attrs) {
    otelc::scope_set_attrs(static_cast<Scope *>(logger), attrs);
}

OTELC_EXPORT void otelc_set_metrics_instrumentationscope_attrs(void *, void *meter,
                                                               AttrMap *attrs) {
    otelc::scope_set_attrs(static_cast<Scope *>(meter), attrs);
}

}  // extern "C"
