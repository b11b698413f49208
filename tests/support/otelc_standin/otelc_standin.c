/* A recording stand-in for the OpenTelemetry C binding: every function of observability/otelc.h
 * records its call (the format is in otelc_standin.h) and returns a handle of its own or 0,
 * unless a test told it to fail. Plain C, so that it builds wherever the library does, musl too.
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
    char label[32];
    int live;
};

/* One lock over everything, held for a whole call: calls come from several threads, and a test
 * double has no need to be fast. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct handle handles[MAX_HANDLES];
static int handle_count;
static struct {
    char function[64];
    int calls, result;
} failures[MAX_FAILURES];
static char *lines;
static size_t length, capacity;

static void put(const char *format, ...) __attribute__((format(printf, 1, 2)));
static void put(const char *format, ...) {
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    size_t n = (size_t)vsnprintf(NULL, 0, format, args);
    if (length + n + 1 > capacity) {
        capacity = 2 * (length + n + 1);
        if (!(lines = realloc(lines, capacity))) abort();
    }
    vsnprintf(lines + length, n + 1, format, again);
    length += n;
    va_end(again);
    va_end(args);
}

static struct handle *handle_of(const void *p) {
    const struct handle *h = p;
    return h >= handles && h < handles + MAX_HANDLES ? (struct handle *)h : NULL;
}

static int is_kind(const struct handle *h, const char *kind) {
    size_t n = strlen(kind);
    return strncmp(h->label, kind, n) == 0 && h->label[n] == '#';
}

static struct handle *new_handle(const char *kind) {
    if (handle_count == MAX_HANDLES) abort(); /* a test that makes this many is broken */
    int n = 1;
    for (int i = 0; i < handle_count; ++i) n += is_kind(&handles[i], kind);
    struct handle *h = &handles[handle_count++];
    snprintf(h->label, sizeof h->label, "%s#%d", kind, n);
    h->live = 1;
    return h;
}

/* Records a call of function, its arguments typed by one letter each: h handle, r handle the
 * call releases, t text, i int (promoted), l int64_t, u uint64_t, d double, b output buffer,
 * c int pointer, k otelc_instrument_kind. The result: with kind, a new handle of it (null when
 * told to fail), else 0 or the failure's result. */
static intptr_t call(const char *function, const char *kind, const char *types, ...) {
    va_list args;
    va_start(args, types);
    pthread_mutex_lock(&lock);
    put("%s(", function + strlen("otelc_"));
    for (const char *type = types; *type; ++type) {
        if (type != types) put(",");
        if (*type == 'h' || *type == 'r') {
            void *p = va_arg(args, void *);
            struct handle *h = handle_of(p);
            put("%s%s", !p ? "null" : h ? h->label : "foreign", h && !h->live ? "!released" : "");
            if (h && *type == 'r') h->live = 0;
        } else if (*type == 't') {
            const char *text = va_arg(args, const char *);
            put("%s", text ? text : "null");
        } else if (*type == 'i') {
            put("%d", va_arg(args, int));
        } else if (*type == 'l') {
            put("%" PRId64, va_arg(args, int64_t));
        } else if (*type == 'u') {
            put("%" PRIu64, va_arg(args, uint64_t));
        } else if (*type == 'd') {
            put("%.17g", va_arg(args, double));
        } else if (*type == 'b') {
            put("%s", va_arg(args, char *) ? "buffer" : "null");
        } else if (*type == 'c') {
            const int *n = va_arg(args, int *);
            n ? put("%d", *n) : put("null");
        } else if (*type == 'k') {
            otelc_instrument_kind k = va_arg(args, otelc_instrument_kind);
            put("{%d,%d,%d}", (int)k.instrument, (int)k.synchronous, (int)k.value_type);
        }
    }
    va_end(args);
    put(")\n");
    intptr_t result = 0;
    int failed = 0;
    for (int i = 0; i < MAX_FAILURES && !failed; ++i) {
        if (failures[i].calls == 0 || strcmp(failures[i].function, function) != 0) continue;
        failures[i].calls -= failures[i].calls > 0;
        result = failures[i].result;
        failed = 1;
    }
    if (kind) result = failed ? 0 : (intptr_t)new_handle(kind);
    pthread_mutex_unlock(&lock);
    return result;
}

char *otelc_standin_calls(int forget) {
    pthread_mutex_lock(&lock);
    char *copy = malloc(length + 1);
    if (copy) memcpy(copy, lines ? lines : "", length);
    if (copy) copy[length] = '\0';
    if (forget) length = 0;
    pthread_mutex_unlock(&lock);
    return copy;
}

void otelc_standin_reset(void) {
    pthread_mutex_lock(&lock);
    length = 0;
    handle_count = 0;
    memset(failures, 0, sizeof failures);
    memset(handles, 0, sizeof handles);
    pthread_mutex_unlock(&lock);
}

void otelc_standin_fail(const char *function, int calls, int result) {
    pthread_mutex_lock(&lock);
    int i = 0;
    while (i < MAX_FAILURES - 1 && failures[i].calls && strcmp(failures[i].function, function)) ++i;
    snprintf(failures[i].function, sizeof failures[i].function, "%s", function);
    failures[i].calls = calls;
    failures[i].result = result;
    pthread_mutex_unlock(&lock);
}

int otelc_standin_live(const char *kind) {
    pthread_mutex_lock(&lock);
    int live = 0;
    for (int i = 0; i < handle_count; ++i) live += handles[i].live && is_kind(&handles[i], kind);
    pthread_mutex_unlock(&lock);
    return live;
}

/* The binding: one line a function, its argument types spelled as call() reads them. */
#define HANDLE(kind, ...) (void *)call(__func__, kind, __VA_ARGS__)
#define RESULT(...) (int)call(__func__, NULL, __VA_ARGS__)
#define RECORD(...) (void)call(__func__, NULL, __VA_ARGS__)
// clang-format off
void *otelc_init_tracer_provider_ctx(const char *s, const char *v, AttrMap *r) { return HANDLE("tp", "tth", s, v, r); }
void *otelc_init_logger_provider_ctx(const char *s, const char *v, AttrMap *r) { return HANDLE("lp", "tth", s, v, r); }
void *otelc_init_metrics_provider_ctx(const char *s, const char *v, AttrMap *r) { return HANDLE("mp", "tth", s, v, r); }
void otelc_cleanup_tracer_provider_ctx(void *p) { RECORD("r", p); }
void otelc_cleanup_logger_provider_ctx(void *p) { RECORD("r", p); }
void otelc_cleanup_metrics_provider_ctx(void *p) { RECORD("r", p); }
void *otelc_get_tracer(void *p, const char *n, const char *v, const char *u, AttrMap *a) { return HANDLE("tracer", "httth", p, n, v, u, a); }
void *otelc_get_logger(void *p, const char *n, const char *v, const char *u, AttrMap *a) { return HANDLE("logger", "httth", p, n, v, u, a); }
void *otelc_get_meter(void *p, const char *n, const char *v, const char *u, AttrMap *a) { return HANDLE("meter", "httth", p, n, v, u, a); }
void otelc_set_trace_instrumentationscope_attrs(void *p, void *t, AttrMap *a) { RECORD("hhh", p, t, a); }
void otelc_set_logger_instrumentationscope_attrs(void *p, void *l, AttrMap *a) { RECORD("hhh", p, l, a); }
void otelc_set_metrics_instrumentationscope_attrs(void *p, void *m, AttrMap *a) { RECORD("hhh", p, m, a); }
void otelc_log_with_ctx(void *p, void *s, void *l, int severity, const char *body) { RECORD("hhhit", p, s, l, severity, body); }
void otelc_set_span_attrs(void *s, AttrMap *a) { RECORD("hh", s, a); }
void otelc_set_span_status(void *s, int status, const char *description) { RECORD("hit", s, status, description); }
void otelc_end_span(void *s) { RECORD("r", s); }
AttrMap *otelc_create_attr_map(void) { return HANDLE("map", ""); }
void otelc_set_bool_attr(AttrMap *m, const char *k, uint8_t v) { RECORD("hti", m, k, v); }
void otelc_set_int64_t_attr(AttrMap *m, const char *k, int64_t v) { RECORD("htl", m, k, v); }
void otelc_set_double_attr(AttrMap *m, const char *k, double v) { RECORD("htd", m, k, v); }
void otelc_set_str_attr(AttrMap *m, const char *k, const char *v) { RECORD("htt", m, k, v); }
void otelc_set_int32_t_attr(AttrMap *m, const char *k, int32_t v) { RECORD("hti", m, k, v); }
void otelc_set_uint64_t_attr(AttrMap *m, const char *k, uint64_t v) { RECORD("htu", m, k, v); }
void otelc_destroy_attr_map(AttrMap *m) { RECORD("r", m); }
void *otelc_create_metrics_inst_from_meter(otelc_instrument_kind k, void *m, const char *n, const char *u, const char *d) { return HANDLE("inst", "khttt", k, m, n, u, d); }
int otelc_metrics_inst_add_int64_attrs(void *i, int64_t v, AttrMap *a) { return RESULT("hlh", i, v, a); }
int otelc_metrics_inst_add_double_attrs(void *i, double v, AttrMap *a) { return RESULT("hdh", i, v, a); }
void otelc_destroy_metrics_inst(void *i) { RECORD("r", i); }
void otelc_add_span_event(void *s, const char *n, AttrMap *a) { RECORD("hth", s, n, a); }
void *otelc_create_int64_up_down_counter(void *m, const char *n, const char *u, const char *d) { return HANDLE("counter", "httt", m, n, u, d); }
void otelc_destroy_up_down_counter(void *c) { RECORD("r", c); }
int otelc_get_trace_from_ctx(const char *c, char *t, int *n) { return RESULT("tbc", c, t, n); }
int otelc_set_trace_to_ctx(const char *t, const char *s, char *c, int *n) { return RESULT("ttbc", t, s, c, n); }
// clang-format on

void *otelc_start_span_with_tracer(void *p, void *t, const char *name, AttrMap *a,
                                   const char *parent, char *context, int *n) {
    struct handle *span = HANDLE("span", "hhthtbc", p, t, name, a, parent, context, n);
    if (span && context && n && *n > 0) {
        int written = snprintf(context, (size_t)*n, "ctx-%s", span->label);
        *n = written < *n ? written : *n - 1;
    }
    return span;
}
