// Metric instruments: created as a description only; every add first makes, as far as missing,
// the metrics provider context, the scope's meter and the instrument. Every failure is logged.
#include <cstdlib>
#include <cstring>

#include "observability/sdk_ot.h"
#include "sdk_ot/lazy.h"
#include "support/log.h"

#define SDK_OT_LOG(operation, level, format, ...) \
    obs::log_line("[SDK_OT_CPP %s:%d] " level ": " format, operation, __LINE__, ##__VA_ARGS__)

namespace {

constexpr size_t kMaxTextLength = 256;
constexpr char kLazyInit[] = "do_lazy_sdk_ot_inst_init";

// Logs why and returns -1 when a binding function is missing.
int not_loaded(const char *pointer) {
    SDK_OT_LOG(kLazyInit, "Error", "otel func ptr '%s' is not loaded", pointer);
    return OBS_ERR_FAILED;
}

int make_meter(inst_ctx *inst) {
    sdk_ot_ctx *ctx = inst->ctx;
    scope_ctx *scope = inst->scope_ctx;
    if (!obs::load_handle(&ctx->metrics_provider_ctx) && !_otelc_init_metrics_provider_ctx)
        return not_loaded("_otelc_init_metrics_provider_ctx");
    void *provider = obs::lazily(&ctx->metrics_provider_ctx, [ctx] {
        return _otelc_init_metrics_provider_ctx(ctx->service_name, nullptr,
                                                ctx->metrics_resource_attrs);
    });
    if (!provider) {
        SDK_OT_LOG(kLazyInit, "Error", "Failed to initialize meter_provider via otelc");
        return OBS_ERR_FAILED;
    }
    if (!obs::load_handle(&scope->meter) && !_otelc_get_meter)
        return not_loaded("_otelc_get_meter");
    void *meter = obs::lazily(&scope->meter, [provider, scope] {
        return _otelc_get_meter(provider, scope->name, scope->version, nullptr,
                                scope->metrics_scope_attrs);
    });
    if (!meter) {
        SDK_OT_LOG(kLazyInit, "Error", "Failed to initialize meter_provider via otelc");
        return OBS_ERR_FAILED;
    }
    return OBS_OK;
}

int make_instrument(inst_ctx *inst) {
    if (inst->inst_type != OBS_INST_UPDOWN_COUNTER) {
        SDK_OT_LOG(kLazyInit, "Error", "Invalid inst_type %d", inst->inst_type);
        return OBS_ERR_FAILED;
    }
    if (inst->val_type != OBS_VALUE_TYPE_INT64 && inst->val_type != OBS_VALUE_TYPE_DOUBLE) {
        SDK_OT_LOG(kLazyInit, "Error", "Invalid val_type %d", inst->val_type);
        return OBS_ERR_FAILED;
    }
    if (!_otelc_create_metrics_inst_from_meter)
        return not_loaded("_otelc_create_metrics_inst_from_meter");
    const otelc_instrument_kind kind = {
        OTELC_INSTRUMENT_UPDOWN_COUNTER, 1,
        inst->val_type == OBS_VALUE_TYPE_DOUBLE ? OTELC_VALUE_DOUBLE : OTELC_VALUE_INT64};
    void *made = obs::lazily(&inst->otelc_priv_data, [inst, &kind] {
        void *instrument =
            _otelc_create_metrics_inst_from_meter(kind, obs::load_handle(&inst->scope_ctx->meter),
                                                  inst->name, nullptr, inst->second_text);
        if (instrument) inst->otelc_destroy = _otelc_destroy_metrics_inst;
        return instrument;
    });
    if (!made) {
        SDK_OT_LOG(kLazyInit, "Error", "Unable to lazy initialize otelc private data for %s",
                   inst->name);
        return OBS_ERR_FAILED;
    }
    return OBS_OK;
}

// 0 when the instrument exists afterwards. When everything exists this costs three acquire loads.
int do_lazy_sdk_ot_inst_init(inst_ctx *inst) {
    if (!inst->scope_ctx) {
        SDK_OT_LOG(kLazyInit, "Error", "receives NULL scope_ctx");
        return OBS_ERR_FAILED;
    }
    if (!inst->ctx) {
        SDK_OT_LOG(kLazyInit, "Error", "receives NULL ctx");
        return OBS_ERR_FAILED;
    }
    if (make_meter(inst) != OBS_OK) return OBS_ERR_FAILED;
    if (obs::load_handle(&inst->otelc_priv_data)) return OBS_OK;
    return make_instrument(inst);
}

// The steps every add shares, up to the call of the binding's add function with a map of attrs
// (none without attrs); the map is destroyed after the call.
template <typename Value, typename Add>
int add(const char *operation, inst_ctx *inst, Value value, const obs_key_value *attrs, Add fn,
        const char *fn_name, const char *lazy_failure) {
    if (do_lazy_sdk_ot_inst_init(inst) != OBS_OK) {
        SDK_OT_LOG(operation, "Error", "%s", lazy_failure);
        return OBS_ERR_FAILED;
    }
    void *instrument = obs::load_handle(&inst->otelc_priv_data);
    if (!instrument) {
        SDK_OT_LOG(operation, "Error", "inst_ctx has NULL otelc_priv_data after lazy init");
        return OBS_ERR_FAILED;
    }
    if (!fn) {
        SDK_OT_LOG(operation, "Error", "NULL %s", fn_name);
        return OBS_ERR_FAILED;
    }
    if (!attrs) return fn(instrument, value, nullptr);
    if (!_otelc_destroy_attr_map) {
        SDK_OT_LOG(operation, "Error", "_otelc_destroy_attr_map not loaded");
        return OBS_ERR_FAILED;
    }
    AttrMap *map = sdk_ot_kv_to_attr_map(attrs);
    if (!map) SDK_OT_LOG(operation, "Warning", "Failed to convert obs_key_value to AttrMap");
    const int result = fn(instrument, value, map);
    if (map) _otelc_destroy_attr_map(map);
    return result;
}

}  // namespace

extern "C" {

inst_ctx *sdk_ot_inst_create(int inst_type, int val_type, sdk_ot_ctx *ctx, scope_ctx *scope,
                             const char *name, const char *second_text) {
    if (!scope || !ctx) {
        SDK_OT_LOG(__func__, "Error", "receive NULL ctx or scope");
        return nullptr;
    }
    auto *inst = static_cast<inst_ctx *>(calloc(1, sizeof(inst_ctx)));
    if (inst) {
        inst->name = name ? strndup(name, kMaxTextLength) : nullptr;
        inst->second_text = second_text ? strndup(second_text, kMaxTextLength) : nullptr;
    }
    if (!inst || (name && !inst->name) || (second_text && !inst->second_text)) {
        if (inst) {
            free(inst->name);
            free(inst->second_text);
            free(inst);
        }
        SDK_OT_LOG(__func__, "Error", "failed to allocate memory for inst_ctx");
        return nullptr;
    }
    inst->inst_type = inst_type;
    inst->val_type = val_type;
    inst->ctx = ctx;
    inst->scope_ctx = scope;
    return inst;
}

void sdk_ot_inst_destroy(inst_ctx *inst) {
    if (!inst) return;
    if (inst->otelc_priv_data) {
        if (inst->otelc_destroy) {
            inst->otelc_destroy(inst->otelc_priv_data);
        } else {
            SDK_OT_LOG(__func__, "Warning", "inst_ctx has private data but otelc_destroy is NULL");
        }
    }
    free(inst->name);
    free(inst->second_text);
    free(inst);
}

int sdk_ot_inst_add_int64(inst_ctx *inst, int64_t value, const obs_key_value *attrs) {
    if (!inst) return OBS_ERR_FAILED;
    return add(__func__, inst, value, attrs, _otelc_metrics_inst_add_int64_attrs,
               "_otelc_metrics_inst_add_int64_attrs", "Unable to lazy initialize instrument");
}

int sdk_ot_inst_add_double(inst_ctx *inst, double value, const obs_key_value *attrs) {
    if (!inst) {
        SDK_OT_LOG(__func__, "Error", "instrument is NULL");
        return OBS_ERR_FAILED;
    }
    return add(__func__, inst, value, attrs, _otelc_metrics_inst_add_double_attrs,
               "_otelc_metrics_inst_add_double_attrs", "unable to lazy initialize instrument");
}

}  // extern "C"
