// An agent and services in one process, talking through the in-process IPC provider: the
// directory, publishing by class and target, deletions, queries and reports.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "observability_api.h"
#include "observability_ipc_mem.h"
#include "support/log_capture.h"

namespace {

// What a service handler saw of one record.
struct Received {
    std::string service;
    int op;
    uint8_t format;
    std::string path;
    std::string reqid;
    std::string scope;  // of the first translated entry
    obs_sampling sampling;
    uint8_t log_level;
};

std::mutex received_lock;
std::vector<Received> received;

void record_policies(obs_policy_ctx *, const char *service, obs_policy *list, void *) {
    std::lock_guard<std::mutex> hold(received_lock);
    for (obs_policy *p = list; p; p = p->next) {
        Received r{service, p->op, p->format, p->path ? p->path : "", p->reqid ? p->reqid : "",
                   "",      0,     0};
        if ((p->format & OBS_POLICY_FORMAT_CODEC_BYTES) && p->codec_val &&
            p->codec_vlen == sizeof(obs_policy_ot)) {
            auto *entry = static_cast<obs_policy_ot *>(p->codec_val);
            r.scope = entry->scope_name ? entry->scope_name : "";
            r.sampling = entry->sampler;
            r.log_level = entry->log_level;
        }
        received.push_back(r);
    }
}

// What the agent's report handler saw: "service|path|answer", and the report's numbers.
struct Report {
    std::string text;
    uint64_t seq_id;
    uint32_t raw_vlen;
};
std::vector<Report> reports;

void record_report(obs_policy_ctx *, const char *service, obs_policy *report) {
    std::lock_guard<std::mutex> hold(received_lock);
    std::string text = std::string(service) + "|";
    if (report && report->path) text += report->path;
    text += "|";
    if (report && report->raw_val) text += static_cast<const char *>(report->raw_val);
    reports.push_back({text, report ? report->seq_id : 0, report ? report->raw_vlen : 0});
}

std::string sampling_text(int log_level) {
    obs_policy_ot entry = {};
    entry.scope_name = const_cast<char *>("default");
    entry.sampler = OBS_SAMPLING_ON;
    entry.log_level = static_cast<uint8_t>(log_level);
    char *text = nullptr;
    uint32_t len = 0;
    sdk_policy_ot_internal_encode(&entry, &text, &len, 0);
    std::string copy = text ? text : "";
    free(text);
    return copy;
}

void settle() {
    // A delivery may queue another (a query's report): wait out both rounds.
    obs_ipc_mem_flush();
    obs_ipc_mem_flush();
}

class ChannelEndToEndTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        received.clear();
        reports.clear();
        obs_ipc_provider *mem = obs_ipc_mem_provider();
        svc1_ = obs_policy_ctx_init(nullptr, "svc1", record_policies, mem,
                                    obs_get_ot_sdk_policy_provider());
        svc2_ = obs_policy_ctx_init(nullptr, "svc2", record_policies, mem,
                                    obs_get_ot_sdk_policy_provider());
        watcher_ = obs_policy_ctx_init(nullptr, "watcher", record_policies, mem,
                                       obs_get_ot_monitor_sdk_policy_provider());
        agent_ =
            obs_policy_ctx_init(nullptr, "agent", nullptr, mem, obs_get_ot_sdk_policy_provider());
        default_provider_ = obs_create_default_sdk_policy_provider("opa");
        default_agent_ = obs_policy_ctx_init(nullptr, "agent", nullptr, mem, default_provider_);
        monitor_agent_ = obs_policy_ctx_init(nullptr, "agent", nullptr, mem,
                                             obs_get_ot_monitor_sdk_policy_provider());
        ASSERT_TRUE(svc1_ && svc2_ && watcher_ && agent_ && default_agent_ && monitor_agent_);
        obs_policy_register_scope(svc1_, "svc1", "net");
        settle();
        received.clear();  // the stored "default" policies of earlier tests
        directory_ = obs_policy_load_service(agent_);
    }
    void TearDown() override {
        obs_policy_free_service(directory_);
        for (obs_policy_ctx *ctx : {svc1_, svc2_, watcher_, agent_, default_agent_, monitor_agent_})
            obs_policy_ctx_free(ctx);
        free(const_cast<char *>(default_provider_->name));
        free(default_provider_);
        obs_get_ot_sdk_policy_provider()->service_report_handler = nullptr;
        LogCaptureTest::TearDown();
    }

    // A sampling policy record for the SDK "obs" (the texts point at test-owned strings).
    obs_policy policy(int op, const std::string &codec) {
        obs_policy p = {};
        p.op = static_cast<uint8_t>(op);
        p.type = 1;
        p.name = const_cast<char *>("obs");
        p.reqid = const_cast<char *>("req-1");
        if (!codec.empty()) {
            codec_ = codec;
            p.format = OBS_POLICY_FORMAT_CODEC_TEXT;
            p.codec_val = const_cast<char *>(codec_.c_str());
            p.codec_vlen = static_cast<uint32_t>(codec_.size() + 1);
        }
        return p;
    }

    std::vector<std::string> receivers() {
        std::vector<std::string> names;
        for (const Received &r : received) names.push_back(r.service);
        return names;
    }

    const obs_policy_service *entry(const char *name) {
        for (const obs_policy_service *s = directory_; s; s = s->next)
            if (std::string(s->name) == name) return s;
        return nullptr;
    }

    obs_policy_ctx *svc1_, *svc2_, *watcher_, *agent_, *default_agent_, *monitor_agent_;
    obs_sdk_policy_provider *default_provider_ = nullptr;
    obs_policy_service *directory_ = nullptr;
    std::string codec_;
};

TEST_F(ChannelEndToEndTest, DirectoryListsServicesWithTheirScopesAndSdks) {
    const obs_policy_service *svc1 = entry("svc1");
    ASSERT_NE(svc1, nullptr);
    ASSERT_EQ(svc1->scope_count, 2u);
    EXPECT_STREQ(svc1->scopes[0], "default");
    EXPECT_STREQ(svc1->scopes[1], "net");
    ASSERT_EQ(svc1->sdk_count, 1u);
    EXPECT_STREQ(svc1->sdks[0], "obs");
    const obs_policy_service *watcher = entry("watcher");
    ASSERT_NE(watcher, nullptr);
    ASSERT_EQ(watcher->sdk_count, 1u);
    EXPECT_STREQ(watcher->sdks[0], "obs-monitor");
    ASSERT_NE(entry("agent"), nullptr);
    EXPECT_EQ(entry("agent")->sdk_count, 0u);  // no handler: no policy SDK registered
}

TEST_F(ChannelEndToEndTest, PublishedPolicyReachesEveryServiceTranslated) {
    obs_policy p = policy(1, sampling_text(3));
    ASSERT_EQ(obs_policy_dispatch(agent_, &p, nullptr, directory_), 0);
    settle();
    ASSERT_EQ(receivers(), (std::vector<std::string>{"svc1", "svc2"}));
    for (const Received &r : received) {
        EXPECT_EQ(r.op, 1);
        EXPECT_EQ(r.format, OBS_POLICY_FORMAT_CODEC_BYTES);
        EXPECT_EQ(r.path, "/kuv/opa/service{" + r.service + "}/scope{default}/obs");
        EXPECT_EQ(r.scope, "default");
        EXPECT_EQ(r.sampling, static_cast<obs_sampling>(OBS_SAMPLING_ON));
        EXPECT_EQ(r.log_level, 3);
    }
    EXPECT_EQ(p.dispatch_flags & OBS_POLICY_PROVIDER_SDK, OBS_POLICY_PROVIDER_SDK);
}

TEST_F(ChannelEndToEndTest, TargetsAndClassesChooseTheReceivers) {
    const std::string to_svc2 = OBS_IPC_KEY_ROOT "service{svc2}/scope{*}/obs";
    const std::string to_all = OBS_IPC_KEY_ROOT "service{*}/scope{*}/obs";
    struct Row {
        obs_policy_ctx *agent;
        const char *target;
        std::vector<std::string> expected;
    } rows[] = {
        {agent_, to_svc2.c_str(), {"svc2"}},
        {agent_, to_all.c_str(), {"svc1", "svc2"}},
        {default_agent_, nullptr, {"svc1", "svc2"}},
        // A monitor publishes under its own SDK name: only the context that registered it.
        {monitor_agent_, nullptr, {"watcher"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.target ? row.target : "no target");
        received.clear();
        obs_policy p = policy(1, sampling_text(2));
        EXPECT_EQ(obs_policy_dispatch(row.agent, &p, row.target, directory_), 0);
        settle();
        EXPECT_EQ(receivers(), row.expected);
    }
}

TEST_F(ChannelEndToEndTest, RecordClaimedByTheSdkIsLeftByTheDefaultProvider) {
    obs_policy p = policy(1, sampling_text(2));
    obs_policy_dispatch(agent_, &p, nullptr, directory_);
    settle();
    received.clear();
    obs_policy_dispatch(default_agent_, &p, nullptr, directory_);
    settle();
    EXPECT_TRUE(received.empty());
}

TEST_F(ChannelEndToEndTest, TargetOfAnotherSdkIsRefused) {
    obs_policy p = policy(1, sampling_text(2));
    EXPECT_EQ(
        obs_policy_publish(agent_, &p, OBS_IPC_KEY_ROOT "service{svc1}/scope{*}/other", directory_),
        -3);
    settle();
    EXPECT_TRUE(received.empty());
}

TEST_F(ChannelEndToEndTest, DeletedKeyReachesTheServiceAsADeletionRecord) {
    obs_policy p = policy(1, sampling_text(2));
    obs_policy_dispatch(agent_, &p, OBS_IPC_KEY_ROOT "service{svc1}/scope{*}/obs", directory_);
    settle();
    received.clear();
    ASSERT_EQ(
        obs_ipc_mem_delete(agent_->ipc_ctx, OBS_IPC_KEY_ROOT "service{svc1}/scope{default}/obs"),
        0);
    settle();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].service, "svc1");
    EXPECT_EQ(received[0].op, 2);
    EXPECT_EQ(received[0].reqid, "test-manualy-delete");
    EXPECT_EQ(received[0].path, OBS_IPC_KEY_ROOT "service{svc1}/scope{default}/obs");
}

TEST_F(ChannelEndToEndTest, QueriesAreAnsweredWithReportsInSequence) {
    obs_policy_set_service_report(agent_, nullptr, record_report);
    obs_policy stored = policy(1, "");
    stored.format = OBS_POLICY_FORMAT_RAW;
    stored.raw_val = const_cast<char *>("stored answer");
    stored.raw_vlen = 14;
    const char *to_svc1 = OBS_IPC_KEY_ROOT "service{svc1}/scope{*}/obs";
    obs_policy_dispatch(agent_, &stored, to_svc1, directory_);
    settle();

    obs_policy ask_stored = policy(4, "");
    obs_policy ask_debug = policy(4, "");
    ask_debug.raw_val = const_cast<char *>("debug");
    ask_debug.raw_vlen = 6;
    obs_policy ask_nothing = policy(4, "");
    obs_policy_dispatch(agent_, &ask_stored, to_svc1, directory_);
    settle();
    obs_policy_dispatch(agent_, &ask_debug, to_svc1, directory_);
    settle();
    obs_policy_dispatch(agent_, &ask_nothing, OBS_IPC_KEY_ROOT "service{svc2}/scope{*}/obs",
                        directory_);
    settle();

    // A service's own report that names no service in particular.
    obs_policy unnamed = policy(4, "");
    unnamed.path = const_cast<char *>("/kuv/opa/service{*}/scope{net}/obs");
    obs_policy_send_report(svc2_, &unnamed);
    settle();

    ASSERT_EQ(reports.size(), 4u);
    const std::string svc1_path = "|/kuv/opa/service{svc1}/scope{default}/obs|";
    EXPECT_EQ(reports[0].text, "svc1" + svc1_path + "stored answer");
    EXPECT_EQ(reports[1].text.rfind("svc1" + svc1_path, 0), 0u);
    EXPECT_NE(reports[1].text.find(OBS_IPC_KEY_ROOT "service{svc1}/scope{default}/obs"),
              std::string::npos)
        << "the debug answer lists the stored keys: " << reports[1].text;
    EXPECT_EQ(reports[2].text, "svc2|/kuv/opa/service{svc2}/scope{default}/obs|there is no policy");
    EXPECT_EQ(reports[2].raw_vlen, 19u);
    EXPECT_EQ(reports[3].text, "svc2|/kuv/opa/service{svc2}/scope{net}/obs|");
    // The first reports of the process.
    for (uint64_t i = 0; i < reports.size(); ++i) EXPECT_EQ(reports[i].seq_id, i + 1);
}

}  // namespace
