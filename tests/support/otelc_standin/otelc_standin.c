/* A recording stand-in for the OpenTelemetry C binding: every function of observability/otelc.h
 * records its call (the format is in otelc_standin.h) and, when it has a result, returns a handle
 * of its own or 0, unless a test told it to fail. Plain C, so that it builds wherever the library
 * does, musl included.
 *
 * Built with OTELC_STANDIN_LACKS=<function>, the library lacks that function: it is compiled but
 * hidden from the dynamic symbol table, so dlsym does not find it. */
#define _POSIX_C_SOURCE 200809L

#include "otelc_standin.h"

#include <inttypes.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "observability/otelc.h"

#ifdef OTELC_STANDIN_LACKS
extern __typeof__(OTELC_STANDIN_LACKS) OTELC_STANDIN_LACKS __attribute__((visibility("hidden")));
#endif

enum { MAX_HANDLES = 4096, MAX_FAILURES = 16 };

struct handle {
    char label[32]; /* "<kind>#<n>" */
    int live;
};

struct failure {
    char function[64];
    int calls; /* -1: every call */
    int result;
};

/* One lock over everything: calls may come from several threads, and a test double has no
 * need to be fast. It is held from the start of a call's line to its end. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct handle handles[MAX_HANDLES];
static int handle_count;
static struct failure failures[MAX_FAILURES];
static char *calls;
static size_t calls_length, calls_capacity;

struct line {
    char text[1024];
    size_t length;
    int args;
};

static void put(struct line *l, const char *format, ...) __attribute__((format(printf, 2, 3)));
static void put(struct line *l, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int n = vsnprintf(l->text + l->length, sizeof l->text - l->length, format, args);
    va_end(args);
    if (n > 0) l->length += (size_t)n;
    if (l->length >= sizeof l->text) l->length = sizeof l->text - 1;
}

static void begin(struct line *l, const char *function) {
    pthread_mutex_lock(&lock);
    l->length = 0;
    l->args = 0;
    put(l, "%s(", function);
}

static void next_arg(struct line *l) {
    if (l->args++) put(l, ",");
}

static struct handle *handle_of(const void *p) {
    const struct handle *h = p;
    if (h < handles || h >= handles + MAX_HANDLES) return NULL;
    return (struct handle *)h;
}

static void arg_handle(struct line *l, const void *p) {
    next_arg(l);
    const struct handle *h = handle_of(p);
    if (!p)
        put(l, "null");
    else if (!h)
        put(l, "foreign");
    else
        put(l, "%s%s", h->label, h->live ? "" : "!released");
}

static void arg_text(struct line *l, const char *text) {
    next_arg(l);
    if (text)
        put(l, "\"%s\"", text);
    else
        put(l, "null");
}

static void arg_int(struct line *l, int64_t value) {
    next_arg(l);
    put(l, "%" PRId64, value);
}

static void arg_double(struct line *l, double value) {
    next_arg(l);
    put(l, "%.17g", value);
}

static void append_call(const struct line *l) {
    size_t need = calls_length + l->length + 3;
    if (need > calls_capacity) {
        size_t capacity = calls_capacity ? calls_capacity : 4096;
        while (capacity < need) capacity *= 2;
        char *grown = realloc(calls, capacity);
        if (!grown) abort();
        calls = grown;
        calls_capacity = capacity;
    }
    memcpy(calls + calls_length, l->text, l->length);
    calls_length += l->length;
    memcpy(calls + calls_length, ")\n", 3);
    calls_length += 2;
}

/* Whether this call of function is to fail; *result gets the failure's result. */
static int failing(const char *function, int *result) {
    for (int i = 0; i < MAX_FAILURES; ++i) {
        struct failure *f = &failures[i];
        if (f->calls == 0 || strcmp(f->function, function) != 0) continue;
        if (f->calls > 0) --f->calls;
        if (result) *result = f->result;
        return 1;
    }
    return 0;
}

static struct handle *new_handle(const char *kind) {
    if (handle_count == MAX_HANDLES) {
        fprintf(stderr, "otelc stand-in: more than %d handles since the last reset\n", MAX_HANDLES);
        abort();
    }
    int n = 1;
    size_t kind_length = strlen(kind);
    for (int i = 0; i < handle_count; ++i)
        if (strncmp(handles[i].label, kind, kind_length) == 0 &&
            handles[i].label[kind_length] == '#')
            ++n;
    struct handle *h = &handles[handle_count++];
    snprintf(h->label, sizeof h->label, "%s#%d", kind, n);
    h->live = 1;
    return h;
}

/* Ends the call: records it and unlocks. */
static void end(struct line *l) {
    append_call(l);
    pthread_mutex_unlock(&lock);
}

/* Ends a call that makes a handle of kind: null when it is to fail. */
static struct handle *end_making(struct line *l, const char *function, const char *kind) {
    append_call(l);
    struct handle *h = failing(function, NULL) ? NULL : new_handle(kind);
    pthread_mutex_unlock(&lock);
    return h;
}

/* Ends a call with an int result: 0, or the failure's result. */
static int end_result(struct line *l, const char *function) {
    append_call(l);
    int result = 0;
    failing(function, &result);
    pthread_mutex_unlock(&lock);
    return result;
}

/* Ends a call that releases p. */
static void end_releasing(struct line *l, void *p) {
    struct handle *h = handle_of(p);
    if (h) h->live = 0;
    end(l);
}

/* Control. */

char *otelc_standin_calls(int forget) {
    pthread_mutex_lock(&lock);
    char *copy = malloc(calls_length + 1);
    if (copy) {
        if (calls_length) memcpy(copy, calls, calls_length);
        copy[calls_length] = '\0';
    }
    if (forget) calls_length = 0;
    pthread_mutex_unlock(&lock);
    return copy;
}

void otelc_standin_reset(void) {
    pthread_mutex_lock(&lock);
    calls_length = 0;
    memset(failures, 0, sizeof failures);
    memset(handles, 0, sizeof handles);
    handle_count = 0;
    pthread_mutex_unlock(&lock);
}

void otelc_standin_fail(const char *function, int calls_to_fail, int result) {
    pthread_mutex_lock(&lock);
    struct failure *slot = NULL;
    for (int i = 0; i < MAX_FAILURES && !slot; ++i)
        if (strcmp(failures[i].function, function) == 0) slot = &failures[i];
    for (int i = 0; i < MAX_FAILURES && !slot; ++i)
        if (failures[i].calls == 0) slot = &failures[i];
    if (slot) {
        snprintf(slot->function, sizeof slot->function, "%s", function);
        slot->calls = calls_to_fail;
        slot->result = result;
    }
    pthread_mutex_unlock(&lock);
}

int otelc_standin_live(const char *kind) {
    pthread_mutex_lock(&lock);
    int live = 0;
    size_t kind_length = strlen(kind);
    for (int i = 0; i < handle_count; ++i)
        live += handles[i].live && strncmp(handles[i].label, kind, kind_length) == 0 &&
                handles[i].label[kind_length] == '#';
    pthread_mutex_unlock(&lock);
    return live;
}

/* The binding. */

static void *init_provider(const char *function, const char *kind, const char *service_name,
                           const char *service_version, AttrMap *resource) {
    struct line l;
    begin(&l, function);
    arg_text(&l, service_name);
    arg_text(&l, service_version);
    arg_handle(&l, resource);
    return end_making(&l, function, kind);
}

void *otelc_init_tracer_provider_ctx(const char *service_name, const char *service_version,
                                     AttrMap *resource) {
    return init_provider(__func__, "tracer_provider", service_name, service_version, resource);
}

void *otelc_init_logger_provider_ctx(const char *service_name, const char *service_version,
                                     AttrMap *resource) {
    return init_provider(__func__, "logger_provider", service_name, service_version, resource);
}

void *otelc_init_metrics_provider_ctx(const char *service_name, const char *service_version,
                                      AttrMap *resource) {
    return init_provider(__func__, "metrics_provider", service_name, service_version, resource);
}

static void release(const char *function, void *p) {
    struct line l;
    begin(&l, function);
    arg_handle(&l, p);
    end_releasing(&l, p);
}

void otelc_cleanup_tracer_provider_ctx(void *tracer_provider_ctx) {
    release(__func__, tracer_provider_ctx);
}

void otelc_cleanup_logger_provider_ctx(void *logger_provider_ctx) {
    release(__func__, logger_provider_ctx);
}

void otelc_cleanup_metrics_provider_ctx(void *metrics_provider_ctx) {
    release(__func__, metrics_provider_ctx);
}

static void *get_scope_handle(const char *function, const char *kind, void *provider,
                              const char *name, const char *version, const char *schema_url,
                              AttrMap *scope_attrs) {
    struct line l;
    begin(&l, function);
    arg_handle(&l, provider);
    arg_text(&l, name);
    arg_text(&l, version);
    arg_text(&l, schema_url);
    arg_handle(&l, scope_attrs);
    return end_making(&l, function, kind);
}

void *otelc_get_tracer(void *tracer_provider_ctx, const char *name, const char *version,
                       const char *schema_url, AttrMap *scope_attrs) {
    return get_scope_handle(__func__, "tracer", tracer_provider_ctx, name, version, schema_url,
                            scope_attrs);
}

void *otelc_get_logger(void *logger_provider_ctx, const char *name, const char *version,
                       const char *schema_url, AttrMap *scope_attrs) {
    return get_scope_handle(__func__, "logger", logger_provider_ctx, name, version, schema_url,
                            scope_attrs);
}

void *otelc_get_meter(void *metrics_provider_ctx, const char *name, const char *version,
                      const char *schema_url, AttrMap *scope_attrs) {
    return get_scope_handle(__func__, "meter", metrics_provider_ctx, name, version, schema_url,
                            scope_attrs);
}

static void handles_call(const char *function, int count, const void *a, const void *b,
                         const void *c) {
    struct line l;
    begin(&l, function);
    const void *args[] = {a, b, c};
    for (int i = 0; i < count; ++i) arg_handle(&l, args[i]);
    end(&l);
}

void otelc_set_trace_instrumentationscope_attrs(void *tracer_provider_ctx, void *tracer,
                                                AttrMap *attrs) {
    handles_call(__func__, 3, tracer_provider_ctx, tracer, attrs);
}

void otelc_set_logger_instrumentationscope_attrs(void *logger_provider_ctx, void *logger,
                                                 AttrMap *attrs) {
    handles_call(__func__, 3, logger_provider_ctx, logger, attrs);
}

void otelc_set_metrics_instrumentationscope_attrs(void *metrics_provider_ctx, void *meter,
                                                  AttrMap *attrs) {
    handles_call(__func__, 3, metrics_provider_ctx, meter, attrs);
}

void otelc_log_with_ctx(void *logger_provider_ctx, void *span, void *logger, int severity_number,
                        const char *body) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, logger_provider_ctx);
    arg_handle(&l, span);
    arg_handle(&l, logger);
    arg_int(&l, severity_number);
    arg_text(&l, body);
    end(&l);
}

void *otelc_start_span_with_tracer(void *tracer_provider_ctx, void *tracer, const char *name,
                                   AttrMap *attrs, const char *parent_context, char *context,
                                   int *capacity) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, tracer_provider_ctx);
    arg_handle(&l, tracer);
    arg_text(&l, name);
    arg_handle(&l, attrs);
    arg_text(&l, parent_context);
    next_arg(&l);
    put(&l, "%s", context ? "buffer" : "null");
    if (capacity)
        arg_int(&l, *capacity);
    else
        arg_text(&l, NULL);
    struct handle *span = end_making(&l, __func__, "span");
    if (span && context && capacity && *capacity > 0) {
        int written = snprintf(context, (size_t)*capacity, "ctx-%s", span->label);
        *capacity = written < *capacity ? written : *capacity - 1;
    }
    return span;
}

AttrMap *otelc_create_attr_map(void) {
    struct line l;
    begin(&l, __func__);
    return (AttrMap *)end_making(&l, __func__, "map");
}

void otelc_set_bool_attr(AttrMap *map, const char *key, uint8_t value) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, map);
    arg_text(&l, key);
    arg_int(&l, value);
    end(&l);
}

void otelc_set_int64_t_attr(AttrMap *map, const char *key, int64_t value) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, map);
    arg_text(&l, key);
    arg_int(&l, value);
    end(&l);
}

void otelc_set_double_attr(AttrMap *map, const char *key, double value) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, map);
    arg_text(&l, key);
    arg_double(&l, value);
    end(&l);
}

void otelc_set_str_attr(AttrMap *map, const char *key, const char *value) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, map);
    arg_text(&l, key);
    arg_text(&l, value);
    end(&l);
}

void otelc_destroy_attr_map(AttrMap *map) {
    release(__func__, map);
}

void otelc_set_span_attrs(void *span, AttrMap *attrs) {
    handles_call(__func__, 2, span, attrs, NULL);
}

void otelc_end_span(void *span) {
    release(__func__, span);
}

void otelc_set_span_status(void *span, int status, const char *description) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, span);
    arg_int(&l, status);
    arg_text(&l, description);
    end(&l);
}

void *otelc_create_metrics_inst_from_meter(otelc_instrument_kind kind, void *meter,
                                           const char *name, const char *unit,
                                           const char *description) {
    struct line l;
    begin(&l, __func__);
    put(&l, "{%d,%d,%d}", (int)kind.instrument, (int)kind.synchronous, (int)kind.value_type);
    l.args = 1;
    arg_handle(&l, meter);
    arg_text(&l, name);
    arg_text(&l, unit);
    arg_text(&l, description);
    return end_making(&l, __func__, "inst");
}

int otelc_metrics_inst_add_int64_attrs(void *instrument, int64_t value, AttrMap *attrs) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, instrument);
    arg_int(&l, value);
    arg_handle(&l, attrs);
    return end_result(&l, __func__);
}

int otelc_metrics_inst_add_double_attrs(void *instrument, double value, AttrMap *attrs) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, instrument);
    arg_double(&l, value);
    arg_handle(&l, attrs);
    return end_result(&l, __func__);
}

void otelc_destroy_metrics_inst(void *instrument) {
    release(__func__, instrument);
}

/* Functions the provider never binds: recorded all the same, so a call would show. */

void otelc_add_span_event(void *span, const char *name, AttrMap *attrs) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, span);
    arg_text(&l, name);
    arg_handle(&l, attrs);
    end(&l);
}

void *otelc_create_int64_up_down_counter(void *meter, const char *name, const char *unit,
                                         const char *description) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, meter);
    arg_text(&l, name);
    arg_text(&l, unit);
    arg_text(&l, description);
    return end_making(&l, __func__, "counter");
}

void otelc_destroy_up_down_counter(void *counter) {
    release(__func__, counter);
}

int otelc_get_trace_from_ctx(const char *context, char *trace_id, int *capacity) {
    struct line l;
    begin(&l, __func__);
    arg_text(&l, context);
    next_arg(&l);
    put(&l, "%s", trace_id ? "buffer" : "null");
    arg_int(&l, capacity ? *capacity : -1);
    return end_result(&l, __func__);
}

int otelc_set_trace_to_ctx(const char *trace_id, const char *span_id, char *context,
                           int *capacity) {
    struct line l;
    begin(&l, __func__);
    arg_text(&l, trace_id);
    arg_text(&l, span_id);
    next_arg(&l);
    put(&l, "%s", context ? "buffer" : "null");
    arg_int(&l, capacity ? *capacity : -1);
    return end_result(&l, __func__);
}

void otelc_set_int32_t_attr(AttrMap *map, const char *key, int32_t value) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, map);
    arg_text(&l, key);
    arg_int(&l, value);
    end(&l);
}

void otelc_set_uint64_t_attr(AttrMap *map, const char *key, uint64_t value) {
    struct line l;
    begin(&l, __func__);
    arg_handle(&l, map);
    arg_text(&l, key);
    next_arg(&l);
    put(&l, "%" PRIu64, value);
    end(&l);
}
