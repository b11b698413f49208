// Scopes, spans and log records on the library: what each first use makes, what a span start,
// end and log hand over, and what a refusal of the library leaves.
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using TracingTest = SdkOtTest;

TEST_F(TracingTest, FirstSpanMakesProviderAndTracerOnceAndChildrenTravelAsText) {
    scope_ctx *other = sdk_ot_scope_create(ctx_, "other", nullptr, OBS_SAMPLING_ALL_OFF);
    span_ctx *parent = sdk_ot_span_start(ctx_, nullptr, scope_, "parent");
    const char *text = sdk_ot_span_to_context(parent, nullptr, nullptr);
    span_ctx *child = sdk_ot_span_start(ctx_, parent, other, "child");
    span_ctx *remote = sdk_ot_span_start_from_context(ctx_, "remote-text", scope_, "remote");
    span_ctx *orphan = sdk_ot_span_start_from_context(ctx_, nullptr, other, "orphan");
    EXPECT_EQ(sdk_ot_span_to_context(parent, nullptr, nullptr), text);
    EXPECT_STREQ(text, "ctx-span#1");
    EXPECT_EQ(calls(),
              (Lines{"otelc_init_tracer_provider_ctx(\"svc\",null,null)",
                     "otelc_get_tracer(tracer_provider#1,\"lib\",\"1.2\",null,null)",
                     "otelc_start_span_with_tracer(tracer_provider#1,tracer#1,\"parent\",null,"
                     "\"\",buffer,200)",
                     "otelc_get_tracer(tracer_provider#1,\"other\",null,null,null)",
                     "otelc_start_span_with_tracer(tracer_provider#1,tracer#2,\"child\",null,"
                     "\"ctx-span#1\",buffer,200)",
                     "otelc_start_span_with_tracer(tracer_provider#1,tracer#1,\"remote\",null,"
                     "\"remote-text\",buffer,200)",
                     "otelc_start_span_with_tracer(tracer_provider#1,tracer#2,\"orphan\",null,"
                     "\"\",buffer,200)"}));
    clear();
    sdk_ot_span_end(parent, -1, "ignored");
    sdk_ot_span_end(child, 0, nullptr);
    sdk_ot_span_end(remote, 2, "failed");
    sdk_ot_span_end(orphan, 1, nullptr);
    EXPECT_EQ(calls(),
              (Lines{"otelc_end_span(span#1)", "otelc_set_span_status(span#2,0,null)",
                     "otelc_end_span(span#2)", "otelc_set_span_status(span#3,2,\"failed\")",
                     "otelc_end_span(span#3)", "otelc_set_span_status(span#4,1,null)",
                     "otelc_end_span(span#4)"}));
    EXPECT_EQ(standin().live("span"), 0);
    sdk_ot_scope_free(other);
}

TEST_F(TracingTest, RefusalsReturnNullAndTheNextStartTriesAgain) {
    standin().fail("otelc_init_tracer_provider_ctx", 1);
    EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, scope_, "a"), nullptr);
    standin().fail("otelc_get_tracer", 1);
    EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, scope_, "b"), nullptr);
    standin().fail("otelc_start_span_with_tracer", 1);
    EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, scope_, "c"), nullptr);
    span_ctx *span = sdk_ot_span_start(ctx_, nullptr, scope_, "d");
    EXPECT_NE(span, nullptr);
    EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, nullptr, "e"), nullptr);
    EXPECT_EQ(calls(),
              (Lines{"otelc_init_tracer_provider_ctx(\"svc\",null,null)",
                     "otelc_init_tracer_provider_ctx(\"svc\",null,null)",
                     "otelc_get_tracer(tracer_provider#1,\"lib\",\"1.2\",null,null)",
                     "otelc_get_tracer(tracer_provider#1,\"lib\",\"1.2\",null,null)",
                     "otelc_start_span_with_tracer(tracer_provider#1,tracer#1,\"c\",null,\"\","
                     "buffer,200)",
                     "otelc_start_span_with_tracer(tracer_provider#1,tracer#1,\"d\",null,\"\","
                     "buffer,200)"}));
    sdk_ot_span_end(span, -1, nullptr);
}

TEST_F(TracingTest, LogRecordsGoOutWithSeverityFiveWhateverTheLevel) {
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, nullptr, 1, "dropped"), -1);
    EXPECT_EQ(calls(), Lines{});
    standin().fail("otelc_init_logger_provider_ctx", 1);
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, scope_, 1, "a"), -1);
    standin().fail("otelc_get_logger", 1);
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, scope_, 1, "b"), -1);
    span_ctx *span = sdk_ot_span_start(ctx_, nullptr, scope_, "s");
    clear();
    EXPECT_EQ(sdk_ot_span_log(ctx_, span, scope_, 1, "in span"), 0);
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, scope_, 4, "outside"), 0);
    EXPECT_EQ(calls(),
              (Lines{"otelc_get_logger(logger_provider#1,\"lib\",\"1.2\",null,null)",
                     "otelc_log_with_ctx(logger_provider#1,span#1,logger#1,5,\"in span\")",
                     "otelc_log_with_ctx(logger_provider#1,null,logger#1,5,\"outside\")"}));
    sdk_ot_span_end(span, -1, nullptr);
}

TEST_F(TracingTest, ScopeFreeDestroysOnlyTheMapsItHolds) {
    scope_ctx *unused = sdk_ot_scope_create(ctx_, "unused", "1", OBS_SAMPLING_ALL_ON);
    sdk_ot_scope_free(unused);
    EXPECT_EQ(calls(), Lines{});
    Attrs attrs;
    obs_key_value_add_str(&attrs.list, "k", "v", 0);
    sdk_ot_scope_attrs_set(ctx_, scope_, 0, attrs.list);
    clear();
    sdk_ot_scope_free(scope_);
    scope_ = nullptr;
    EXPECT_EQ(calls(), (Lines{"otelc_destroy_attr_map(map#1)", "otelc_destroy_attr_map(map#2)",
                              "otelc_destroy_attr_map(map#3)"}));
}

}  // namespace sdk_ot_test
