// An agent and services in one process, talking through the in-process IPC provider: the
// directory, publishing by class and target, deletions, queries and reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "observability_api.h"
#include "observability_ipc_mem.h"
#include "support/log_capture.h"

namespace {

std::string text_of(const void *text) {
    return text ? static_cast<const char *>(text) : "";
}

std::mutex seen_lock;
// "service op reqid path" of each record a service handler got, then "scope log_level" of a
// translated sampling policy.
std::vector<std::string> received;
// "service|path|answer|seq_id|raw_vlen" of each report the agent got.
std::vector<std::string> reports;
uint64_t reports_in_process = 0;

void record_policies(obs_policy_ctx *, const char *service, obs_policy *list, void *) {
    std::lock_guard<std::mutex> hold(seen_lock);
    for (obs_policy *p = list; p; p = p->next) {
        std::string seen = std::string(service) + " " + std::to_string(p->op) + " " +
                           text_of(p->reqid) + " " + text_of(p->path);
        if ((p->format & OBS_POLICY_FORMAT_CODEC_BYTES) && p->codec_vlen == sizeof(obs_policy_ot)) {
            auto *entry = static_cast<obs_policy_ot *>(p->codec_val);
            seen += " " + text_of(entry->scope_name) + " " + std::to_string(entry->log_level);
        }
        received.push_back(seen);
    }
}

void record_report(obs_policy_ctx *, const char *service, obs_policy *report) {
    std::lock_guard<std::mutex> hold(seen_lock);
    ++reports_in_process;
    if (report)
        reports.push_back(std::string(service) + "|" + text_of(report->path) + "|" +
                          text_of(report->raw_val) + "|" + std::to_string(report->seq_id) + "|" +
                          std::to_string(report->raw_vlen));
}

class ChannelEndToEndTest : public obs_test::LogCaptureTest {
  protected:
    // A delivery may queue another (a query's report): wait out both rounds.
    static void settle() { obs_ipc_mem_flush(), obs_ipc_mem_flush(); }

    void SetUp() override {
        LogCaptureTest::SetUp();
        obs_ipc_provider *mem = obs_ipc_mem_provider();
        obs_sdk_policy_provider *obs = obs_get_ot_sdk_policy_provider();
        svc1_ = obs_policy_ctx_init(nullptr, "svc1", record_policies, mem, obs);
        svc2_ = obs_policy_ctx_init(nullptr, "svc2", record_policies, mem, obs);
        // With a handler the monitor registers its SDK, so it receives what it publishes.
        monitor_ = obs_policy_ctx_init(nullptr, "agent", record_policies, mem,
                                       obs_get_ot_monitor_sdk_policy_provider());
        sdk_agent_ = obs_policy_ctx_init(nullptr, "agent", nullptr, mem, obs);
        default_provider_ = obs_create_default_sdk_policy_provider("opa");
        default_agent_ = obs_policy_ctx_init(nullptr, "agent", nullptr, mem, default_provider_);
        ASSERT_TRUE(svc1_ && svc2_ && monitor_ && sdk_agent_ && default_agent_);
        obs_policy_register_scope(svc1_, "svc1", "net");
        settle();
        received.clear();  // the stored "default" policies of earlier tests
        reports.clear();
        directory_ = obs_policy_load_service(monitor_);
    }
    void TearDown() override {
        obs_policy_free_service(directory_);
        for (obs_policy_ctx *ctx : {svc1_, svc2_, monitor_, sdk_agent_, default_agent_})
            obs_policy_ctx_free(ctx);
        free(const_cast<char *>(default_provider_->name));
        free(default_provider_);
        obs_get_ot_monitor_sdk_policy_provider()->service_report_handler = nullptr;
        LogCaptureTest::TearDown();
    }

    // A record for the SDK "obs", with a sampling policy at log_level when one is given.
    obs_policy policy(int op, int log_level = -1) {
        obs_policy p = {};
        p.op = static_cast<uint8_t>(op);
        p.name = const_cast<char *>("obs");
        p.reqid = const_cast<char *>("req-1");
        if (log_level < 0) return p;
        obs_policy_ot entry = {};
        entry.scope_name = const_cast<char *>("default");
        entry.log_level = static_cast<uint8_t>(log_level);
        char *text = nullptr;
        sdk_policy_ot_internal_encode(&entry, &text, &p.codec_vlen, 0);
        codec_.reset(text);
        p.format = OBS_POLICY_FORMAT_CODEC_TEXT;
        p.codec_val = text;
        return p;
    }

    std::string receivers() {
        std::string names;
        for (const std::string &seen : received)
            names += (names.empty() ? "" : " ") + seen.substr(0, seen.find(' '));
        return names;
    }

    obs_policy_ctx *svc1_, *svc2_, *monitor_, *sdk_agent_, *default_agent_;
    obs_sdk_policy_provider *default_provider_ = nullptr;
    obs_policy_service *directory_ = nullptr;
    std::unique_ptr<char, void (*)(void *)> codec_{nullptr, free};
};

TEST_F(ChannelEndToEndTest, DirectoryListsEachServiceOnceWithItsScopesAndSdks) {
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    obs_policy_print_service(out, directory_);
    fclose(out);
    EXPECT_STREQ(text,
                 "service: svc1\n  scope : default\n  scope : net\n  sdk : obs\n"
                 "service: svc2\n  scope : default\n  sdk : obs\n"
                 "service: agent\n  scope : default\n  sdk : obs-monitor\n");
    free(text);
}

TEST_F(ChannelEndToEndTest, ClassesAndTargetsChooseTheReceiversOfATranslatedPolicy) {
    struct Row {
        obs_policy_ctx *from;
        const char *target;
        const char *receivers;
    } rows[] = {
        {default_agent_, nullptr, "svc1 svc2"},
        {sdk_agent_, nullptr, "svc1 svc2"},  // and claims the record
        {default_agent_, nullptr, ""},       // a default provider leaves a claimed record alone
        {sdk_agent_, OBS_IPC_KEY_ROOT "service{*}/scope{*}/obs", "svc1 svc2"},
        {sdk_agent_, OBS_IPC_KEY_ROOT "service{svc1}/scope{net}/obs", "svc1"},
        {sdk_agent_, OBS_IPC_KEY_ROOT "service{svc1}/scope{*}/other", ""},
        {monitor_, nullptr, "agent"},  // under its own SDK name
        {sdk_agent_, OBS_IPC_KEY_ROOT "service{svc2}/scope{*}/obs", "svc2"},
    };
    obs_policy p = policy(1, 2);
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        received.clear();
        EXPECT_EQ(obs_policy_dispatch(row.from, &p, row.target, directory_), 0);
        settle();
        EXPECT_EQ(receivers(), row.receivers);
    }
    EXPECT_EQ(obs_policy_publish(sdk_agent_, &p, rows[5].target, directory_), -3);
    const std::string key = OBS_IPC_KEY_ROOT "service{svc2}/scope{default}/obs";
    ASSERT_EQ(obs_ipc_mem_delete(sdk_agent_->ipc_ctx, key.c_str()), 0);
    settle();
    EXPECT_EQ(received, (std::vector<std::string>{
                            "svc2 1 req-1 /kuv/opa/service{svc2}/scope{default}/obs default 2",
                            "svc2 2 test-manualy-delete " + key}));
}

TEST_F(ChannelEndToEndTest, QueriesAreAnsweredWithReportsInSequence) {
    obs_policy_set_service_report(monitor_, nullptr, record_report);
    // Every report of the process reaches this handler; the next one carries first.
    const uint64_t first = reports_in_process + 1;
    // A service's own report that names no service in particular.
    obs_policy unnamed = policy(4);
    unnamed.path = const_cast<char *>("/kuv/opa/service{*}/scope{net}/obs");
    obs_policy_send_report(svc2_, &unnamed);
    const char *to_svc1 = OBS_IPC_KEY_ROOT "service{svc1}/scope{*}/obs";
    obs_policy stored = policy(1);
    stored.format = OBS_POLICY_FORMAT_RAW;
    stored.raw_val = const_cast<char *>("stored answer");
    stored.raw_vlen = 14;
    obs_policy ask_debug = policy(4), ask_stored = policy(4);
    ask_debug.raw_val = const_cast<char *>("debug");
    ask_debug.raw_vlen = 6;
    obs_policy_dispatch(sdk_agent_, &stored, to_svc1, directory_);
    obs_policy_dispatch(sdk_agent_, &ask_debug, to_svc1, directory_);
    obs_policy_dispatch(sdk_agent_, &ask_stored, nullptr, directory_);  // every service
    settle();

    char *dump = obs_policy_dump_debuginfor(svc1_);  // the store has not changed since
    const std::string debug = text_of(dump);
    free(dump);
    const std::string svc1_path = "svc1|/kuv/opa/service{svc1}/scope{default}/obs|";
    auto numbers = [&](int nth, size_t raw_vlen) {
        return "|" + std::to_string(first + nth) + "|" + std::to_string(raw_vlen);
    };
    EXPECT_EQ(reports, (std::vector<std::string>{
                           "svc2|/kuv/opa/service{svc2}/scope{net}/obs|" + numbers(0, 0),
                           svc1_path + debug + numbers(1, debug.size() + 1),
                           svc1_path + "stored answer" + numbers(2, 14),
                           "svc2|/kuv/opa/service{svc2}/scope{default}/obs|there is no policy" +
                               numbers(3, 19)}));
}

}  // namespace
