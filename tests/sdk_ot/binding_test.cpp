// Loading and binding the library, the provider table, and the SDK context's life.
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using BindingTest = SdkOtTest;

TEST_F(BindingTest, EveryInitLogsTwoLinesCallsNothingAndMakesItsOwnContext) {
    sdk_ot_ctx *second = sdk_ot_init(nullptr, "svc");
    const std::string loaded = loaded_line(standin().library());
    EXPECT_EQ(lines(), (Lines{loaded, "ot all api detected"}));
    EXPECT_EQ(calls(), Lines{});
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, ctx_);
    EXPECT_STREQ(second->service_name, "svc");
    EXPECT_NE(second->service_name, ctx_->service_name);
    EXPECT_EQ(second->tracer_provider_ctx, nullptr);
    sdk_ot_free(second);
    sdk_ot_free(nullptr);
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(BindingTest, TableHoldsTheOperationsAndGlobalsHoldTheLibraryFunctions) {
    obs_sdk_provider *table = obs_get_default_sdk_ot_buildin_provider();
    ASSERT_EQ(table, &__sdk_ot_cpp_provider);
    EXPECT_STREQ(table->name, "opentelemetry");
    EXPECT_STREQ(table->version, "1.16.1");
    const void *slots[] = {reinterpret_cast<void *>(table->init),
                           reinterpret_cast<void *>(table->span_log),
                           reinterpret_cast<void *>(table->metrics_inst_add_double)};
    const void *operations[] = {reinterpret_cast<void *>(sdk_ot_init),
                                reinterpret_cast<void *>(sdk_ot_span_log),
                                reinterpret_cast<void *>(sdk_ot_inst_add_double)};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(slots[i], operations[i]);
    for (size_t i = 0; i < globals().size(); ++i) {
        void *expected =
            i < kBoundGlobals ? dlsym(standin().library(), globals()[i].function) : nullptr;
        EXPECT_EQ(*globals()[i].pointer, expected) << globals()[i].function;
    }
}

TEST_F(BindingTest, FreeCleansUpWhatFirstUsesMadeThenDestroysTheResourceMaps) {
    Attrs attrs;
    obs_key_value_add_int(&attrs.list, "n", 1);
    sdk_ot_resource_attrs_set(ctx_, 0, attrs.list);
    sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope_, "s"), -1, nullptr);
    sdk_ot_span_log(ctx_, nullptr, scope_, 1, "m");
    inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope_, "c", nullptr);
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    sdk_ot_inst_destroy(inst);
    clear();
    sdk_ot_free(ctx_);
    ctx_ = nullptr;
    EXPECT_EQ(calls(), (Lines{"otelc_cleanup_tracer_provider_ctx(tracer_provider#1)",
                              "otelc_cleanup_logger_provider_ctx(logger_provider#1)",
                              "otelc_cleanup_metrics_provider_ctx(metrics_provider#1)",
                              "otelc_destroy_attr_map(map#1)", "otelc_destroy_attr_map(map#2)",
                              "otelc_destroy_attr_map(map#3)"}));
}

}  // namespace sdk_ot_test
