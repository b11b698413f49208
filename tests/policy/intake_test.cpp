#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/scripted_ipc.h"

namespace {

const std::string root = OBS_IPC_KEY_ROOT;
const std::string key = root + "service{svc}/scope{net}/probe";
const std::string default_key = root + "service{svc}/scope{default}/probe";

// The encoded form of a record with op, reqid and, when given, a raw text.
std::string encoded(int op, const char *reqid, const char *raw = nullptr) {
    obs_policy record = {};
    record.op = static_cast<uint8_t>(op);
    record.reqid = const_cast<char *>(reqid);
    record.raw_val = const_cast<char *>(raw);
    record.raw_vlen = raw ? static_cast<uint32_t>(strlen(raw) + 1) : 0;
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&record, &text, &len);
    std::string bytes(text, len);
    free(text);
    return bytes;
}

std::string text_of(const void *text) {
    return text ? static_cast<const char *>(text) : "";
}

// A record as "reqid op name path".
std::string described(const obs_policy *p) {
    return text_of(p->reqid) + " " + std::to_string(p->op) + " " + text_of(p->name) + " " +
           text_of(p->path);
}

// A context of the provider "probe" over a scripted IPC provider. Its translator copies each
// record, but none of one with the reqid "drop" and two of one with "twice".
class IntakeTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        running_ = this;
        provider_.name = "probe";
        provider_.version = "2.5";
        provider_.init = obs_policy_init;
        provider_.policy_translator = translate;
        provider_.free = obs_policy_free;
        ctx_ = obs_policy_ctx_init(this, "svc", record_list, scripted_.table(), &provider_);
        ASSERT_NE(nullptr, ctx_);
        forget();
    }
    void TearDown() override {
        obs_policy_ctx_free(ctx_);
        LogCaptureTest::TearDown();
    }
    void forget() {
        scripted_.sends.clear();
        scripted_.gets.clear();
        seen_.clear();
        translated_ = 0;
        obs_test::clear_captured_lines();
    }
    // Exactly len bytes on the heap (one for none), so reading past them is caught.
    void deliver(int op, const std::string &data, int len, const std::string &path = key) {
        std::vector<char> bytes(data.begin(), data.begin() + len);
        bytes.resize(std::max(len, 1));
        sdk_policy_subscribe_handler(ctx_, op, path.c_str(), path.c_str(), bytes.data(), len);
    }
    // Handler and translator check what they are given against the running test.
    static void record_list(obs_policy_ctx *ctx, const char *service, obs_policy *list,
                            void *user) {
        EXPECT_TRUE(user == running_ && ctx == running_->ctx_);
        EXPECT_STREQ("svc", service);
        for (obs_policy *p = list; p; p = p->next) running_->seen_.push_back(described(p));
    }
    static obs_policy *translate(void *user, const char *service, obs_policy *record) {
        ++running_->translated_;
        EXPECT_TRUE(user == running_ && record->owner == running_->ctx_ && !record->next);
        EXPECT_STREQ("svc", service);
        const std::string reqid = text_of(record->reqid);
        if (reqid == "drop") return nullptr;
        obs_policy *copy = obs_policy_clone_one(record, 1);
        if (reqid == "twice") copy->next = obs_policy_clone_one(record, 1);
        return copy;
    }

    static IntakeTest *running_;
    obs_test::ScriptedIpc scripted_;
    obs_sdk_policy_provider provider_ = {};
    obs_policy_ctx *ctx_ = nullptr;
    std::vector<std::string> seen_;
    int translated_ = 0;
};

IntakeTest *IntakeTest::running_ = nullptr;

TEST_F(IntakeTest, PathWithoutAServiceIsRefusedWithOneLine) {
    const std::string data = encoded(1, "r1");
    for (const std::string path : {"/op/no-service/scope/probe", "/op/service{svc/scope"}) {
        forget();
        deliver(1, data, static_cast<int>(data.size()), path);
        EXPECT_EQ(std::vector<std::string>{"sdk_policy_subscribe_handler:N policy path is not "
                                           "valid, " +
                                           path},
                  unnumbered_lines());
        EXPECT_TRUE(seen_.empty() && translated_ == 0 && scripted_.gets.empty());
    }
}

TEST_F(IntakeTest, UndecodableDataIsDroppedUnlessTheKeyWasDeleted) {
    const std::string at = "sdk_policy_decode:N ";
    const struct {
        int op, len;
        std::vector<std::string> seen, lines;
    } cases[] = {
        {2,
         7,
         {"test-manualy-delete 2 probe " + key},
         {at + "path=" + key + " op=2 len=7",
          at + "reqid=test-manualy-delete path=" + key + " op=2 codec len=0 raw len=0",
          at + "policy_apply_translate found, run it"}},
        {1, 7, {}, {at + "path=" + key + " op=1 len=7"}},
        {2, 0, {}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.op << " " << c.len);
        forget();
        deliver(c.op, "garbage", c.len);
        EXPECT_EQ(c.seen, seen_);
        EXPECT_EQ(static_cast<int>(c.seen.size()), translated_);
        EXPECT_EQ(c.lines, unnumbered_lines("sdk_policy_decode"));
    }
}

TEST_F(IntakeTest, TranslatorRunsOncePerRecordAndWhatItDropsIsLeftOut) {
    const struct {
        const char *reqid;
        bool translator;
        std::vector<std::string> seen;
    } cases[] = {
        {"keep", true, {"keep 1  "}},
        {"drop", true, {}},
        {"twice", true, {"twice 1  ", "twice 1  "}},
        {"drop", false, {"drop 1  "}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reqid << " " << c.translator);
        forget();
        provider_.policy_translator = c.translator ? translate : nullptr;
        const std::string data = encoded(1, c.reqid);
        deliver(1, data, static_cast<int>(data.size()));
        EXPECT_EQ(c.seen, seen_);
        EXPECT_EQ(c.translator ? 1 : 0, translated_);
    }
}

TEST_F(IntakeTest, QueriesAreAnsweredByReportUnlessAlreadyAnsweredOrUnanswerable) {
    const struct {
        const char *asked, *stored, *without, *answer;
        uint32_t raw_vlen;
    } cases[] = {
        {nullptr, nullptr, "", "there is no policy", 19},
        {nullptr, "stored answer", "", "stored answer", 14},
        {"debug", nullptr, "", "scripted state", 15},
        {"debug", nullptr, "dump", "there is no policy", 19},
        {"other", nullptr, "", nullptr, 0},
        {nullptr, "stored answer", "get", nullptr, 0},
        {"debug", nullptr, "get", nullptr, 0},
    };
    const obs_ipc_provider all_slots = *scripted_.table();
    scripted_.debug_text = "scripted state";
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        forget();
        *scripted_.table() = all_slots;
        if (std::string(c.without) == "get") scripted_.table()->get = nullptr;
        if (std::string(c.without) == "dump") scripted_.table()->dump_debuginfo = nullptr;
        scripted_.stored.clear();
        if (c.stored) scripted_.stored[key] = encoded(1, "s1", c.stored);
        const std::string query = encoded(4, "q1", c.asked);
        deliver(1, query, static_cast<int>(query.size()));
        EXPECT_EQ(1, std::count(seen_.begin(), seen_.end(), "q1 4  "));
        ASSERT_EQ(c.answer ? 1u : 0u, scripted_.sends.size());
        if (!c.answer) continue;
        EXPECT_EQ(root + "service{svc}/report", scripted_.sends[0].key);
        obs_policy *sent = nullptr;
        const std::string &bytes = scripted_.sends[0].data;
        obs_policy_internal_decode(bytes.data(), static_cast<uint32_t>(bytes.size()), &sent);
        ASSERT_NE(nullptr, sent);
        EXPECT_EQ("q1 4  ", described(sent));
        EXPECT_EQ(c.answer, text_of(sent->raw_val));
        EXPECT_EQ(c.raw_vlen, sent->raw_vlen);
        EXPECT_EQ(OBS_POLICY_FORMAT_RAW, sent->format & OBS_POLICY_FORMAT_RAW);
        obs_policy_free(sent);
        if (c.asked) continue;
        const std::string read_line =
            "sdk_policy_subscribe_handler:N read policy=" + key +
            " len=" + std::to_string(c.stored ? scripted_.stored[key].size() : 0) +
            " ret=" + (c.stored ? "0" : "-1");
        const auto logged = unnumbered_lines("sdk_policy_subscribe_handler");
        EXPECT_EQ(1, std::count(logged.begin(), logged.end(), read_line));
    }
}

TEST_F(IntakeTest, FetchDecodesAndPullDeliversTheStoredDefaultPolicy) {
    const std::string stored = encoded(1, "stored");
    const std::string loaded =
        "try load policy=" + default_key + " len=" + std::to_string(stored.size()) + " ret=0";
    scripted_.stored[default_key] = stored;
    obs_policy *fetched = obs_policy_fetch(ctx_);
    ASSERT_NE(nullptr, fetched);
    EXPECT_EQ("stored 1  ", described(fetched));
    EXPECT_TRUE(fetched->next == nullptr && seen_.empty() && translated_ == 1);
    obs_policy_free(fetched);
    EXPECT_EQ(std::vector<std::string>{"obs_policy_fetch:N " + loaded},
              unnumbered_lines("obs_policy_fetch"));
    EXPECT_EQ(
        "sdk_policy_decode:N path=" + default_key + " op=3 len=" + std::to_string(stored.size()),
        unnumbered_lines("sdk_policy_decode").at(0));
    obs_policy_pull(ctx_);
    EXPECT_EQ(std::vector<std::string>{"stored 1  "}, seen_);
    EXPECT_EQ(std::vector<std::string>{"obs_policy_pull:N " + loaded},
              unnumbered_lines("obs_policy_pull"));

    // Nothing without a handler, a stored policy or get.
    for (int without = 0; without < 3; ++without) {
        forget();
        ctx_->handler = without == 0 ? nullptr : record_list;
        if (without == 1) scripted_.stored.clear();
        if (without == 2) scripted_.table()->get = nullptr;
        EXPECT_EQ(nullptr, obs_policy_fetch(ctx_));
        obs_policy_pull(ctx_);
        EXPECT_TRUE(seen_.empty() && translated_ == 0);
    }
    EXPECT_EQ(nullptr, obs_policy_fetch(nullptr));
}

TEST_F(IntakeTest, DebugInformationComesFromTheIpcWhenItHasSome) {
    scripted_.debug_text = "state";
    char *text = obs_policy_dump_debuginfor(ctx_);
    EXPECT_STREQ("state", text);
    free(text);
    void *ipc_ctx = ctx_->ipc_ctx;
    ctx_->ipc_ctx = nullptr;
    EXPECT_EQ(nullptr, obs_policy_dump_debuginfor(ctx_));
    ctx_->ipc_ctx = ipc_ctx;
    scripted_.table()->dump_debuginfo = nullptr;
    EXPECT_EQ(nullptr, obs_policy_dump_debuginfor(ctx_));
}

}  // namespace
