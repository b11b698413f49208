#include <gtest/gtest.h>

#include "observability_api.h"
#include "observability_ipc_mem.h"
#include "support/log_capture.h"
#include "support/recording_provider.h"
#include "support/scripted_ipc.h"

namespace {

class ContextTest : public obs_test::LogCaptureTest {
  protected:
    obs_test::RecordingProvider sdk_;
    obs_test::ScriptedIpc ipc_;
};

TEST_F(ContextTest, SmokeCreatesTheDefaultScopeAndReleasesEverything) {
    obs_ctx *ctx = obs_ctx_init("svc", sdk_.table(), ipc_.table());
    ASSERT_NE(ctx, nullptr);
    obs_scope *scope = obs_scope_default(ctx);
    ASSERT_NE(scope, nullptr);
    EXPECT_STREQ(scope->name, "default");
    EXPECT_TRUE(obs_scope_enabled(scope, OBS_SIGNAL_TRACES));
    obs_span *span = obs_span_start(scope, nullptr, "work");
    ASSERT_NE(span, nullptr);
    EXPECT_EQ(obs_span_log(span, 2, "hello"), 0);
    EXPECT_EQ(obs_span_log(span, 3, "too verbose"), -1);
    obs_span_end(span);
    obs_updown_counter *counter = obs_int64_updown_counter_create(scope, "queue", "items");
    EXPECT_EQ(obs_int64_updown_counter_add(counter, 5, nullptr), 0);
    obs_int64_updown_counter_destroy(counter);
    obs_sds dump = obs_dump(obs_sdsempty());
    EXPECT_NE(std::string(dump).find("scope: default"), std::string::npos) << dump;
    obs_sdsfree(dump);
    obs_ctx_destroy(ctx);
    EXPECT_EQ(obs_info_list, nullptr);
    for (auto &c : sdk_.calls()) printf("%s\n", c.c_str());
}

}  // namespace
