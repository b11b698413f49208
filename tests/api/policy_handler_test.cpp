// The policy handler: its log lines, the request scope "opa" and its span, apply and reset, and
// "debug" queries answered with the dump.
#include <cstring>

#include "api/api_test.h"

namespace api_test {

class PolicyHandlerTest : public ApiTest {
  protected:
    // Hands the handler a request as intake would (translated entries stay the test's); returns
    // the request as the handler left it.
    obs_policy handle(int op, obs_policy_ot *entries, const char *raw = nullptr) {
        obs_policy p = {};
        p.op = static_cast<uint8_t>(op);
        p.name = const_cast<char *>("obs");
        p.reqid = const_cast<char *>("r-1");
        p.traceid = const_cast<char *>("tp-1");
        p.codec_val = entries;
        p.codec_vlen = entries ? sizeof(obs_policy_ot) : 0;
        p.dispatch_flags = entries ? OBS_POLICY_FLAG_TRANSLATED : 0;
        p.raw_val = raw ? strdup(raw) : nullptr;
        p.raw_vlen = raw ? static_cast<uint32_t>(strlen(raw) + 1) : 0;
        obs_test::clear_captured_lines();
        sdk_.clear();
        obs_policy_handler(ctx_->policy_ctx, "svc", &p, ctx_);
        return p;
    }
};

TEST_F(PolicyHandlerTest, AnApplyTurnsEveryScopeOffAndAResetRestoresThem) {
    obs_policy_ot all_off = entry("*", OBS_SAMPLING_ALL_OFF, 0);
    handle(1, &all_off);
    const std::string handler = ">>>>>>>>>>>>ot policy handler, service=svc policy=obs type=0 op=";
    const std::string applied = "---ot policy applied-->service=svc scope=";
    EXPECT_EQ(
        obs_test::captured_lines(),
        (Lines{handler + "1 format=0x00", applied + "default sampling=[all:off] log_level=0 op=1",
               applied + "opa sampling=[all:off] log_level=0 op=1"}));
    EXPECT_EQ(sdk_.calls(), Lines{"scope_create opa 1.1.0 2"});  // traces off: no request span
    handle(2, nullptr);
    EXPECT_EQ(ctx_->policy, nullptr);
    const std::string reset = "---ot policy reset-->service=svc scope=";
    EXPECT_EQ(
        obs_test::captured_lines(),
        (Lines{handler + "2 format=0x00", reset + "default sampling=[all:on] log_level=2 op=2",
               reset + "opa sampling=[all:on] log_level=2 op=2"}));
    EXPECT_EQ(sdk_.calls(), (Lines{"span_start_from_context tp-1 scope:opa opa.request",
                                   "span_attrs_set span:opa.request {kvlist 88 2 [{str 16 "
                                   "\"opa.request.id\" 13 {str 5 \"r-1\"}},{str 20 "
                                   "\"opa.request.action\" 9 {int 1 2}}]}",
                                   "span_end span:opa.request -1 -"}));
}

TEST_F(PolicyHandlerTest, OnlyQueriesBeginningWithDebugAreAnsweredWithTheDump) {
    sdk_.fail_span = true;  // a request span would change the counters after the dump
    const int ops[] = {4, 4, 4, 4, 7};
    const char *raws[] = {"debug", "debug more", "debu", "Debug", "debug"};
    for (int i = 0; i < 5; ++i) {
        ipc_.sends.clear();
        obs_policy query = handle(ops[i], nullptr, raws[i]);
        const std::string raw = static_cast<char *>(query.raw_val);
        EXPECT_EQ(raw, i < 2 ? dump_text() : raws[i]) << i;
        EXPECT_EQ(query.raw_vlen, raw.size() + (i < 2 ? 0 : 1)) << i;
        EXPECT_EQ(ipc_.sends.size(), i < 2 ? 1u : 0u) << i;
        free(query.raw_val);
    }
}

TEST_F(PolicyHandlerTest, AMissingPolicyContextIsTakenFromTheCallBeforeOpaIsRegistered) {
    obs_policy_ctx *policy_ctx = ctx_->policy_ctx;
    ctx_->policy_ctx = nullptr;  // as while obs_ctx_init is still making it
    obs_policy p = {};
    obs_policy_handler(policy_ctx, "svc", &p, ctx_);
    EXPECT_EQ(ctx_->policy_ctx, policy_ctx);
    EXPECT_EQ(ipc_.sets.back().member, "opa");
}

}  // namespace api_test
