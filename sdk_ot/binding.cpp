// Loading "libopentelemetry-c.so" and binding its functions into the exported _otelc_* pointers;
// the SDK context that each observability context holds.
#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "observability/sdk_ot.h"
#include "sdk_ot/lazy.h"
#include "support/log.h"

#define OTELC_POINTER(function) function##_fn _##function

extern "C" {
OTELC_POINTER(otelc_init_tracer_provider_ctx);
OTELC_POINTER(otelc_cleanup_tracer_provider_ctx);
OTELC_POINTER(otelc_init_logger_provider_ctx);
OTELC_POINTER(otelc_cleanup_logger_provider_ctx);
OTELC_POINTER(otelc_init_metrics_provider_ctx);
OTELC_POINTER(otelc_cleanup_metrics_provider_ctx);
OTELC_POINTER(otelc_get_tracer);
OTELC_POINTER(otelc_get_logger);
OTELC_POINTER(otelc_get_meter);
OTELC_POINTER(otelc_set_trace_instrumentationscope_attrs);
OTELC_POINTER(otelc_set_logger_instrumentationscope_attrs);
OTELC_POINTER(otelc_set_metrics_instrumentationscope_attrs);
OTELC_POINTER(otelc_log_with_ctx);
OTELC_POINTER(otelc_start_span_with_tracer);
OTELC_POINTER(otelc_create_attr_map);
OTELC_POINTER(otelc_set_bool_attr);
OTELC_POINTER(otelc_set_int64_t_attr);
OTELC_POINTER(otelc_set_double_attr);
OTELC_POINTER(otelc_set_str_attr);
OTELC_POINTER(otelc_destroy_attr_map);
OTELC_POINTER(otelc_set_span_attrs);
OTELC_POINTER(otelc_end_span);
OTELC_POINTER(otelc_set_span_status);
OTELC_POINTER(otelc_create_metrics_inst_from_meter);
OTELC_POINTER(otelc_metrics_inst_add_int64_attrs);
OTELC_POINTER(otelc_metrics_inst_add_double_attrs);
OTELC_POINTER(otelc_destroy_metrics_inst);
OTELC_POINTER(otelc_add_span_event);
OTELC_POINTER(otelc_create_int64_up_down_counter);
OTELC_POINTER(otelc_destroy_up_down_counter);
OTELC_POINTER(otelc_get_trace_from_ctx);
OTELC_POINTER(otelc_set_int32_t_attr);
OTELC_POINTER(otelc_set_trace_to_ctx);
OTELC_POINTER(otelc_set_uint64_t_attr);
}

namespace {

constexpr char kLibrary[] = "libopentelemetry-c.so";

struct bound_function {
    const char *name;
    void **pointer;
};

#define BIND(function) \
    { #function, reinterpret_cast < void **>(&_##function) }

// The functions the provider uses, in the order they are looked up.
const bound_function kBound[] = {
    BIND(otelc_init_tracer_provider_ctx),
    BIND(otelc_cleanup_tracer_provider_ctx),
    BIND(otelc_init_logger_provider_ctx),
    BIND(otelc_cleanup_logger_provider_ctx),
    BIND(otelc_init_metrics_provider_ctx),
    BIND(otelc_cleanup_metrics_provider_ctx),
    BIND(otelc_get_tracer),
    BIND(otelc_get_logger),
    BIND(otelc_get_meter),
    BIND(otelc_set_trace_instrumentationscope_attrs),
    BIND(otelc_set_logger_instrumentationscope_attrs),
    BIND(otelc_set_metrics_instrumentationscope_attrs),
    BIND(otelc_log_with_ctx),
    BIND(otelc_start_span_with_tracer),
    BIND(otelc_create_attr_map),
    BIND(otelc_set_bool_attr),
    BIND(otelc_set_int64_t_attr),
    BIND(otelc_set_double_attr),
    BIND(otelc_set_str_attr),
    BIND(otelc_destroy_attr_map),
    BIND(otelc_set_span_attrs),
    BIND(otelc_end_span),
    BIND(otelc_set_span_status),
    BIND(otelc_create_metrics_inst_from_meter),
    BIND(otelc_metrics_inst_add_int64_attrs),
    BIND(otelc_metrics_inst_add_double_attrs),
    BIND(otelc_destroy_metrics_inst),
};

pthread_mutex_t binding_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t creation_lock = PTHREAD_MUTEX_INITIALIZER;
void *ot_lib_handle;
bool functions_bound;

const char *loader_error() {
    const char *error = dlerror();
    return error ? error : "";
}

// Looks every function up, stopping at the first missing one: it is logged, every pointer is
// set back to null and the library is closed again. The caller holds binding_lock.
bool bind_functions(void *handle) {
    for (const bound_function &function : kBound) {
        dlerror();
        *function.pointer = dlsym(handle, function.name);
        if (*function.pointer) continue;
        obs::log_line("ot lib api load error: %s %s", function.name, loader_error());
        for (const bound_function &bound : kBound) *bound.pointer = nullptr;
        dlclose(handle);
        return false;
    }
    return true;
}

// Opens the library (every call counts one opening) and binds its functions on the first
// success; the pointers then keep their values for the life of the process.
bool load_library() {
    pthread_mutex_lock(&binding_lock);
    ot_lib_handle = dlopen(kLibrary, RTLD_LAZY);
    bool loaded = ot_lib_handle != nullptr;
    if (!loaded) {
        obs::log_line("Error loading ot library: %s", loader_error());
    } else {
        obs::log_line("ot libopentelemetry-c.so loaded: %p", ot_lib_handle);
        if (!functions_bound) functions_bound = bind_functions(ot_lib_handle);
        loaded = functions_bound;
        if (!loaded) ot_lib_handle = nullptr;
    }
    pthread_mutex_unlock(&binding_lock);
    if (loaded) obs::log_line("ot all api detected");
    return loaded;
}

}  // namespace

obs::lazy_guard::lazy_guard() {
    pthread_mutex_lock(&creation_lock);
}

obs::lazy_guard::~lazy_guard() {
    pthread_mutex_unlock(&creation_lock);
}

extern "C" {

sdk_ot_ctx *sdk_ot_init(obs_ctx *owner, const char *service_name) {
    if (!load_library()) return nullptr;
    auto *ctx = static_cast<sdk_ot_ctx *>(calloc(1, sizeof(sdk_ot_ctx)));
    if (!ctx) return nullptr;
    ctx->service_name = service_name ? strdup(service_name) : nullptr;
    if (service_name && !ctx->service_name) {
        free(ctx);
        return nullptr;
    }
    ctx->owner = owner;
    return ctx;
}

void sdk_ot_free(sdk_ot_ctx *ctx) {
    if (!ctx) return;
    if (ctx->tracer_provider_ctx) _otelc_cleanup_tracer_provider_ctx(ctx->tracer_provider_ctx);
    if (ctx->logger_provider_ctx) _otelc_cleanup_logger_provider_ctx(ctx->logger_provider_ctx);
    if (ctx->metrics_provider_ctx) _otelc_cleanup_metrics_provider_ctx(ctx->metrics_provider_ctx);
    AttrMap *const maps[] = {ctx->trace_resource_attrs, ctx->logger_resource_attrs,
                             ctx->metrics_resource_attrs};
    for (AttrMap *map : maps) {
        if (map) _otelc_destroy_attr_map(map);
    }
    free(ctx->service_name);
    free(ctx);
}

}  // extern "C"
