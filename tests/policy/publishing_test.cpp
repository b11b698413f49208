#include <gtest/gtest.h>

#include <regex>

#include "support/scripted_ipc.h"

namespace {

using namespace obs_test;

// A publishing context of the SDK "obs" over a scripted IPC provider, and a directory of three
// services: a and b registered "obs" with the scopes "default" and "net", c another SDK.
class PublishingTest : public ScriptedContextTest {
  protected:
    void SetUp() override {
        ScriptedContextTest::SetUp();
        provider_.name = "obs";
    }

    // The keys written since the last call, stores then sends, as "service/scope/sdk " words.
    std::string written() {
        std::string keys;
        for (const auto &set : scripted_.sets) keys += set.key + " ";
        for (const auto &send : scripted_.sends) keys += send.key + " ";
        scripted_.sets.clear();
        scripted_.sends.clear();
        return std::regex_replace(keys, std::regex(root + "service\\{(.*?)\\}/scope\\{(.*?)\\}/"),
                                  "$1/$2/");
    }

    char *scopes_[2] = {const_cast<char *>("default"), const_cast<char *>("net")};
    char *obs_[1] = {const_cast<char *>("obs")}, *other_[1] = {const_cast<char *>("other")};
    obs_policy_service c_ = {const_cast<char *>("c"), scopes_, 1, other_, 1, nullptr};
    obs_policy_service b_ = {const_cast<char *>("b"), scopes_, 2, obs_, 1, &c_};
    obs_policy_service directory_[1] = {{const_cast<char *>("a"), scopes_, 2, obs_, 1, &b_}};
};

// Published: the keys written, then a refusal. Dispatched: a named SDK takes only its own records
// and claims them; a default provider takes named records no named SDK has claimed; a monitor
// takes every record; then "+" and the flags after.
TEST_F(PublishingTest, RecordsReachTheScopesThatProviderTargetAndPathSelect) {
    const char *any = "/t/service{*}/scope{*}/obs", *net = "/t/service{*}/scope{net}/obs";
    const std::string both = "a/default/obs b/default/obs ";
    auto shown = [](const char *text) { return std::string(text ? text : "NA"); };
    const struct {
        uint32_t type;
        const char *name, *path, *target;
        std::string outcome;
        int flags = -1;  // dispatched with these flags, else published
    } cases[] = {
        {0x20, "obs", nullptr, nullptr, both},
        {0x20, "obs", nullptr, net, "a/net/obs b/net/obs "},
        {0x20, "obs", nullptr, "/t/service{*}/scope{default}/other", "-3"},
        {0x20, nullptr, "/r/service{a}/scope{default}/obs", nullptr, "a/default/obs "},
        {0x20, nullptr, "/r/service{*}/scope{*}/obs", nullptr, both},
        {0x10, nullptr, "/r/service{*}/scope{*}/*", nullptr, both},
        // The scope and SDK in the record's path must agree with the target's.
        {0x20, "obs", "/r/service{*}/scope{net}/obs", nullptr, ""},
        {0x20, "obs", "/r/service{*}/scope{*}/obs", net, ""},
        {0x20, "obs", "/r/service{*}/scope{*}/other", any, ""},
        // A monitor sends to the target scope of every service with its SDK, registered or not.
        {0x80, "x", "/r/service{a}/scope{y}/x", "/t/service{*}/scope{new}/obs",
         "a/new/obs b/new/obs "},
        {0x10, nullptr, nullptr, nullptr, "+0", 0},
        {0x20, nullptr, nullptr, nullptr, "+0", 0},
        {0x20, "other", nullptr, nullptr, "+0", 0},
        {0x80, nullptr, nullptr, nullptr, both + "+0", 0},
        {0x80, "other", nullptr, nullptr, both + "+32", 0x20},
        {0x20, "obs", nullptr, nullptr, both + "+32", 0},
        {0x10, "obs", nullptr, nullptr, "+32", 0x20},
        {0x10, "obs", nullptr, nullptr, both + "+0", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        clear_captured_lines();
        provider_.type = c.type;
        obs_policy rec = {};
        rec.name = const_cast<char *>(c.name);
        rec.path = const_cast<char *>(c.path);
        rec.dispatch_flags = c.flags < 0 ? 0 : c.flags;
        const int result = c.flags < 0 ? obs_policy_publish(ctx_, &rec, c.target, directory_)
                                       : obs_policy_dispatch(ctx_, &rec, c.target, directory_);
        EXPECT_EQ(c.outcome, written() + (result ? std::to_string(result) : "") +
                                 (c.flags < 0 ? "" : "+" + std::to_string(rec.dispatch_flags)));
        const bool taken = c.flags < 0 || c.outcome[0] != '+';
        EXPECT_EQ(std::vector<std::string>(
                      taken, "obs_policy_publish:N policy=" + shown(c.name) +
                                 " sdk=obs target=" + shown(c.target ? c.target : c.path)),
                  unnumbered_lines("obs_policy_publish"));
        EXPECT_EQ(std::vector<std::string>(
                      taken && c.flags >= 0,
                      "obs_policy_dispatch:N sdk(obs) translator=" + pointer_text(nullptr) +
                          ", path=NA name=" + shown(c.name) + " len=0"),
                  unnumbered_lines("obs_policy_dispatch"));
    }
}

TEST_F(PublishingTest, PublishAndDispatchRefuseWhatTheyCannotUse) {
    obs_policy rec = {};
    rec.name = const_cast<char *>("obs");
    obs_policy_ctx ctx = *ctx_;
    EXPECT_EQ(-2, obs_policy_publish(&ctx, nullptr, nullptr, directory_));
    EXPECT_EQ(-2, obs_policy_publish(&ctx, &rec, nullptr, nullptr));
    ctx.provider = nullptr;
    EXPECT_EQ(-2, obs_policy_publish(&ctx, &rec, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_dispatch(&ctx, nullptr, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_dispatch(&ctx, &rec, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_dispatch(nullptr, &rec, nullptr, directory_));
    ctx.ipc_ctx = nullptr;
    EXPECT_EQ(-1, obs_policy_publish(&ctx, &rec, nullptr, directory_));
    ctx.ipc_ctx = &scripted_;
    scripted_.table()->set = nullptr;
    EXPECT_EQ(-1, obs_policy_publish(&ctx, &rec, nullptr, directory_));
    ctx.ipc = nullptr;
    EXPECT_EQ(-1, obs_policy_publish(&ctx, &rec, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_publish(nullptr, &rec, nullptr, directory_));
    std::vector<std::string> expected(2, "obs_policy_dispatch:N no any policy provider found");
    expected.resize(6, "obs_policy_publish:N no any ipc provider found");
    EXPECT_EQ(expected, unnumbered_lines());
}

// Under AddressSanitizer a result left unreleased, or the handed copy released, fails the test.
TEST_F(PublishingTest, EveryTranslatedRecordIsPublishedThenReleased) {
    provider_.type = OBS_POLICY_PROVIDER_DEFAULT;
    obs_policy second = {}, first = {};
    second.name = first.name = const_cast<char *>("obs");
    first.next = &second;
    // Two new records for the SDK "other" per input.
    provider_.dispatch_translator = [](obs_policy_ctx *, obs_policy *record) {
        obs_policy *made = obs_policy_clone_one(record, 0);
        free(made->name);
        made->name = strdup("other");
        made->next = obs_policy_clone_one(made, 0);
        return made;
    };
    EXPECT_EQ(0, obs_policy_dispatch(ctx_, &first, nullptr, directory_));
    EXPECT_EQ("c/default/other c/default/other c/default/other c/default/other ", written());
    provider_.dispatch_translator = [](obs_policy_ctx *, obs_policy *record) {
        EXPECT_EQ(nullptr, record->next);
        return record;
    };
    EXPECT_EQ(0, obs_policy_dispatch(ctx_, &first, nullptr, directory_));
    EXPECT_EQ("a/default/obs b/default/obs a/default/obs b/default/obs ", written());
}

// Each copy carries its new path under the record's own root, else the default one.
TEST_F(PublishingTest, IpcSendStoresUpToOpThreeAndSendsAbove) {
    const std::string long_path = "/" + std::string(300, 'r') + "/service{old}";
    const struct {
        uint8_t op;
        const char *path;
        std::string root;
    } cases[] = {
        {3, "/kuv/opa/service{old}/scope{x}/y", "/kuv/opa"},
        {4, "/agent/root/service{old}/scope{x}/y", "/agent/root"},
        {1, nullptr, "/kuv/opa"},
        {1, "/service{old}", ""},
        {1, long_path.c_str(), "/" + std::string(254, 'r')},
    };
    scripted_.result = 9;
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        clear_captured_lines();
        obs_policy rec = {};
        rec.op = c.op;
        rec.path = const_cast<char *>(c.path);
        obs_policy_ipc_send(ctx_, &rec, "k", "a", "net", "obs");
        EXPECT_EQ(c.path, rec.path);
        const auto &made = c.op > OBS_POLICY_OP_REAPPLY ? scripted_.sends : scripted_.sets;
        ASSERT_EQ(1u, made.size());
        EXPECT_EQ("obs_policy_ipc_send:N to=k path=" + c.root +
                      "/service{a}/scope{net}/obs vlen=" + std::to_string(made[0].value.size()) +
                      " ret=9|" + made[0].index_key + made[0].member,
                  logged("obs_policy_ipc_send"));
        EXPECT_EQ("k ", written());
    }
    obs_policy rec = {};
    obs_policy_ipc_send(nullptr, &rec, "k", "a", "net", "obs");
    obs_policy_ipc_send(ctx_, &rec, nullptr, "a", "net", "obs");
    EXPECT_EQ("", written());
}

}  // namespace
