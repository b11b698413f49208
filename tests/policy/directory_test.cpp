#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "support/scripted_ipc.h"

namespace {

using namespace obs_test;

using DirectoryTest = ScriptedContextTest;

// What obs_policy_print_service writes for list.
std::string printed(const obs_policy_service *list) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    obs_policy_print_service(stream, list);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

// Every service's two indexes answer alike here. The directory keeps what can be trusted of a
// listing a host may get wrong (null members, a count without an array), and owns all of it.
// Printing skips missing names.
TEST_F(DirectoryTest, ServicesComeBackInIndexOrderWithWhatTheirIndexesHold) {
    const struct {
        ScriptedIpc::Listing services, inner;
        const char *log, *directory;
    } cases[] = {
        {{{"A", nullptr, "B"}},
         {{nullptr, "x"}},
         "count: 3|detect service: A|\tpolicy: x|\tscope: x|"
         "detect service: B|\tpolicy: x|\tscope: x|",
         "service: A\n  scope : x\n  sdk : x\nservice: B\n  scope : x\n  sdk : x\n"},
        {{}, {}, "count: 0|", ""},
        {{{}, -5}, {}, "fail: -5|", ""},
        {{{}, 0, 3}, {}, "count: 3|", ""},
        {{{"A"}}, {{}, -1}, "count: 1|detect service: A|", "service: A\n"},
        {{{"A"}}, {{}, 0, 2}, "count: 1|detect service: A|", "service: A\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        scripted_.indexes[root + "service_keys"] = c.services;
        scripted_.others = c.inner;
        obs_policy_service *directory = obs_policy_load_service(ctx_);
        EXPECT_EQ(c.directory, printed(directory));
        EXPECT_EQ(std::string("obs_policy_load_service:N detect registered services ") + c.log,
                  logged());
        obs_policy_free_service(directory);
    }
    char scope[] = "default", *scopes[] = {nullptr, scope};
    obs_policy_service entry = {nullptr, scopes, 2, nullptr, 1, nullptr};
    EXPECT_EQ("  scope : default\n", printed(&entry));
    obs_policy_print_service(nullptr, &entry);
    EXPECT_EQ(nullptr, obs_policy_load_service(nullptr));
    obs_policy_free_service(nullptr);
}

TEST_F(DirectoryTest, ReportsAreNumberedInTurnAndGoBySendElseBySet) {
    char path[] = "/kuv/opa/service{svc}/scope{default}/obs";
    obs_policy report = {};
    report.path = path;
    scripted_.result = 7;
    EXPECT_TRUE(obs_policy_send_report(nullptr, &report) == -1 &&
                obs_policy_send_report(ctx_, nullptr) == -1 &&
                obs_policy_send_report(ctx_, &report) == 7);
    EXPECT_EQ(root + "service{svc}/report", scripted_.sends.at(0).key);
    EXPECT_EQ("obs_policy_send_report:N path=" + std::string(path) +
                  " vlen=" + std::to_string(scripted_.sends[0].value.size()) +
                  " seq=" + std::to_string(report.seq_id) + ", ret=7|",
              logged("obs_policy_send_report"));
    const uint64_t first = report.seq_id;
    scripted_.table()->send = nullptr;
    EXPECT_EQ(7, obs_policy_send_report(ctx_, &report));
    EXPECT_EQ("", scripted_.sets.at(0).index_key + scripted_.sets.at(0).member);
    scripted_.table()->set = nullptr;
    EXPECT_EQ(-1, obs_policy_send_report(ctx_, &report));
    EXPECT_EQ(first + 1, report.seq_id);
}

// Each reporter keeps the numbers it was given; together they are one run without repeats.
TEST_F(DirectoryTest, ConcurrentReportersNeverShareANumber) {
    scripted_.table()->send = nullptr;
    scripted_.table()->set = [](void *, const char *, const void *, uint32_t, const char *,
                                const void *, uint32_t) { return 0; };
    std::vector<uint64_t> numbers[2];
    auto report_many = [this](std::vector<uint64_t> *taken) {
        for (obs_policy report = {}; taken->size() < 500; taken->push_back(report.seq_id))
            obs_policy_send_report(ctx_, &report);
    };
    std::thread first(report_many, &numbers[0]), second(report_many, &numbers[1]);
    first.join();
    second.join();
    std::set<uint64_t> all(numbers[0].begin(), numbers[0].end());
    all.insert(numbers[1].begin(), numbers[1].end());
    ASSERT_EQ(1000u, all.size());
    EXPECT_EQ(*all.begin() + 999, *all.rbegin());
}

// What the provider's report handler was given: "service|path|", "service|null|" without a record.
std::string seen;

void record_report(obs_policy_ctx *, const char *service, obs_policy *report) {
    seen += std::string(service) + "|" + (report && report->path ? report->path : "null") + "|";
}

// The handler subscribes to the named service or every service and gets each report, renamed
// only when it names no service; cut or with a negative length, none.
TEST_F(DirectoryTest, ReportHandlerSubscribesAndGetsReportsRenamedOnlyWhenNamingNoService) {
    obs_policy_set_service_report(ctx_, "svcA", nullptr);
    scripted_.result = 3;
    obs_policy_set_service_report(ctx_, "svcA", record_report);
    obs_policy_set_service_report(ctx_, nullptr, record_report);
    const std::string key = root + "service{svcA}/report",
                      subscribed = "obs_policy_set_service_report:N subscribe service report=";
    EXPECT_EQ(subscribed + key + " ret=3|" + subscribed + root + "service{*}/report ret=3|",
              logged());
    scripted_.table()->subscribe = nullptr;
    obs_policy_set_service_report(ctx_, "svcA", record_report);  // installed, not subscribed
    std::string expected, log, data;
    for (const std::string service : {"", "*", "svcB"}) {
        data = encoded(4, "r", nullptr, ("/p/service{" + service + "}/scope{s}/o").c_str());
        // Only len bytes (one for a negative len) on the heap, so reading past them is caught.
        for (int len : {int(data.size()), int(data.size()) - 3, -1}) {
            std::vector<char> bytes(data.begin(), data.begin() + std::max(len, 1));
            sdk_policy_service_report_handler(ctx_, 1, key.c_str(), "", bytes.data(), len);
            log += "sdk_policy_service_report_handler:N path=" + key +
                   " len=" + std::to_string(len) + "|";
        }
        expected += "svcA|/p/service{" + (service == "svcB" ? service : "svcA") +
                    "}/scope{s}/o|svcA|null|svcA|null|";
    }
    EXPECT_EQ(expected, seen);
    EXPECT_EQ(log, logged("sdk_policy_service_report_handler"));
    sdk_policy_service_report_handler(ctx_, 2, key.c_str(), "", data.data(), int(data.size()));
    EXPECT_EQ("", logged());
    sdk_policy_service_report_handler(ctx_, 1, "/x/report", "", data.data(), int(data.size()));
    sdk_policy_service_report_handler(nullptr, 1, key.c_str(), "", nullptr, 0);
    EXPECT_EQ(expected, seen);
}

}  // namespace
