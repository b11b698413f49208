// Metric instruments: nothing is made at creation, everything missing at each add, and every
// failure is logged.
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

// Sets an exported binding pointer to null for the life of the object.
template <typename Pointer>
class Unbound {
  public:
    explicit Unbound(Pointer &pointer) : pointer_(pointer), saved_(pointer) { pointer = nullptr; }
    ~Unbound() { pointer_ = saved_; }

  private:
    Pointer &pointer_;
    Pointer saved_;
};

class InstrumentsTest : public SdkOtTest {
  protected:
    inst_ctx *create(const char *name, int val_type = 1, int inst_type = 2) {
        return sdk_ot_inst_create(inst_type, val_type, ctx_, scope_, name, "desc");
    }
    static Lines log() { return unnumbered(lines()); }
};

TEST_F(InstrumentsTest, FirstAddMakesProviderMeterAndInstrumentAndLaterAddsOnlyAdd) {
    inst_ctx *ints = create("ints");
    inst_ctx *doubles = create("doubles", 2);
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(sdk_ot_inst_add_int64(ints, -5, nullptr), 0);
    EXPECT_EQ(sdk_ot_inst_add_double(doubles, 0.5, nullptr), 0);
    EXPECT_EQ(sdk_ot_inst_add_int64(ints, INT64_MAX, nullptr), 0);
    EXPECT_EQ(calls(),
              (Lines{"otelc_init_metrics_provider_ctx(\"svc\",null,null)",
                     "otelc_get_meter(metrics_provider#1,\"lib\",\"1.2\",null,null)",
                     "otelc_create_metrics_inst_from_meter({0,1,0},meter#1,\"ints\",null,\"desc\")",
                     "otelc_metrics_inst_add_int64_attrs(inst#1,-5,null)",
                     "otelc_create_metrics_inst_from_meter({0,1,1},meter#1,\"doubles\",null,"
                     "\"desc\")",
                     "otelc_metrics_inst_add_double_attrs(inst#2,0.5,null)",
                     "otelc_metrics_inst_add_int64_attrs(inst#1,9223372036854775807,null)"}));
    clear();
    sdk_ot_inst_destroy(ints);
    sdk_ot_inst_destroy(doubles);
    sdk_ot_inst_destroy(create("never added"));
    EXPECT_EQ(calls(),
              (Lines{"otelc_destroy_metrics_inst(inst#1)", "otelc_destroy_metrics_inst(inst#2)"}));
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(InstrumentsTest, AttributesMakeOneMapPerAddAndResultsComeBackUnchanged) {
    inst_ctx *inst = create("c");
    Attrs attrs, unsupported;
    obs_key_value_add_str(&attrs.list, "k", "v", 0);
    obs_key_value_add_kvlist(&unsupported.list, "nested", attrs.list, 1);
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    clear();
    standin().fail("otelc_metrics_inst_add_int64_attrs", 1, 7);
    EXPECT_EQ(sdk_ot_inst_add_int64(inst, 2, attrs.list), 7);
    EXPECT_EQ(sdk_ot_inst_add_int64(inst, 3, unsupported.list), 0);
    standin().fail("otelc_create_attr_map", 1);
    EXPECT_EQ(sdk_ot_inst_add_int64(inst, 4, attrs.list), 0);
    EXPECT_EQ(calls(), (Lines{"otelc_create_attr_map()", "otelc_set_str_attr(map#1,\"k\",\"v\")",
                              "otelc_metrics_inst_add_int64_attrs(inst#1,2,map#1)",
                              "otelc_destroy_attr_map(map#1)", "otelc_create_attr_map()",
                              "otelc_metrics_inst_add_int64_attrs(inst#1,3,map#2)",
                              "otelc_destroy_attr_map(map#2)", "otelc_create_attr_map()",
                              "otelc_metrics_inst_add_int64_attrs(inst#1,4,null)"}));
    EXPECT_EQ(log(), Lines{"[SDK_OT_CPP sdk_ot_inst_add_int64:N] Warning: Failed to convert "
                           "obs_key_value to AttrMap"});
    sdk_ot_inst_destroy(inst);
}

TEST_F(InstrumentsTest, FailuresLogTheirCauseThenTheAddsLineAndTheNextAddTriesAgain) {
    inst_ctx *inst = create("c", 2);
    standin().fail("otelc_get_meter", 1);
    EXPECT_EQ(sdk_ot_inst_add_double(inst, 1, nullptr), -1);
    standin().fail("otelc_create_metrics_inst_from_meter", 1);
    EXPECT_EQ(sdk_ot_inst_add_double(inst, 1, nullptr), -1);
    EXPECT_EQ(sdk_ot_inst_add_double(inst, 1, nullptr), 0);
    EXPECT_EQ(calls("otelc_get_meter").size(), 2u);
    EXPECT_EQ(calls("otelc_create_metrics").size(), 2u);
    inst_ctx *kind3 = create("k", 1, 3), *value5 = create("v", 5);
    EXPECT_EQ(sdk_ot_inst_add_int64(kind3, 1, nullptr), -1);
    EXPECT_EQ(sdk_ot_inst_add_double(value5, 1, nullptr), -1);
    const std::string lazy = "[SDK_OT_CPP do_lazy_sdk_ot_inst_init:N] Error: ";
    EXPECT_EQ(log(), (Lines{lazy + "Failed to initialize meter_provider via otelc",
                            "[SDK_OT_CPP sdk_ot_inst_add_double:N] Error: unable to lazy "
                            "initialize instrument",
                            lazy + "Unable to lazy initialize otelc private data for c",
                            "[SDK_OT_CPP sdk_ot_inst_add_double:N] Error: unable to lazy "
                            "initialize instrument",
                            lazy + "Invalid inst_type 3",
                            "[SDK_OT_CPP sdk_ot_inst_add_int64:N] Error: Unable to lazy "
                            "initialize instrument",
                            lazy + "Invalid val_type 5",
                            "[SDK_OT_CPP sdk_ot_inst_add_double:N] Error: unable to lazy "
                            "initialize instrument"}));
    for (inst_ctx *each : {inst, kind3, value5}) sdk_ot_inst_destroy(each);
}

TEST_F(InstrumentsTest, MissingPointersAndNullRecordsAreReportedByName) {
    inst_ctx *inst = create("c");
    const std::string lazy = "[SDK_OT_CPP do_lazy_sdk_ot_inst_init:N] Error: ";
    const std::string add = "[SDK_OT_CPP sdk_ot_inst_add_int64:N] Error: ";
    {
        Unbound unbound(_otelc_init_metrics_provider_ctx);
        sdk_ot_inst_add_int64(inst, 1, nullptr);
    }
    {
        Unbound unbound(_otelc_get_meter);
        sdk_ot_inst_add_int64(inst, 1, nullptr);
    }
    {
        Unbound unbound(_otelc_create_metrics_inst_from_meter);
        sdk_ot_inst_add_int64(inst, 1, nullptr);
    }
    {
        Unbound unbound(_otelc_metrics_inst_add_int64_attrs);
        sdk_ot_inst_add_int64(inst, 1, nullptr);
    }
    {
        Unbound unbound(_otelc_destroy_attr_map);
        EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, nullptr), 0);
        obs_key_value pair = {const_cast<char *>("k"), nullptr, nullptr};
        EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, &pair), -1);
    }
    EXPECT_EQ(log(), (Lines{lazy + "otel func ptr '_otelc_init_metrics_provider_ctx' is not loaded",
                            add + "Unable to lazy initialize instrument",
                            lazy + "otel func ptr '_otelc_get_meter' is not loaded",
                            add + "Unable to lazy initialize instrument",
                            lazy + "otel func ptr '_otelc_create_metrics_inst_from_meter' is not "
                                   "loaded",
                            add + "Unable to lazy initialize instrument",
                            add + "NULL _otelc_metrics_inst_add_int64_attrs",
                            add + "_otelc_destroy_attr_map not loaded"}));
    obs_test::clear_captured_lines();
    EXPECT_EQ(sdk_ot_inst_add_int64(nullptr, 1, nullptr), -1);
    EXPECT_EQ(lines(), Lines{});
    EXPECT_EQ(sdk_ot_inst_add_double(nullptr, 1, nullptr), -1);
    EXPECT_EQ(sdk_ot_inst_create(2, 1, nullptr, scope_, "c", nullptr), nullptr);
    inst->scope_ctx = nullptr;
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    inst->scope_ctx = scope_;
    inst->ctx = nullptr;
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    inst->otelc_destroy = nullptr;
    sdk_ot_inst_destroy(inst);
    EXPECT_EQ(log(),
              (Lines{"[SDK_OT_CPP sdk_ot_inst_add_double:N] Error: instrument is NULL",
                     "[SDK_OT_CPP sdk_ot_inst_create:N] Error: receive NULL ctx or scope",
                     lazy + "receives NULL scope_ctx", add + "Unable to lazy initialize instrument",
                     lazy + "receives NULL ctx", add + "Unable to lazy initialize instrument",
                     "[SDK_OT_CPP sdk_ot_inst_destroy:N] Warning: inst_ctx has private data "
                     "but otelc_destroy is NULL"}));
}

TEST_F(InstrumentsTest, NameAndSecondTextKeepTheirFirst256Characters) {
    const std::string name(300, 'n'), text(300, 't');
    inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope_, name.c_str(), text.c_str());
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    EXPECT_EQ(calls("otelc_create_metrics"),
              Lines{"otelc_create_metrics_inst_from_meter({0,1,0},meter#1,\"" +
                    name.substr(0, 256) + "\",null,\"" + text.substr(0, 256) + "\")"});
    sdk_ot_inst_destroy(inst);
}

}  // namespace sdk_ot_test
