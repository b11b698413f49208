#include "call_floor.h"

#define FLOOR_EXPORT __attribute__((visibility("default")))

static char handle;

FLOOR_EXPORT void obs_bench_empty_call(void) {}

static void *sdk_init(obs_ctx *ctx, const char *service_name) {
    (void)ctx, (void)service_name;
    return &handle;
}
static void *scope_create(void *sdk_ctx, const char *name, const char *version,
                          obs_sampling sampling) {
    (void)sdk_ctx, (void)name, (void)version, (void)sampling;
    return &handle;
}
static void release(void *handle_) {
    (void)handle_;
}
static void *span_start(void *sdk_ctx, void *parent, void *sdk_scope, const char *name) {
    (void)sdk_ctx, (void)parent, (void)sdk_scope, (void)name;
    return &handle;
}
static void *span_start_from_context(void *sdk_ctx, const char *parent, void *sdk_scope,
                                     const char *name) {
    (void)sdk_ctx, (void)parent, (void)sdk_scope, (void)name;
    return &handle;
}
static void span_end(void *sdk_span, int status, const char *description) {
    (void)sdk_span, (void)status, (void)description;
}
static int span_log(void *sdk_ctx, void *sdk_span, void *sdk_scope, int level,
                    const char *message) {
    (void)sdk_ctx, (void)sdk_span, (void)sdk_scope, (void)level, (void)message;
    return 0;
}
static void *inst_create(int inst_type, int val_type, void *sdk_ctx, void *sdk_scope,
                         const char *name, const char *description) {
    (void)inst_type, (void)val_type, (void)sdk_ctx, (void)sdk_scope, (void)name, (void)description;
    return &handle;
}
static int add_int64(void *inst, int64_t value, obs_key_value *attrs) {
    (void)inst, (void)value, (void)attrs;
    return 0;
}
static int add_double(void *inst, double value, obs_key_value *attrs) {
    (void)inst, (void)value, (void)attrs;
    return 0;
}

static obs_sdk_provider noop = {
    .name = "noop",
    .version = "0",
    .init = sdk_init,
    .free = release,
    .scope_create = scope_create,
    .scope_free = release,
    .span_start = span_start,
    .span_start_from_context = span_start_from_context,
    .span_end = span_end,
    .span_log = span_log,
    .metrics_inst_create = inst_create,
    .metrics_inst_destroy = release,
    .metrics_inst_add_int64 = add_int64,
    .metrics_inst_add_double = add_double,
};

FLOOR_EXPORT obs_sdk_provider *obs_bench_noop_provider(void) {
    return &noop;
}
