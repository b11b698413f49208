// Attribute lists converted to the library's maps, and the resource, scope and span setters.
#include <climits>

#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

class AttributesTest : public SdkOtTest {
  protected:
    // One span started and ended in the scope, its calls forgotten.
    void use_tracer() {
        sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope_, "s"), -1, nullptr);
        clear();
    }
    Attrs one_int_;
    void SetUp() override {
        SdkOtTest::SetUp();
        obs_key_value_add_int(&one_int_.list, "n", 7);
    }
};

TEST_F(AttributesTest, ConversionSetsScalarsInListOrderAndSkipsTheRest) {
    Attrs attrs;
    obs_any_value element = {};
    const unsigned char bytes[] = {1, 2};
    obs_key_value_add_str(&attrs.list, "s", "v", 1);  // borrowed: the reference flag is ignored
    obs_key_value_add_bool(&attrs.list, "b", true);
    obs_key_value_add_int(&attrs.list, "i", INT64_MIN);
    obs_key_value_add_double(&attrs.list, "d", 0.1);
    obs_key_value_add_array(&attrs.list, "a", &element, 1, 1);
    obs_key_value_add_kvlist(&attrs.list, "k", one_int_.list, 1);
    obs_key_value_add_byte(&attrs.list, "y", bytes, 2, 1);
    obs_key_value_add_str(&attrs.list, "s", "w", 0);
    obs_key_value_add_bool(&attrs.list, "raw", true);
    for (obs_key_value *p = attrs.list; p; p = p->next)
        if (!strcmp(p->key, "raw")) p->val->val.b = 7;  // passed as stored, not as 0 or 1
    obs_key_value none = {const_cast<char *>("none"), nullptr, attrs.list};
    AttrMap *map = sdk_ot_kv_to_attr_map(&none);
    EXPECT_EQ(calls(), (Lines{"otelc_create_attr_map()", "otelc_set_str_attr(map#1,\"s\",\"v\")",
                              "otelc_set_bool_attr(map#1,\"b\",1)",
                              "otelc_set_int64_t_attr(map#1,\"i\",-9223372036854775808)",
                              "otelc_set_double_attr(map#1,\"d\",0.10000000000000001)",
                              "otelc_set_str_attr(map#1,\"s\",\"w\")",
                              "otelc_set_bool_attr(map#1,\"raw\",7)"}));
    _otelc_destroy_attr_map(map);
    standin().fail("otelc_create_attr_map", 1);
    EXPECT_EQ(sdk_ot_kv_to_attr_map(attrs.list), nullptr);
    map = sdk_ot_kv_to_attr_map(nullptr);
    EXPECT_EQ(calls().back(), "otelc_create_attr_map()");
    _otelc_destroy_attr_map(map);
}

TEST_F(AttributesTest, ResourceMapsGoToProviderContextsMadeLaterOrRemakeExistingOnes) {
    sdk_ot_resource_attrs_set(ctx_, 8, one_int_.list);
    EXPECT_EQ(calls(), Lines{});
    sdk_ot_resource_attrs_set(ctx_, 1, one_int_.list);
    use_tracer();
    sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope_, "s"), -1, nullptr);
    EXPECT_EQ(calls("otelc_init"), Lines{});
    clear();
    sdk_ot_resource_attrs_set(ctx_, 0, one_int_.list);
    EXPECT_EQ(calls(), (Lines{"otelc_create_attr_map()", "otelc_set_int64_t_attr(map#2,\"n\",7)",
                              "otelc_destroy_attr_map(map#1)",
                              "otelc_cleanup_tracer_provider_ctx(tracer_provider#1)",
                              "otelc_init_tracer_provider_ctx(\"svc\",null,map#2)",
                              "otelc_create_attr_map()", "otelc_set_int64_t_attr(map#3,\"n\",7)",
                              "otelc_create_attr_map()", "otelc_set_int64_t_attr(map#4,\"n\",7)"}));
    // A failed conversion keeps the stored map, remakes the context without one, and a failed
    // remake leaves the next span to make it from the stored map.
    clear();
    standin().fail("otelc_create_attr_map", 1);
    standin().fail("otelc_init_tracer_provider_ctx", 1);
    sdk_ot_resource_attrs_set(ctx_, 1, one_int_.list);
    EXPECT_EQ(calls(), (Lines{"otelc_create_attr_map()",
                              "otelc_cleanup_tracer_provider_ctx(tracer_provider#2)",
                              "otelc_init_tracer_provider_ctx(\"svc\",null,null)"}));
    EXPECT_EQ(ctx_->tracer_provider_ctx, nullptr);
    sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope_, "s"), -1, nullptr);
    EXPECT_EQ(calls("otelc_init").back(), "otelc_init_tracer_provider_ctx(\"svc\",null,map#2)");
}

TEST_F(AttributesTest, ScopeMapsGoToTheFirstLookupOrToAHandleHeldAlready) {
    sdk_ot_scope_attrs_set(ctx_, scope_, 1, one_int_.list);
    sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope_, "s"), -1, nullptr);
    EXPECT_EQ(calls("otelc_get_tracer"),
              Lines{"otelc_get_tracer(tracer_provider#1,\"lib\",\"1.2\",null,map#1)"});
    clear();
    standin().fail("otelc_create_attr_map", 1);
    sdk_ot_scope_attrs_set(ctx_, scope_, 7, one_int_.list);
    EXPECT_EQ(calls(), (Lines{"otelc_create_attr_map()", "otelc_create_attr_map()",
                              "otelc_set_int64_t_attr(map#2,\"n\",7)", "otelc_create_attr_map()",
                              "otelc_set_int64_t_attr(map#3,\"n\",7)"}));
    clear();
    sdk_ot_scope_attrs_set(ctx_, scope_, 1, one_int_.list);
    EXPECT_EQ(calls(), (Lines{"otelc_create_attr_map()", "otelc_set_int64_t_attr(map#4,\"n\",7)",
                              "otelc_destroy_attr_map(map#1)",
                              "otelc_set_trace_instrumentationscope_attrs(tracer_provider#1,"
                              "tracer#1,map#4)"}));
}

TEST_F(AttributesTest, SpanMapLivesForTheCallOnly) {
    span_ctx *span = sdk_ot_span_start(ctx_, nullptr, scope_, "s");
    clear();
    sdk_ot_span_attrs_set(span, one_int_.list);
    EXPECT_EQ(calls(),
              (Lines{"otelc_create_attr_map()", "otelc_set_int64_t_attr(map#1,\"n\",7)",
                     "otelc_set_span_attrs(span#1,map#1)", "otelc_destroy_attr_map(map#1)"}));
    sdk_ot_span_end(span, -1, nullptr);
}

}  // namespace sdk_ot_test
