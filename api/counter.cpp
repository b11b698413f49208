// Up-down counters. Additions run on the host's telemetry threads: no lock, the scope's metrics
// gate read atomically, metric_count raised atomically.
#include <cstdlib>
#include <cstring>

#include "api/scope_gate.h"
#include "support/log.h"

// "[OBS_API <operation>:<line>] Error: ..." for the operation named.
#define OBS_API_ERROR(operation, format, ...) \
    obs::log_line("[OBS_API %s:%d] Error: " format, operation, __LINE__, ##__VA_ARGS__)

namespace {

constexpr size_t kMaxNameLength = 256;

obs_updown_counter *create(obs_scope *scope, const char *name, const char *description,
                           int val_type, const char *operation) {
    const bool named = name && *name;
    if (!scope) {
        OBS_API_ERROR(operation, "NULL scope");
        if (!named) OBS_API_ERROR(operation, "Empty name");
        return nullptr;
    }
    if (!named) {
        OBS_API_ERROR(operation, "Empty name");
        return nullptr;
    }
    auto *counter = static_cast<obs_updown_counter *>(calloc(1, sizeof(obs_updown_counter)));
    char *kept_name = counter ? strndup(name, kMaxNameLength) : nullptr;
    if (!kept_name) {
        free(counter);
        OBS_API_ERROR(operation, "Failed to allocate counter");
        return nullptr;
    }
    counter->scope = scope;
    counter->name = kept_name;
    const obs_ctx *ctx = scope->ctx;
    if (ctx->sdk_provider->metrics_inst_create)
        counter->sdk_priv_data = ctx->sdk_provider->metrics_inst_create(
            OBS_INST_UPDOWN_COUNTER, val_type, ctx->sdk_ctx, scope->sdk_scope, name, description);
    if (!counter->sdk_priv_data) {
        OBS_API_ERROR(operation, "Failed to create private data for counter %s", name);
        free(counter->name);
        free(counter);
        return nullptr;
    }
    return counter;
}

void destroy(obs_updown_counter *counter) {
    if (!counter) return;
    const obs_sdk_provider *provider = counter->scope->ctx->sdk_provider;
    if (counter->sdk_priv_data && provider->metrics_inst_destroy)
        provider->metrics_inst_destroy(counter->sdk_priv_data);
    free(counter->name);
    free(counter);
}

int counted(obs_updown_counter *counter, int provider_result) {
    if (provider_result != 0) return OBS_ERR_FAILED;
    obs::count_up(&counter->scope->metric_count);
    return OBS_OK;
}

// The open-gate halves of the additions. Kept out of line so that a closed gate returns before
// any register of the open path is saved.
__attribute__((noinline)) int add_int64(obs_updown_counter *counter, int64_t value,
                                        obs_key_value *attrs) {
    const obs_sdk_provider *provider = counter->scope->ctx->sdk_provider;
    if (!counter->sdk_priv_data || !provider->metrics_inst_add_int64) return OBS_ERR_FAILED;
    return counted(counter, provider->metrics_inst_add_int64(counter->sdk_priv_data, value, attrs));
}

__attribute__((noinline)) int add_double(obs_updown_counter *counter, double value,
                                         obs_key_value *attrs, const char *operation) {
    const obs_sdk_provider *provider = counter->scope->ctx->sdk_provider;
    if (!counter->sdk_priv_data || !provider->metrics_inst_add_double) {
        OBS_API_ERROR(operation,
                      "instrument %s does not have sdk_priv_data or metrics_inst_add_double",
                      counter->name);
        return OBS_ERR_FAILED;
    }
    const int result =
        counted(counter, provider->metrics_inst_add_double(counter->sdk_priv_data, value, attrs));
    if (result != OBS_OK)
        OBS_API_ERROR(operation, "Failed to add double value for instrument %s", counter->name);
    return result;
}

}  // namespace

extern "C" {

obs_updown_counter *obs_int64_updown_counter_create(obs_scope *scope, const char *name,
                                                    const char *description) {
    return create(scope, name, description, OBS_VALUE_TYPE_INT64, __func__);
}

obs_updown_counter *obs_double_updown_counter_create(obs_scope *scope, const char *name,
                                                     const char *description) {
    return create(scope, name, description, OBS_VALUE_TYPE_DOUBLE, __func__);
}

int obs_int64_updown_counter_add(obs_updown_counter *counter, int64_t value, obs_key_value *attrs) {
    if (!counter) return OBS_ERR_FAILED;
    if (!obs::lets_through(counter->scope, OBS_SIGNAL_METRICS)) return OBS_OK;
    return add_int64(counter, value, attrs);
}

int obs_double_updown_counter_add(obs_updown_counter *counter, double value, obs_key_value *attrs) {
    if (!counter) {
        OBS_API_ERROR(__func__, "NULL counter");
        return OBS_ERR_FAILED;
    }
    if (!obs::lets_through(counter->scope, OBS_SIGNAL_METRICS)) return OBS_OK;
    return add_double(counter, value, attrs, __func__);
}

void obs_int64_updown_counter_destroy(obs_updown_counter *counter) {
    destroy(counter);
}

void obs_double_updown_counter_destroy(obs_updown_counter *counter) {
    destroy(counter);
}

}  // extern "C"
