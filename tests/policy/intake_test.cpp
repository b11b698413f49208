#include <gtest/gtest.h>

#include "support/scripted_ipc.h"
#include "support/value_text.h"

namespace {

using namespace obs_test;

const std::string key = root + "service{svc}/scope{net}/probe";

// The context's translator copies each record, but none of one with the reqid "drop" and two of
// one with "twice".
class IntakeTest : public ScriptedContextTest {
  protected:
    void SetUp() override {
        ScriptedContextTest::SetUp();
        provider_.policy_translator = translate;
        ctx_->handler = record_list;
    }
    void deliver(int op, const std::string &data, const std::string &path = key) {
        sdk_policy_subscribe_handler(ctx_, op, path.c_str(), path.c_str(), data.data(),
                                     static_cast<int>(data.size()));
    }
    // A record as "reqid op name path".
    static std::string described(const obs_policy *p) {
        return text_of(p->reqid) + " " + std::to_string(p->op) + " " + text_of(p->name) + " " +
               text_of(p->path);
    }
    static void record_list(obs_policy_ctx *ctx, const char *service, obs_policy *list,
                            void *user) {
        auto *self = fixture<IntakeTest>(user);
        EXPECT_TRUE(ctx == self->ctx_ && std::string(service) == "svc");
        for (obs_policy *p = list; p; p = p->next) self->seen_.push_back(described(p));
    }
    static obs_policy *translate(void *user, const char *service, obs_policy *record) {
        auto *self = fixture<IntakeTest>(user);
        ++self->translated_;
        EXPECT_TRUE(record->owner == self->ctx_ && !record->next && std::string(service) == "svc");
        const std::string reqid = text_of(record->reqid);
        if (reqid == "drop") return nullptr;
        obs_policy *copy = obs_policy_clone_one(record, 1);
        if (reqid == "twice") copy->next = obs_policy_clone_one(record, 1);
        return copy;
    }

    std::vector<std::string> seen_;
    int translated_ = 0;
};

// Values without a record are dropped unless the key was deleted; the translator runs once per
// record and what it drops is left out.
TEST_F(IntakeTest, DeliveredValuesReachTheHandlerAsTranslated) {
    deliver(1, encoded(1, "r1"), "/no");
    deliver(1, "garbage");
    deliver(2, "");
    deliver(2, "garbage");
    deliver(1, encoded(1, "drop"));
    deliver(1, encoded(1, "twice"));
    provider_.policy_translator = nullptr;
    deliver(1, encoded(1, "drop"));
    EXPECT_EQ((std::vector<std::string>{"test-manualy-delete 2 probe " + key, "twice 1  ",
                                        "twice 1  ", "drop 1  "}),
              seen_);
    std::vector<std::string> handled(4,
                                     "sdk_policy_subscribe_handler:N policy handler found, run it");
    handled[0] = "sdk_policy_subscribe_handler:N policy path is not valid, /no";
    EXPECT_EQ(handled, unnumbered_lines("sdk_policy_subscribe_handler"));
    const std::vector<std::string> decoded = unnumbered_lines("sdk_policy_decode");
    EXPECT_EQ("reqid=test-manualy-delete path=" + key + " op=2 codec len=0 raw len=0|" +
                  "policy_apply_translate found, run it",
              decoded.at(2).substr(20) + "|" + decoded.at(3).substr(20));
}

// A query whose codec text translates is answered with a report that carries no byte of the
// translated entry chain (its addresses would go to whoever reads reports).
TEST_F(IntakeTest, QueriesAreAnsweredByReportUnlessAlreadyAnsweredOrUnanswerable) {
    scripted_.stored[key] = encoded(1, "s1", "stored answer");
    deliver(1, encoded(4, "stored"));
    deliver(1, encoded(4, "answered", "other"));
    deliver(1, encoded(4, "debug", "debug"));
    scripted_.table()->dump_debuginfo = nullptr;
    deliver(1, encoded(4, "no dump", "debug"));
    provider_.policy_translator = sdk_policy_ot_apply_translate;
    provider_.free = sdk_policy_ot_free;
    const std::string policy =
        kvlist({pair("scope_name", str("xxxxxxx")), pair("sampling", integer(2)),
                pair("log_level", integer(3))});
    ASSERT_EQ(policy.size(), 124u);
    deliver(1, kvlist({pair("reqid", str("q")), pair("type", integer(0)), pair("op", integer(4)),
                       pair("format", integer(16)), pair("seq_id", integer(0)),
                       pair("codec_vlen", integer(125)), pair("codec_val", str(policy))}) +
                   '\0');
    scripted_.table()->get = nullptr;
    deliver(1, encoded(4, "no get", "debug"));
    std::string reports;
    for (const auto &send : scripted_.sends) {
        EXPECT_EQ(send.value.find("codec_"), std::string::npos) << send.value;
        obs_policy *sent = nullptr;
        obs_policy_internal_decode(send.value.data(), static_cast<uint32_t>(send.value.size()),
                                   &sent);
        reports += text_of(sent->reqid) + "|" + text_of(sent->raw_val) + "|" +
                   std::to_string(sent->raw_vlen) + "|" + std::to_string(sent->format) + " ";
        obs_policy_free(sent);
    }
    EXPECT_EQ(
        "stored|stored answer|14|1 debug|scripted debug|15|1 no dump|there is no policy|19|1 "
        "q|stored answer|14|33 ",
        reports);
    EXPECT_EQ("sdk_policy_subscribe_handler:N read policy=" + key +
                  " len=" + std::to_string(scripted_.stored[key].size()) + " ret=0",
              unnumbered_lines("sdk_policy_subscribe_handler").at(1));
}

TEST_F(IntakeTest, FetchDecodesAndPullDeliversTheStoredDefaultPolicy) {
    const std::string default_key = root + "service{svc}/scope{default}/probe";
    scripted_.stored[default_key] = encoded(1, "stored");
    obs_policy *fetched = obs_policy_fetch(ctx_);
    ASSERT_NE(nullptr, fetched);
    EXPECT_TRUE(described(fetched) == "stored 1  " && !fetched->next && translated_ == 1);
    obs_policy_free(fetched);
    obs_policy_pull(ctx_);
    EXPECT_EQ(std::vector<std::string>{"stored 1  "}, seen_);
    const std::string len = std::to_string(scripted_.stored[default_key].size());
    const std::string loaded = "try load policy=" + default_key + " len=" + len + " ret=0";
    EXPECT_EQ("sdk_policy_decode:N path=" + default_key + " op=3 len=" + len,
              unnumbered_lines("sdk_policy_decode").at(0));
    for (const std::string operation : {"obs_policy_fetch", "obs_policy_pull"})
        EXPECT_EQ(std::vector<std::string>{operation + ":N " + loaded},
                  unnumbered_lines(operation));
    ctx_->handler = nullptr;
    EXPECT_EQ(nullptr, obs_policy_fetch(ctx_));
    scripted_.table()->get = nullptr;
    EXPECT_EQ(nullptr, obs_policy_fetch(ctx_));
}

}  // namespace
