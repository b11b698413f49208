// Spans and log records when the library refuses a first use (what they hand over when it does
// not is the end-to-end suite's).
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using TracingTest = SdkOtTest;

// Each refusal fails its start or log, and the next one makes what is still missing.
TEST_F(TracingTest, RefusalsFailTheCallAndTheNextTriesAgain) {
    for (const char *refused : {"init_tracer_provider_ctx", "get_tracer", "start_span_with_tracer",
                                "init_logger_provider_ctx", "get_logger"}) {
        fail(("otelc_" + std::string(refused)).c_str());
        if (strstr(refused, "logger"))
            EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, scope_, 1, "m"), -1);
        else
            EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, scope_, "s"), nullptr);
        EXPECT_EQ(last().rfind(refused, 0), 0u) << refused;
    }
    EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, nullptr, "no scope"), nullptr);
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, nullptr, 1, "no scope"), -1);
    span_ctx *span = sdk_ot_span_start(ctx_, nullptr, scope_, "s");
    EXPECT_EQ(sdk_ot_span_log(ctx_, span, scope_, 1, "in span"), 0);
    EXPECT_EQ(last(), "log_with_ctx(lp#1,span#1,logger#1,5,in span)");
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, scope_, 4, "outside"), 0);
    EXPECT_EQ(last(), "log_with_ctx(lp#1,null,logger#1,5,outside)");
    sdk_ot_span_end(span, -1, nullptr);
    EXPECT_EQ(count("init") + count("get"), 8u);
}

}  // namespace sdk_ot_test
