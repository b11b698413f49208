#include "console_provider.h"

#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

/* Each handle keeps copies of the texts it prints: the library hands over its caller's strings,
 * and releases scope handles after the SDK context they came from. */
typedef struct {
    char service[64];
} console_ctx;

typedef struct {
    char label[128]; /* "<service>/<scope>" */
} console_scope;

typedef struct {
    const console_scope *scope;
    char name[64];
} console_span;

typedef struct {
    const console_scope *scope;
    char name[64];
    int64_t int_total;
    double double_total;
} console_counter;

/* One whole line per call, so lines of the IPC delivery thread never split a host thread's. */
static void say(const console_scope *scope, const char *event, const char *format, ...) {
    char line[512];
    int n = snprintf(line, sizeof line, "  %-18s %-10s ", scope->label, event);
    va_list args;
    va_start(args, format);
    if (n > 0 && (size_t)n < sizeof line)
        vsnprintf(line + n, sizeof line - (size_t)n, format, args);
    va_end(args);
    puts(line);
}

static void *console_init(obs_ctx *ctx, const char *service) {
    (void)ctx;
    console_ctx *console = calloc(1, sizeof *console);
    if (console) snprintf(console->service, sizeof console->service, "%s", service);
    return console;
}

static void *console_scope_create(void *sdk_ctx, const char *name, const char *version,
                                  obs_sampling sampling) {
    (void)version;
    (void)sampling;
    const console_ctx *console = sdk_ctx;
    console_scope *scope = calloc(1, sizeof *scope);
    if (scope) snprintf(scope->label, sizeof scope->label, "%s/%s", console->service, name);
    return scope;
}

static console_span *new_span(const console_scope *scope, const char *name) {
    console_span *span = calloc(1, sizeof *span);
    if (!span) return NULL;
    span->scope = scope;
    snprintf(span->name, sizeof span->name, "%s", name);
    return span;
}

static void *console_span_start(void *sdk_ctx, void *parent, void *sdk_scope, const char *name) {
    (void)sdk_ctx;
    console_span *span = new_span(sdk_scope, name);
    if (!span) return NULL;
    const console_span *up = parent;
    if (up) {
        say(span->scope, "span start", "%s (in %s)", name, up->name);
    } else {
        say(span->scope, "span start", "%s", name);
    }
    return span;
}

static void *console_span_start_from_context(void *sdk_ctx, const char *parent_context,
                                             void *sdk_scope, const char *name) {
    (void)sdk_ctx;
    console_span *span = new_span(sdk_scope, name);
    if (!span) return NULL;
    if (parent_context) {
        say(span->scope, "span start", "%s (from %s)", name, parent_context);
    } else {
        say(span->scope, "span start", "%s", name);
    }
    return span;
}

static void console_span_end(void *sdk_span, int status, const char *description) {
    (void)status;
    (void)description;
    console_span *span = sdk_span;
    say(span->scope, "span end", "%s", span->name);
    free(span);
}

static int console_span_log(void *sdk_ctx, void *sdk_span, void *sdk_scope, int level,
                            const char *message) {
    (void)sdk_ctx;
    char event[16];
    snprintf(event, sizeof event, "log %d", level);
    const console_span *span = sdk_span;
    if (span) {
        say(sdk_scope, event, "%s (in %s)", message, span->name);
    } else {
        say(sdk_scope, event, "%s", message);
    }
    return 0;
}

static void *console_counter_create(int inst_type, int val_type, void *sdk_ctx, void *sdk_scope,
                                    const char *name, const char *description) {
    (void)inst_type;
    (void)val_type;
    (void)sdk_ctx;
    (void)description;
    console_counter *counter = calloc(1, sizeof *counter);
    if (!counter) return NULL;
    counter->scope = sdk_scope;
    snprintf(counter->name, sizeof counter->name, "%s", name);
    return counter;
}

static int console_add_int64(void *instrument, int64_t value, obs_key_value *attrs) {
    (void)attrs;
    console_counter *counter = instrument;
    counter->int_total += value;
    say(counter->scope, "counter", "%s %+" PRId64 " = %" PRId64, counter->name, value,
        counter->int_total);
    return 0;
}

static int console_add_double(void *instrument, double value, obs_key_value *attrs) {
    (void)attrs;
    console_counter *counter = instrument;
    counter->double_total += value;
    say(counter->scope, "counter", "%s %+.2f = %.2f", counter->name, value, counter->double_total);
    return 0;
}

/* Attribute setters and span_to_context stay null: the library then does nothing for them. */
static obs_sdk_provider console_table = {
    .name = "console",
    .version = "1.0",
    .init = console_init,
    .free = free,
    .scope_create = console_scope_create,
    .scope_free = free,
    .span_start = console_span_start,
    .span_start_from_context = console_span_start_from_context,
    .span_end = console_span_end,
    .span_log = console_span_log,
    .metrics_inst_create = console_counter_create,
    .metrics_inst_destroy = free,
    .metrics_inst_add_int64 = console_add_int64,
    .metrics_inst_add_double = console_add_double,
};

obs_sdk_provider *console_provider(void) {
    return &console_table;
}
