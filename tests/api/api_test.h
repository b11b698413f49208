// Where the instrumentation API suites start: a context "svc" over the recording provider and the
// scripted IPC, its provider calls and log lines cleared.
#ifndef OBS_TESTS_API_API_TEST_H
#define OBS_TESTS_API_API_TEST_H

#include <cstring>

#include "observability_api.h"
#include "observability_ipc_mem.h"
#include "support/log_capture.h"
#include "support/recording_provider.h"
#include "support/scripted_ipc.h"

namespace api_test {

using Lines = std::vector<std::string>;

inline obs_sampling sampler(const obs_policy_ot_sampler &s) {
    return reinterpret_cast<obs_sampling>(&s);
}
inline obs_policy_ot entry(const char *scope, obs_sampling sampling, uint8_t level) {
    return {0, const_cast<char *>(scope), sampling, level, {}, {}, {}, {}, {}, {}};
}
inline std::string dump_text() {
    obs_sds dump = obs_dump(obs_sdsempty());
    std::string text = dump;
    obs_sdsfree(dump);
    return text;
}
// Has agent publish an "obs" record of op, with the policy text of entries or with raw, to the
// "default" key of service over the in-process IPC, and waits until it is handled and answered.
inline int publish(obs_policy_ctx *agent, const std::string &service, int op,
                   const obs_policy_ot *entries, const char *raw = nullptr) {
    obs_policy p = {};
    p.op = static_cast<uint8_t>(op);
    p.name = const_cast<char *>("obs");
    p.raw_val = const_cast<char *>(raw);
    p.raw_vlen = raw ? static_cast<uint32_t>(strlen(raw) + 1) : 0;
    char *text = nullptr;
    if (entries) sdk_policy_ot_internal_encode(entries, &text, &p.codec_vlen, 1);
    p.codec_val = text;
    p.format = text ? OBS_POLICY_FORMAT_CODEC_TEXT : OBS_POLICY_FORMAT_RAW;
    obs_policy_service *services = obs_policy_load_service(agent);
    const std::string to = OBS_IPC_KEY_ROOT "service{" + service + "}/scope{*}/obs";
    const int result = obs_policy_dispatch(agent, &p, to.c_str(), services);
    obs_policy_free_service(services);
    free(text);
    obs_ipc_mem_flush();  // one flush covers the delivery and its answer
    return result;
}

class ApiTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        scope_ = obs_scope_default(ctx_ = obs_ctx_init("svc", sdk_.table(), ipc_.table()));
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
