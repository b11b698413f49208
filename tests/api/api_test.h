// Where the instrumentation API suites start: a context "svc" over the recording provider and the
// scripted IPC, its provider calls and log lines cleared.
#ifndef OBS_TESTS_API_API_TEST_H
#define OBS_TESTS_API_API_TEST_H

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/recording_provider.h"
#include "support/scripted_ipc.h"

namespace api_test {

using Lines = std::vector<std::string>;

inline obs_sampling sampler(const obs_policy_ot_sampler &s) {
    return reinterpret_cast<obs_sampling>(&s);
}
inline obs_policy_ot entry(const char *scope, obs_sampling sampling, uint8_t level) {
    obs_policy_ot e = {};
    e.scope_name = const_cast<char *>(scope);
    e.sampler = sampling;
    e.log_level = level;
    return e;
}
inline std::string dump_text() {
    obs_sds dump = obs_dump(obs_sdsempty());
    std::string text = dump;
    obs_sdsfree(dump);
    return text;
}

class ApiTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ctx_ = obs_ctx_init("svc", sdk_.table(), ipc_.table());
        scope_ = obs_scope_default(ctx_);
        sdk_.clear();
        obs_test::clear_captured_lines();
    }
    void TearDown() override {
        obs_ctx_destroy(ctx_);
        LogCaptureTest::TearDown();
    }

    obs_test::RecordingProvider sdk_;
    obs_test::ScriptedIpc ipc_;
    obs_ctx *ctx_ = nullptr;
    obs_scope *scope_ = nullptr;
};

}  // namespace api_test

#endif
