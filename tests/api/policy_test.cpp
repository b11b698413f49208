// The policy handler: its log lines, the request scope "opa" and its span, apply and reset, and
// "debug" queries answered with the dump; then a service and its agent in one process over the
// in-process IPC, where published policies steer the service's telemetry until replaced or reset,
// stored policies reach contexts and scopes made later, and a "debug" query is answered.
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
    const std::string handler = ">>>>>>>>>>>>ot policy handler, service=svc policy=obs type=0 op=";
    const std::string applied = "---ot policy applied-->service=svc scope=";
    const std::string reset = "---ot policy reset-->service=svc scope=";
    handle(1, &all_off);
    EXPECT_EQ(
        obs_test::captured_lines(),
        (Lines{handler + "1 format=0x00", applied + "default sampling=[all:off] log_level=0 op=1",
               applied + "opa sampling=[all:off] log_level=0 op=1"}));
    EXPECT_EQ(sdk_.calls(), Lines{"scope_create opa 1.1.0 2"});  // traces off: no request span
    handle(2, nullptr);
    EXPECT_EQ(ctx_->policy, nullptr);
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

static Lines reports;  // the answer of each report the agent got, on the delivery thread

class EndToEndTest : public obs_test::LogCaptureTest {
  protected:
    void TearDown() override {
        obs_ctx_destroy(svc_);
        obs_policy_ctx_free(agent_);
        obs_get_ot_sdk_policy_provider()->service_report_handler = nullptr;
        LogCaptureTest::TearDown();
    }
    int publish(int op, const obs_policy_ot *entries, const char *raw = nullptr) {
        return api_test::publish(agent_, "e2e", op, entries, raw);
    }

    obs_test::RecordingProvider sdk_;
    obs_ipc_provider *ipc_ = obs_ipc_mem_provider();
    obs_policy_ctx *agent_ =
        obs_policy_ctx_init(nullptr, "agent", nullptr, ipc_, obs_get_ot_sdk_policy_provider());
    obs_ctx *svc_ = obs_ctx_init("e2e", sdk_.table(), ipc_);
};

TEST_F(EndToEndTest, PoliciesSteerTelemetryUntilReplacedOrResetAndQueriesAreAnswered) {
    obs_scope *def = obs_scope_default(svc_);
    obs_scope *net = obs_scope_create(svc_, "net", nullptr, OBS_SAMPLING_ALL_ON, 2);
    obs_updown_counter *counter = obs_int64_updown_counter_create(def, "c", nullptr);
    auto passing = [&] {  // a span in "net", a level-4 log and an addition in "default"
        sdk_.clear();
        obs_span *span = obs_span_start(net, nullptr, "s");
        obs_span_end(span);
        std::string seen = span ? "span " : "";
        seen += obs_scope_log(def, 4, "m") == 0 ? "log " : "";
        obs_int64_updown_counter_add(counter, 1, nullptr);
        return seen + (sdk_.calls("add_int64").empty() ? "" : "add");
    };
    EXPECT_EQ(passing(), "span add");
    const obs_policy_ot_sampler traces_off{nullptr, 1, 2, 0, nullptr};
    const obs_policy_ot_sampler metrics_off{nullptr, 2, 1, 0, nullptr};
    obs_policy_ot first = entry("net", sampler(traces_off), 2);
    obs_policy_ot first_default = entry("default", sampler(metrics_off), 4);
    first.next = &first_default;
    EXPECT_EQ(publish(1, &first), 0);
    EXPECT_EQ(passing(), "log ");
    obs_ctx *later = obs_ctx_init("e2e", sdk_.table(), ipc_);  // takes the stored policy
    EXPECT_EQ(obs_scope_default(later)->log_level, 4);
    EXPECT_FALSE(obs_scope_enabled(obs_scope_default(later), OBS_SIGNAL_METRICS));
    obs_ctx_destroy(later);
    // A second apply resets "net", named only by the first; "late" takes it when created.
    obs_policy_ot second = entry("default", OBS_SAMPLING_ALL_ON, 3), late_off = entry("late", 1, 0);
    second.next = &late_off;
    publish(3, &second);
    EXPECT_EQ(passing(), "span add");
    EXPECT_EQ(def->log_level, 3);
    obs_scope *late = obs_scope_create(svc_, "late", "1", OBS_SAMPLING_ALL_ON, 2);
    EXPECT_FALSE(obs_scope_enabled(late, OBS_SIGNAL_TRACES));
    EXPECT_EQ(late->log_level, 0);
    obs_policy_set_service_report(agent_, "e2e", [](obs_policy_ctx *, const char *, obs_policy *r) {
        reports.emplace_back(static_cast<char *>(r->raw_val), r->raw_vlen);
    });
    sdk_.fail_span = true;  // a request span would change the counters after the dump
    publish(OBS_POLICY_OP_QUERY, nullptr, "debug");
    EXPECT_EQ(reports, Lines{dump_text()});
    publish(OBS_POLICY_OP_REMOVE, nullptr);
    EXPECT_TRUE(obs_scope_enabled(late, OBS_SIGNAL_TRACES));
    EXPECT_EQ(def->log_level, 2);
    obs_int64_updown_counter_destroy(counter);
}

}  // namespace api_test
