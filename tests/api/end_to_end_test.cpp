// A service and its agent in one process over the in-process IPC: published policies steer the
// service's telemetry until replaced or reset, stored policies reach contexts and scopes made
// later, and a "debug" query comes back to the agent as a report.
#include <cstring>

#include "api/api_test.h"
#include "observability_ipc_mem.h"

namespace api_test {

static Lines reports;  // the answer of each report the agent got, on the delivery thread

static void record_report(obs_policy_ctx *, const char *, obs_policy *report) {
    reports.emplace_back(static_cast<char *>(report->raw_val), report->raw_vlen);
}

class EndToEndTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        agent_ =
            obs_policy_ctx_init(nullptr, "agent", nullptr, ipc_, obs_get_ot_sdk_policy_provider());
    }
    void TearDown() override {
        obs_ctx_destroy(svc_);
        obs_policy_ctx_free(agent_);
        obs_get_ot_sdk_policy_provider()->service_report_handler = nullptr;
        LogCaptureTest::TearDown();
    }
    // Publishes an "obs" record of op, with the policy text of entries or with raw, to the
    // service's "default" key and waits until it is handled and answered (one flush covers both).
    void publish(int op, const obs_policy_ot *entries, const char *raw = nullptr) {
        obs_policy p = {};
        p.op = static_cast<uint8_t>(op);
        p.name = const_cast<char *>("obs");
        p.raw_val = const_cast<char *>(raw);
        p.raw_vlen = raw ? static_cast<uint32_t>(strlen(raw) + 1) : 0;
        char *text = nullptr;
        if (entries) sdk_policy_ot_internal_encode(entries, &text, &p.codec_vlen, 1);
        p.codec_val = text;
        p.format = text ? OBS_POLICY_FORMAT_CODEC_TEXT : OBS_POLICY_FORMAT_RAW;
        obs_policy_service *services = obs_policy_load_service(agent_);
        const std::string to =
            OBS_IPC_KEY_ROOT "service{" + std::string(svc_->name) + "}/scope{*}/obs";
        EXPECT_EQ(obs_policy_dispatch(agent_, &p, to.c_str(), services), 0);
        obs_policy_free_service(services);
        free(text);
        obs_ipc_mem_flush();
    }

    obs_test::RecordingProvider sdk_;
    obs_ipc_provider *ipc_ = obs_ipc_mem_provider();
    obs_policy_ctx *agent_ = nullptr;
    obs_ctx *svc_ = nullptr;
};

TEST_F(EndToEndTest, PoliciesSteerTelemetryUntilReplacedOrResetAndQueriesAreAnswered) {
    svc_ = obs_ctx_init("e2e", sdk_.table(), ipc_);
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
    publish(1, &first);
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
    obs_policy_set_service_report(agent_, "e2e", record_report);
    sdk_.fail_span = true;  // a request span would change the counters after the dump
    publish(OBS_POLICY_OP_QUERY, nullptr, "debug");
    EXPECT_EQ(reports, Lines{dump_text()});
    publish(OBS_POLICY_OP_REMOVE, nullptr);
    EXPECT_TRUE(obs_scope_enabled(late, OBS_SIGNAL_TRACES));
    EXPECT_EQ(def->log_level, 2);
    obs_int64_updown_counter_destroy(counter);
}

}  // namespace api_test
