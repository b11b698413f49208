// The built-in provider table. The sdk_ot_* operations take the provider's own record types where
// the table's slots take opaque handles; both are data pointers, passed alike.
#include "observability/sdk_ot.h"

namespace {

template <typename Slot, typename Operation>
Slot slot(Operation operation) {
    return reinterpret_cast<Slot>(operation);
}

}  // namespace

extern "C" {

obs_sdk_provider __sdk_ot_cpp_provider = {
    "opentelemetry",
    "1.16.1",
    slot<decltype(obs_sdk_provider::init)>(sdk_ot_init),
    slot<decltype(obs_sdk_provider::free)>(sdk_ot_free),
    slot<decltype(obs_sdk_provider::resource_attrs_set)>(sdk_ot_resource_attrs_set),
    slot<decltype(obs_sdk_provider::scope_create)>(sdk_ot_scope_create),
    slot<decltype(obs_sdk_provider::scope_free)>(sdk_ot_scope_free),
    slot<decltype(obs_sdk_provider::scope_attrs_set)>(sdk_ot_scope_attrs_set),
    slot<decltype(obs_sdk_provider::span_start)>(sdk_ot_span_start),
    slot<decltype(obs_sdk_provider::span_start_from_context)>(sdk_ot_span_start_from_context),
    slot<decltype(obs_sdk_provider::span_attrs_set)>(sdk_ot_span_attrs_set),
    slot<decltype(obs_sdk_provider::span_end)>(sdk_ot_span_end),
    slot<decltype(obs_sdk_provider::span_to_context)>(sdk_ot_span_to_context),
    slot<decltype(obs_sdk_provider::span_log)>(sdk_ot_span_log),
    slot<decltype(obs_sdk_provider::metrics_inst_create)>(sdk_ot_inst_create),
    slot<decltype(obs_sdk_provider::metrics_inst_destroy)>(sdk_ot_inst_destroy),
    slot<decltype(obs_sdk_provider::metrics_inst_add_int64)>(sdk_ot_inst_add_int64),
    slot<decltype(obs_sdk_provider::metrics_inst_add_double)>(sdk_ot_inst_add_double),
};

obs_sdk_provider *obs_get_default_sdk_ot_buildin_provider(void) {
    return &__sdk_ot_cpp_provider;
}

}  // extern "C"
