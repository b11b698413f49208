// Attribute lists converted to the library's maps, and the resource, scope and span setters.
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using AttributesTest = SdkOtTest;

TEST_F(AttributesTest, ConversionSetsScalarsInListOrderAndSkipsTheRestAndSpanMapsLiveForTheCall) {
    span_ctx *span = sdk_ot_span_start(ctx_, nullptr, scope_, "s");
    take();
    sdk_ot_span_attrs_set(span, attrs_);
    sdk_ot_span_end(span, -1, nullptr);
    EXPECT_EQ(take(),
              "create_attr_map()\nset_int64_t_attr(map#1,n,7)\n"
              "set_span_attrs(span#1,map#1)\ndestroy_attr_map(map#1)\nend_span(span#1)\n");
    obs_any_value element = {};
    obs_key_value_add_str(&attrs_, "s", "v", 1);
    obs_key_value_add_bool(&attrs_, "b", true);
    obs_key_value_add_double(&attrs_, "d", 0.1);
    obs_key_value_add_array(&attrs_, "a", &element, 1, 1);
    obs_key_value_add_kvlist(&attrs_, "k", nullptr, 1);
    obs_key_value_add_bool(&attrs_, "raw", true);
    obs_key_value_find(attrs_, "raw")->val->val.b = 7;  // passed as stored, not as 0 or 1
    obs_key_value none = {const_cast<char *>("none"), nullptr, attrs_};
    _otelc_destroy_attr_map(sdk_ot_kv_to_attr_map(&none));
    EXPECT_EQ(take(),
              "create_attr_map()\nset_int64_t_attr(map#2,n,7)\nset_str_attr(map#2,s,v)\n"
              "set_bool_attr(map#2,b,1)\nset_double_attr(map#2,d,0.10000000000000001)\n"
              "set_bool_attr(map#2,raw,7)\ndestroy_attr_map(map#2)\n");
    fail("otelc_create_attr_map");
    EXPECT_EQ(sdk_ot_kv_to_attr_map(attrs_), nullptr);
}

TEST_F(AttributesTest, ResourceMapsGoToProviderContextsMadeLaterOrRemakeExistingOnes) {
    sdk_ot_resource_attrs_set(ctx_, 8, attrs_);  // no signal of the provider
    sdk_ot_resource_attrs_set(ctx_, 1, attrs_);
    span(scope_);
    EXPECT_EQ(last("init"), "init_tracer_provider_ctx(svc,null,map#1)");
    take();
    sdk_ot_resource_attrs_set(ctx_, 0, attrs_);
    EXPECT_EQ(take(),
              "create_attr_map()\nset_int64_t_attr(map#2,n,7)\ndestroy_attr_map(map#1)\n"
              "cleanup_tracer_provider_ctx(tp#1)\ninit_tracer_provider_ctx(svc,null,map#2)\n"
              "create_attr_map()\nset_int64_t_attr(map#3,n,7)\n"
              "create_attr_map()\nset_int64_t_attr(map#4,n,7)\n");
    // A failed conversion keeps the stored map; after a failed remake the next span makes it.
    fail("otelc_create_attr_map");
    fail("otelc_init_tracer_provider_ctx");
    sdk_ot_resource_attrs_set(ctx_, 1, attrs_);
    EXPECT_EQ(last("init"), "init_tracer_provider_ctx(svc,null,null)");
    span(scope_);
    EXPECT_EQ(last("init"), "init_tracer_provider_ctx(svc,null,map#2)");
}

TEST_F(AttributesTest, ScopeMapsGoToTheFirstLookupOrToAHandleHeldAlreadyAndDieWithTheScope) {
    sdk_ot_scope_attrs_set(ctx_, scope_, 1, attrs_);
    span(scope_);
    EXPECT_EQ(last("get"), "get_tracer(tp#1,lib,1.2,null,map#1)");
    fail("otelc_create_attr_map");  // the traces map's: the logs and metrics maps still come
    sdk_ot_scope_attrs_set(ctx_, scope_, 7, attrs_);
    take();
    sdk_ot_scope_attrs_set(ctx_, scope_, 1, attrs_);
    sdk_ot_scope_free(scope_);
    scope_ = nullptr;
    EXPECT_EQ(take(),
              "create_attr_map()\nset_int64_t_attr(map#4,n,7)\ndestroy_attr_map(map#1)\n"
              "set_trace_instrumentationscope_attrs(tp#1,tracer#1,map#4)\ndestroy_attr_map(map#4)\n"
              "destroy_attr_map(map#2)\ndestroy_attr_map(map#3)\n");
}

}  // namespace sdk_ot_test
