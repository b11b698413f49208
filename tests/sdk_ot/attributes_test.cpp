// Attribute lists converted to the library's maps, and the resource, scope and span setters.
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using AttributesTest = SdkOtTest;

TEST_F(AttributesTest, ConversionSetsScalarsInListOrderAndSkipsTheRest) {
    Attrs attrs, nested;
    obs_any_value element = {};
    obs_key_value_add_str(&attrs.list, "s", "v", 1);
    obs_key_value_add_bool(&attrs.list, "b", true);
    obs_key_value_add_double(&attrs.list, "d", 0.1);
    obs_key_value_add_array(&attrs.list, "a", &element, 1, 1);
    obs_key_value_add_kvlist(&attrs.list, "k", nested.list, 1);
    obs_key_value_add_bool(&attrs.list, "raw", true);
    for (obs_key_value *p = attrs.list; p; p = p->next)
        if (!strcmp(p->key, "raw")) p->val->val.b = 7;  // passed as stored, not as 0 or 1
    obs_key_value none = {const_cast<char *>("none"), nullptr, attrs.list};
    _otelc_destroy_attr_map(sdk_ot_kv_to_attr_map(&none));
    EXPECT_EQ(calls(),
              "create_attr_map()\nset_int64_t_attr(map#1,n,7)\n"
              "set_str_attr(map#1,s,v)\nset_bool_attr(map#1,b,1)\n"
              "set_double_attr(map#1,d,0.10000000000000001)\n"
              "set_bool_attr(map#1,raw,7)\ndestroy_attr_map(map#1)\n");
    fail("otelc_create_attr_map");
    EXPECT_EQ(sdk_ot_kv_to_attr_map(attrs.list), nullptr);
}

TEST_F(AttributesTest, ResourceMapsGoToProviderContextsMadeLaterOrRemakeExistingOnes) {
    Attrs attrs;
    sdk_ot_resource_attrs_set(ctx_, 8, attrs.list);  // no signal of the provider
    sdk_ot_resource_attrs_set(ctx_, 1, attrs.list);
    span(scope_);
    EXPECT_EQ(last("init"), "init_tracer_provider_ctx(svc,null,map#1)");
    take();
    sdk_ot_resource_attrs_set(ctx_, 0, attrs.list);
    EXPECT_EQ(calls(),
              "create_attr_map()\nset_int64_t_attr(map#2,n,7)\ndestroy_attr_map(map#1)\n"
              "cleanup_tracer_provider_ctx(tp#1)\n"
              "init_tracer_provider_ctx(svc,null,map#2)\ncreate_attr_map()\n"
              "set_int64_t_attr(map#3,n,7)\ncreate_attr_map()\n"
              "set_int64_t_attr(map#4,n,7)\n");
    // A failed conversion keeps the stored map, and a failed remake leaves the next span to make
    // the context from it.
    fail("otelc_create_attr_map");
    fail("otelc_init_tracer_provider_ctx");
    sdk_ot_resource_attrs_set(ctx_, 1, attrs.list);
    EXPECT_EQ(last("init"), "init_tracer_provider_ctx(svc,null,null)");
    span(scope_);
    EXPECT_EQ(last("init"), "init_tracer_provider_ctx(svc,null,map#2)");
}

TEST_F(AttributesTest, ScopeMapsGoToTheFirstLookupOrToAHandleHeldAlreadyAndDieWithTheScope) {
    Attrs attrs;
    sdk_ot_scope_attrs_set(ctx_, scope_, 1, attrs.list);
    span(scope_);
    EXPECT_EQ(last("get"), "get_tracer(tp#1,lib,1.2,null,map#1)");
    fail("otelc_create_attr_map");  // the traces map's: the logs and metrics maps still come
    sdk_ot_scope_attrs_set(ctx_, scope_, 7, attrs.list);
    take();
    sdk_ot_scope_attrs_set(ctx_, scope_, 1, attrs.list);
    sdk_ot_scope_free(scope_);
    scope_ = nullptr;
    EXPECT_EQ(calls(),
              "create_attr_map()\nset_int64_t_attr(map#4,n,7)\n"
              "destroy_attr_map(map#1)\nset_trace_instrumentationscope_attrs(tp#1,"
              "tracer#1,map#4)\ndestroy_attr_map(map#4)\ndestroy_attr_map(map#2)\n"
              "destroy_attr_map(map#3)\n");
}

TEST_F(AttributesTest, SpanMapLivesForTheCallOnly) {
    Attrs attrs;
    span_ctx *span = sdk_ot_span_start(ctx_, nullptr, scope_, "s");
    take();
    sdk_ot_span_attrs_set(span, attrs.list);
    sdk_ot_span_end(span, -1, nullptr);
    EXPECT_EQ(calls(),
              "create_attr_map()\nset_int64_t_attr(map#1,n,7)\n"
              "set_span_attrs(span#1,map#1)\ndestroy_attr_map(map#1)\nend_span(span#1)\n");
}

}  // namespace sdk_ot_test
