#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/scripted_ipc.h"

namespace {

const std::string root = OBS_IPC_KEY_ROOT;

// A policy context over a scripted IPC provider, made by hand.
class ChannelTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ctx_ = static_cast<obs_policy_ctx *>(calloc(1, sizeof(obs_policy_ctx)));
        ctx_->service_name = strdup("svc");
        ctx_->provider = &provider_;
        ctx_->ipc = scripted_.table();
        ctx_->ipc_ctx = &scripted_;
    }
    void TearDown() override {
        free(ctx_->service_name);
        free(ctx_);
        LogCaptureTest::TearDown();
    }

    obs_test::ScriptedIpc scripted_;
    obs_sdk_policy_provider provider_ = {};
    obs_policy_ctx *ctx_ = nullptr;
};

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

// A list answer of malloc'd members, null where the script says so.
int answer(const std::vector<const char *> &names, char ***members, uint32_t *count) {
    *count = static_cast<uint32_t>(names.size());
    *members = static_cast<char **>(malloc(names.size() * sizeof(char *) + 1));
    for (size_t i = 0; i < names.size(); ++i) (*members)[i] = names[i] ? strdup(names[i]) : nullptr;
    return 0;
}

using DirectoryTest = ChannelTest;

TEST_F(DirectoryTest, ServicesComeBackInIndexOrderWithTheirScopesAndSdks) {
    scripted_.indexes[root + "service_keys"] = {"A", "B"};
    scripted_.indexes[root + "service{A}/scope_keys"] = {"default", "net"};
    scripted_.indexes[root + "service{A}/policysdk_keys"] = {"obs"};
    scripted_.indexes[root + "service{B}/scope_keys"] = {"default"};
    scripted_.indexes[root + "service{B}/policysdk_keys"] = {"obs", "obs-monitor"};
    obs_policy_service *directory = obs_policy_load_service(ctx_);
    EXPECT_EQ(
        "service: A\n  scope : default\n  scope : net\n  sdk : obs\n"
        "service: B\n  scope : default\n  sdk : obs\n  sdk : obs-monitor\n",
        printed(directory));
    EXPECT_EQ(
        (std::vector<std::string>{"obs_policy_load_service:N detect registered services count: 2",
                                  "detect service: A", "\tpolicy: obs", "\tscope: default",
                                  "\tscope: net", "detect service: B", "\tpolicy: obs",
                                  "\tpolicy: obs-monitor", "\tscope: default"}),
        unnumbered_lines());
    obs_policy_free_service(directory);
}

// Listings a host may get wrong: the directory keeps what can be trusted and owns all of it.
TEST_F(DirectoryTest, FailedOrMalformedListingsLeaveEmptyListsOrNoDirectory) {
    const std::string services = root + "service_keys";
    const struct {
        const char *what;
        std::function<int(const std::string &, char ***, uint32_t *)> script;
        const char *first_line;
        const char *directory;
    } cases[] = {
        {"empty index", [](const std::string &, char ***, uint32_t *) { return 0; }, "count: 0",
         ""},
        {"failing index", [](const std::string &, char ***, uint32_t *) { return -5; }, "fail: -5",
         ""},
        {"count without array",
         [](const std::string &, char ***members, uint32_t *count) {
             *members = nullptr;
             *count = 3;
             return 0;
         },
         "count: 3", ""},
        {"inner listings fail",
         [&](const std::string &key, char ***members, uint32_t *count) {
             return key == services ? answer({"A"}, members, count) : -1;
         },
         "count: 1", "service: A\n"},
        {"inner listing without array",
         [&](const std::string &key, char ***members, uint32_t *count) {
             if (key == services) return answer({"A"}, members, count);
             *count = 2;
             return 0;
         },
         "count: 1", "service: A\n"},
        {"null members",
         [&](const std::string &key, char ***members, uint32_t *count) {
             return answer(key == services ? std::vector<const char *>{nullptr, "B"}
                                           : std::vector<const char *>{nullptr, "x", nullptr},
                           members, count);
         },
         "count: 2", "service: B\n  scope : x\n  sdk : x\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        obs_test::clear_captured_lines();
        scripted_.list_script = c.script;
        obs_policy_service *directory = obs_policy_load_service(ctx_);
        EXPECT_EQ(c.directory, printed(directory));
        EXPECT_EQ(*c.directory == '\0', directory == nullptr);
        ASSERT_FALSE(lines().empty());
        EXPECT_EQ(
            std::string("obs_policy_load_service:N detect registered services ") + c.first_line,
            unnumbered_lines()[0]);
        obs_policy_free_service(directory);
    }
}

TEST_F(DirectoryTest, PrintWritesOneLinePerNameAndToleratesNulls) {
    char name[] = "svc", scope[] = "default", sdk[] = "obs";
    char *scopes[] = {scope, nullptr}, *sdks[] = {sdk};
    obs_policy_service entry = {name, scopes, 2, sdks, 1, nullptr};
    EXPECT_EQ("service: svc\n  scope : default\n  sdk : obs\n", printed(&entry));
    entry.name = nullptr;
    entry.sdks = nullptr;
    EXPECT_EQ("  scope : default\n", printed(&entry));
    obs_policy_print_service(nullptr, &entry);
    EXPECT_EQ(nullptr, obs_policy_load_service(nullptr));
    obs_policy_free_service(nullptr);
}

// What the provider's report handler was given.
struct seen_report {
    std::string service;
    bool decoded;
    std::string path;
    std::string reqid;
};
std::vector<seen_report> seen;

void record_report(obs_policy_ctx *, const char *service, obs_policy *report) {
    seen.push_back({service, report != nullptr, report && report->path ? report->path : "",
                    report && report->reqid ? report->reqid : ""});
}

// The encoded form of a report with the given path.
std::string encoded_report(const char *path) {
    obs_policy report = {};
    report.op = 4;
    report.path = const_cast<char *>(path);
    report.reqid = const_cast<char *>("r1");
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&report, &text, &len);
    std::string bytes(text, len);
    free(text);
    return bytes;
}

using ReportTest = ChannelTest;

TEST_F(ReportTest, ReportsTakeConsecutiveNumbersAndGoBySendElseBySet) {
    char path[] = "/kuv/opa/service{svc}/scope{default}/obs";
    obs_policy report = {};
    report.path = path;
    scripted_.result = 7;
    uint64_t first = 0;
    for (int i = 0; i < 3; ++i) {
        if (i == 2) scripted_.table()->send = nullptr;
        obs_test::clear_captured_lines();
        EXPECT_EQ(7, obs_policy_send_report(ctx_, &report));
        if (i == 0) first = report.seq_id;
        EXPECT_EQ(first + i, report.seq_id);
        const std::string key = i < 2 ? scripted_.sends.back().key : scripted_.sets.back().key;
        const std::string sent = i < 2 ? scripted_.sends.back().data : scripted_.sets.back().value;
        EXPECT_EQ(root + "service{svc}/report", key);
        obs_policy *decoded = nullptr;
        obs_policy_internal_decode(sent.data(), static_cast<uint32_t>(sent.size()), &decoded);
        ASSERT_NE(nullptr, decoded);
        EXPECT_EQ(report.seq_id, decoded->seq_id);
        obs_policy_free(decoded);
        EXPECT_EQ((std::vector<std::string>{"obs_policy_send_report:N path=" + std::string(path) +
                                            " vlen=" + std::to_string(sent.size()) +
                                            " seq=" + std::to_string(report.seq_id) + ", ret=7"}),
                  unnumbered_lines("obs_policy_send_report"));
    }
    EXPECT_EQ(2u, scripted_.sends.size());
    ASSERT_EQ(1u, scripted_.sets.size());
    EXPECT_EQ("", scripted_.sets[0].index_key);
    EXPECT_EQ("", scripted_.sets[0].member);
}

TEST_F(ReportTest, RefusedReportsTakeNoNumber) {
    obs_policy report = {};
    EXPECT_EQ(-1, obs_policy_send_report(nullptr, &report));
    EXPECT_EQ(-1, obs_policy_send_report(ctx_, nullptr));
    scripted_.table()->set = nullptr;
    EXPECT_EQ(-1, obs_policy_send_report(ctx_, &report));
    EXPECT_EQ(0u, report.seq_id);
    EXPECT_TRUE(scripted_.sends.empty() && lines().empty());
}

// Each reporter keeps the numbers it was given; together they are one run without repeats.
TEST(ReportSequenceTest, ConcurrentReportersNeverShareANumber) {
    obs_ipc_provider silent = {};
    silent.set = [](void *, const char *, const void *, uint32_t, const char *, const void *,
                    uint32_t) { return 0; };
    obs_policy_ctx ctx = {};
    ctx.service_name = const_cast<char *>("svc");
    ctx.ipc = &silent;
    obs_log_callback_set([](int, const char *) { return 0; });
    constexpr int per_thread = 500;
    std::vector<uint64_t> numbers[2];
    auto report_many = [&ctx](std::vector<uint64_t> *taken) {
        obs_policy report = {};
        for (int i = 0; i < per_thread; ++i) {
            obs_policy_send_report(&ctx, &report);
            taken->push_back(report.seq_id);
        }
    };
    std::thread first(report_many, &numbers[0]), second(report_many, &numbers[1]);
    first.join();
    second.join();
    obs_log_callback_set(nullptr);
    std::set<uint64_t> all(numbers[0].begin(), numbers[0].end());
    all.insert(numbers[1].begin(), numbers[1].end());
    ASSERT_EQ(2u * per_thread, all.size());
    EXPECT_EQ(*all.begin() + 2 * per_thread - 1, *all.rbegin());
}

TEST_F(ReportTest, SubscribesToTheNamedServiceOrEveryService) {
    const struct {
        const char *service;
        obs_policy_service_report_fn fn;
        std::vector<std::string> subscribed;
        std::vector<std::string> lines;
    } cases[] = {
        {"svcA",
         record_report,
         {root + "service{svcA}/report"},
         {"obs_policy_set_service_report:N subscribe service report=" + root +
          "service{svcA}/report ret=3"}},
        {nullptr,
         record_report,
         {root + "service{*}/report"},
         {"obs_policy_set_service_report:N subscribe service report=" + root +
          "service{*}/report ret=3"}},
        {"a{b", record_report, {}, {"invalid name, '{', '}' not allowed"}},
        {"svcA", nullptr, {}, {}},
    };
    scripted_.result = 3;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.service ? c.service : "null");
        obs_test::clear_captured_lines();
        scripted_.subscriptions.clear();
        provider_.service_report_handler = reinterpret_cast<obs_policy_service_report_fn>(1);
        obs_policy_set_service_report(ctx_, c.service, c.fn);
        EXPECT_EQ(c.fn, provider_.service_report_handler);
        std::vector<std::string> subscribed;
        for (const auto &s : scripted_.subscriptions) {
            subscribed.push_back(s.path);
            EXPECT_EQ(&sdk_policy_service_report_handler, s.handler);
        }
        EXPECT_EQ(c.subscribed, subscribed);
        EXPECT_EQ(c.lines, unnumbered_lines());
    }
    scripted_.table()->subscribe = nullptr;
    obs_policy_set_service_report(ctx_, "svcA", record_report);
    EXPECT_EQ(&record_report, provider_.service_report_handler);
}

TEST_F(ReportTest, HandlerGetsTheDecodedReportNamedAfterTheServiceOfItsKey) {
    const std::string key = root + "service{svcA}/report";
    const std::string wildcard = encoded_report("/kuv/opa/service{*}/scope{default}/obs");
    const std::string unnamed = encoded_report("/kuv/opa/service{}/scope{net}/obs");
    const std::string named = encoded_report("/kuv/opa/service{svcB}/scope{default}/obs");
    const struct {
        const char *what;
        std::string data;
        int len;
        seen_report expected;
    } cases[] = {
        {"any service",
         wildcard,
         static_cast<int>(wildcard.size()),
         {"svcA", true, "/kuv/opa/service{svcA}/scope{default}/obs", "r1"}},
        {"no service",
         unnamed,
         static_cast<int>(unnamed.size()),
         {"svcA", true, "/kuv/opa/service{svcA}/scope{net}/obs", "r1"}},
        {"named service",
         named,
         static_cast<int>(named.size()),
         {"svcA", true, "/kuv/opa/service{svcB}/scope{default}/obs", "r1"}},
        {"undecodable", "garbage", 8, {"svcA", false, "", ""}},
        {"unterminated", wildcard, static_cast<int>(wildcard.size()) - 3, {"svcA", false, "", ""}},
        {"empty", wildcard, 0, {"svcA", false, "", ""}},
        {"negative length", wildcard, -1, {"svcA", false, "", ""}},
    };
    provider_.service_report_handler = record_report;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        seen.clear();
        obs_test::clear_captured_lines();
        // Exactly len bytes on the heap, so reading past them is caught.
        std::vector<char> bytes(c.data.begin(), c.data.begin() + std::max(c.len, 0));
        sdk_policy_service_report_handler(ctx_, 1, key.c_str(), key.c_str(),
                                          bytes.empty() ? c.data.data() : bytes.data(), c.len);
        ASSERT_EQ(1u, seen.size());
        EXPECT_EQ(c.expected.service, seen[0].service);
        EXPECT_EQ(c.expected.decoded, seen[0].decoded);
        EXPECT_EQ(c.expected.path, seen[0].path);
        EXPECT_EQ(c.expected.reqid, seen[0].reqid);
        EXPECT_EQ(
            "sdk_policy_service_report_handler:N path=" + key + " len=" + std::to_string(c.len),
            unnumbered_lines().at(0));
    }
}

TEST_F(ReportTest, DeletionsAndKeysWithoutAServiceNeverReachTheHandler) {
    const std::string data = encoded_report("/kuv/opa/service{*}/scope{default}/obs");
    provider_.service_report_handler = record_report;
    seen.clear();
    obs_test::clear_captured_lines();
    sdk_policy_service_report_handler(ctx_, 2, "/x/service{svcA}/report", "", data.data(),
                                      static_cast<int>(data.size()));
    EXPECT_TRUE(lines().empty());
    sdk_policy_service_report_handler(ctx_, 1, "/x/report", "", data.data(),
                                      static_cast<int>(data.size()));
    EXPECT_EQ(1u, lines().size());
    sdk_policy_service_report_handler(nullptr, 1, "/x/service{svcA}/report", "", nullptr, 0);
    EXPECT_TRUE(seen.empty());
}

}  // namespace
