// An agent and a service in one process, talking through the in-process IPC provider:
// publishing, deletions, queries and reports.
#include <gtest/gtest.h>

#include <mutex>

#include "observability_ipc_mem.h"
#include "support/log_capture.h"
#include "support/scripted_ipc.h"

namespace {

using obs_test::text_of;

std::mutex seen_lock;
// "service op reqid path" of each record a service handler got; "service|path|answer|seq_id|
// raw_vlen" of each report the agent got.
std::vector<std::string> received, reports;
uint64_t reports_in_process = 0;

void record_policies(obs_policy_ctx *, const char *service, obs_policy *list, void *) {
    std::lock_guard<std::mutex> hold(seen_lock);
    for (obs_policy *p = list; p; p = p->next)
        received.push_back(std::string(service) + " " + std::to_string(p->op) + " " +
                           text_of(p->reqid) + " " + text_of(p->path));
}

void record_report(obs_policy_ctx *, const char *service, obs_policy *report) {
    std::lock_guard<std::mutex> hold(seen_lock);
    ++reports_in_process;
    if (report)
        reports.push_back(std::string(service) + "|" + text_of(report->path) + "|" +
                          text_of(report->raw_val) + "|" + std::to_string(report->seq_id) + "|" +
                          std::to_string(report->raw_vlen));
}

using ChannelEndToEndTest = obs_test::LogCaptureTest;

TEST_F(ChannelEndToEndTest, QueriesAreAnsweredWithNumberedReportsAndDeletionsReachServices) {
    obs_ipc_provider *mem = obs_ipc_mem_provider();
    obs_sdk_policy_provider *obs = obs_get_ot_sdk_policy_provider();
    obs_policy_ctx *service = obs_policy_ctx_init(nullptr, "svc1", record_policies, mem, obs);
    obs_policy_ctx *agent = obs_policy_ctx_init(nullptr, "agent", nullptr, mem, obs);
    ASSERT_TRUE(service && agent);
    obs_policy_set_service_report(agent, nullptr, record_report);
    obs_ipc_mem_flush();  // also waits for the reports the deliveries queue
    obs_policy_service *directory = obs_policy_load_service(agent);
    received.clear();
    reports.clear();
    // Every report of the process reaches the agent; the next one carries first.
    const uint64_t first = reports_in_process + 1;
    obs_policy stored = {}, query = {};
    stored.op = OBS_POLICY_OP_APPLY;
    query.op = OBS_POLICY_OP_QUERY;
    stored.name = query.name = const_cast<char *>("obs");
    stored.reqid = query.reqid = const_cast<char *>("req-1");
    stored.raw_val = const_cast<char *>("stored answer");
    stored.raw_vlen = 14;
    obs_policy_dispatch(agent, &stored, nullptr, directory);
    obs_policy_dispatch(agent, &query, nullptr, directory);
    obs_ipc_mem_flush();
    const std::string key = OBS_IPC_KEY_ROOT "service{svc1}/scope{default}/obs";
    ASSERT_EQ(obs_ipc_mem_delete(agent->ipc_ctx, key.c_str()), 0);
    obs_ipc_mem_flush();
    const std::string path = "/kuv/opa/service{svc1}/scope{default}/obs";
    EXPECT_EQ(reports, std::vector<std::string>{"svc1|" + path + "|stored answer|" +
                                                std::to_string(first) + "|14"});
    EXPECT_EQ(received, (std::vector<std::string>{"svc1 1 req-1 " + path, "svc1 4 req-1 " + path,
                                                  "svc1 2 test-manualy-delete " + key}));
    obs_policy_free_service(directory);
    obs_policy_ctx_free(service);
    obs_policy_ctx_free(agent);
    obs->service_report_handler = nullptr;
}

}  // namespace
