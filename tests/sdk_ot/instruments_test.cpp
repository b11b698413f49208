// Metric instruments: nothing is made at creation, everything missing at each add, and every
// failure is logged.
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using InstrumentsTest = SdkOtTest;

const std::string kLazy = "[SDK_OT_CPP do_lazy_sdk_ot_inst_init:N] Error: ",
                  kAdd = "[SDK_OT_CPP sdk_ot_inst_add_int64:N] Error: ",
                  kAddFailed = kAdd + "Unable to lazy initialize instrument";

TEST_F(InstrumentsTest, FirstAddMakesProviderMeterAndInstrumentAndLaterAddsOnlyAdd) {
    inst_ctx *ints = sdk_ot_inst_create(2, 1, ctx_, scope_, "ints", "d"),
             *doubles = sdk_ot_inst_create(2, 2, ctx_, scope_, "doubles", nullptr);
    EXPECT_EQ(sdk_ot_inst_add_int64(ints, -5, nullptr), 0);
    EXPECT_EQ(sdk_ot_inst_add_double(doubles, 0.5, nullptr), 0);
    EXPECT_EQ(sdk_ot_inst_add_int64(ints, INT64_MAX, nullptr), 0);
    sdk_ot_inst_destroy(ints);
    sdk_ot_inst_destroy(doubles);
    sdk_ot_inst_destroy(sdk_ot_inst_create(2, 1, ctx_, scope_, "never added", nullptr));
    EXPECT_EQ(calls(),
              "init_metrics_provider_ctx(svc,null,null)\n"
              "get_meter(mp#1,lib,1.2,null,null)\n"
              "create_metrics_inst_from_meter({0,1,0},meter#1,ints,null,d)\n"
              "metrics_inst_add_int64_attrs(inst#1,-5,null)\n"
              "create_metrics_inst_from_meter({0,1,1},meter#1,doubles,null,null)\n"
              "metrics_inst_add_double_attrs(inst#2,0.5,null)\n"
              "metrics_inst_add_int64_attrs(inst#1,9223372036854775807,null)\n"
              "destroy_metrics_inst(inst#1)\ndestroy_metrics_inst(inst#2)\n");
    EXPECT_EQ(obs_test::captured_lines(), Lines{});
}

TEST_F(InstrumentsTest, AttributesMakeOneMapPerAddAndResultsComeBackUnchanged) {
    inst_ctx *inst = sdk_ot_inst_create(2, 2, ctx_, scope_, "c", nullptr);
    Attrs attrs;
    fail("otelc_metrics_inst_add_double_attrs", 1, 7);
    EXPECT_EQ(sdk_ot_inst_add_double(inst, 2, attrs.list), 7);
    EXPECT_EQ(last("metrics"), "metrics_inst_add_double_attrs(inst#1,2,map#1)");
    fail("otelc_create_attr_map");
    EXPECT_EQ(sdk_ot_inst_add_double(inst, 3, attrs.list), 0);
    EXPECT_EQ(last("metrics"), "metrics_inst_add_double_attrs(inst#1,3,null)");
    EXPECT_EQ(unnumbered_lines(), Lines{"[SDK_OT_CPP sdk_ot_inst_add_double:N] Warning: Failed to "
                                        "convert obs_key_value to AttrMap"});
    sdk_ot_inst_destroy(inst);
}

// A name with "_" first is a pointer left unbound for the add, any other a function refusing.
TEST_F(InstrumentsTest, EachFailureLogsItsCauseThenTheAddsLineAndTheNextAddTriesAgain) {
    inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope_, "c", nullptr);
    const std::pair<const char *, std::string> cases[] = {
        {"_otelc_init_metrics_provider_ctx",
         kLazy + "otel func ptr '_otelc_init_metrics_provider_ctx' is not loaded"},
        {"otelc_init_metrics_provider_ctx",
         kLazy + "Failed to initialize meter_provider via otelc"},
        {"_otelc_get_meter", kLazy + "otel func ptr '_otelc_get_meter' is not loaded"},
        {"otelc_get_meter", kLazy + "Failed to initialize meter_provider via otelc"},
        {"_otelc_create_metrics_inst_from_meter",
         kLazy + "otel func ptr '_otelc_create_metrics_inst_from_meter' is not loaded"},
        {"otelc_create_metrics_inst_from_meter",
         kLazy + "Unable to lazy initialize otelc private data for c"},
        {"_otelc_metrics_inst_add_int64_attrs", kAdd + "NULL _otelc_metrics_inst_add_int64_attrs"},
        {"_otelc_destroy_attr_map", kAdd + "_otelc_destroy_attr_map not loaded"}};
    Attrs attrs;
    for (const auto &[name, cause] : cases) {
        obs_test::clear_captured_lines();
        auto *unbound = static_cast<void **>(name[0] == '_' ? dlsym(RTLD_DEFAULT, name) : nullptr);
        void *bound = unbound ? *unbound : nullptr;
        if (unbound) *unbound = nullptr;
        if (!unbound) fail(name);
        EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, attrs.list), -1);
        if (unbound) *unbound = bound;
        const Lines logged = unnumbered_lines();
        EXPECT_EQ(logged.at(0), cause);
        EXPECT_EQ(logged.size(), cause.rfind(kLazy, 0) == 0 ? 2u : 1u) << cause;
    }
    EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, nullptr), 0);
    for (const auto &[type, value] : {std::pair{3, 1}, {2, 5}}) {
        sdk_ot_inst_destroy(inst);
        inst = sdk_ot_inst_create(type, value, ctx_, scope_, "c", nullptr);
        obs_test::clear_captured_lines();
        EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, nullptr), -1);
        EXPECT_EQ(unnumbered_lines(),
                  (Lines{kLazy + (type == 3 ? "Invalid inst_type 3" : "Invalid val_type 5"),
                         kAddFailed}));
    }
    sdk_ot_inst_destroy(inst);
}

TEST_F(InstrumentsTest, NameAndDescriptionKeepTheirFirst256Characters) {
    const std::string name(300, 'n'), text(300, 't');
    inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope_, name.c_str(), text.c_str());
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    sdk_ot_inst_destroy(inst);
    EXPECT_EQ(last("create"), "create_metrics_inst_from_meter({0,1,0},meter#1," +
                                  name.substr(0, 256) + ",null," + text.substr(0, 256) + ")");
}

}  // namespace sdk_ot_test
