#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/scripted_ipc.h"

namespace {

const std::string root = OBS_IPC_KEY_ROOT;

// A publishing context of the SDK "obs" over a scripted IPC provider, and a directory of three
// services: a and b registered "obs" with the scopes "default" and "net", c another SDK.
class PublishingTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        for (const char *name : {"a", "b"}) {
            scripted_.indexes[root + "service{" + name + "}/scope_keys"] = {"default", "net"};
            scripted_.indexes[root + "service{" + name + "}/policysdk_keys"] = {"obs"};
        }
        scripted_.indexes[root + "service_keys"] = {"a", "b", "c"};
        scripted_.indexes[root + "service{c}/scope_keys"] = {"default"};
        scripted_.indexes[root + "service{c}/policysdk_keys"] = {"other"};
        directory_ = obs_policy_load_service(&ctx_);
        provider_.type = OBS_POLICY_PROVIDER_SDK;
        provider_.name = "obs";
        LogCaptureTest::SetUp();
    }
    void TearDown() override {
        obs_policy_free_service(directory_);
        LogCaptureTest::TearDown();
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

    obs_test::ScriptedIpc scripted_;
    obs_sdk_policy_provider provider_ = {};
    obs_policy_ctx ctx_ = {nullptr, nullptr, &provider_, scripted_.table(), &scripted_, nullptr};
    obs_policy_service *directory_ = nullptr;
};

TEST_F(PublishingTest, RecordsReachTheScopesThatTargetAndPathSelect) {
    const char *any = "/t/service{*}/scope{*}/obs", *net = "/t/service{*}/scope{net}/obs";
    auto shown = [](const char *text) { return text ? text : "NA"; };
    const struct {
        uint32_t type;
        const char *name, *path, *target, *outcome;  // the keys written, then a refusal
    } cases[] = {
        {0x20, "obs", nullptr, nullptr, "a/default/obs b/default/obs "},
        {0x20, "obs", nullptr, net, "a/net/obs b/net/obs "},
        {0x20, "obs", nullptr, "/t/service{*}/scope{default}/other", "-3"},
        {0x20, nullptr, "/r/service{a}/scope{default}/obs", nullptr, "a/default/obs "},
        {0x20, nullptr, "/r/service{*}/scope{*}/obs", nullptr, "a/default/obs b/default/obs "},
        {0x10, nullptr, "/r/service{*}/scope{*}/*", nullptr, "a/default/obs b/default/obs "},
        // The scope and SDK in the record's path must agree with the target's.
        {0x20, "obs", "/r/service{*}/scope{net}/obs", nullptr, ""},
        {0x20, "obs", "/r/service{*}/scope{*}/obs", net, ""},
        {0x20, "obs", "/r/service{*}/scope{*}/other", any, ""},
        // A monitor sends to the target scope of every service with its SDK, registered or not.
        {0x80, "x", "/r/service{a}/scope{y}/x", "/t/service{*}/scope{new}/obs",
         "a/new/obs b/new/obs "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        obs_test::clear_captured_lines();
        provider_.type = c.type;
        obs_policy rec = {};
        rec.name = const_cast<char *>(c.name);
        rec.path = const_cast<char *>(c.path);
        const int result = obs_policy_publish(&ctx_, &rec, c.target, directory_);
        EXPECT_EQ(c.outcome, written() + (result ? std::to_string(result) : ""));
        EXPECT_EQ(
            std::vector<std::string>{std::string("obs_policy_publish:N policy=") + shown(c.name) +
                                     " sdk=obs target=" + shown(c.target ? c.target : c.path)},
            unnumbered_lines("obs_policy_publish"));
    }
}

TEST_F(PublishingTest, PublishAndDispatchRefuseWhatTheyCannotUse) {
    obs_policy rec = {};
    rec.name = const_cast<char *>("obs");
    EXPECT_EQ(-2, obs_policy_publish(&ctx_, nullptr, nullptr, directory_));
    EXPECT_EQ(-2, obs_policy_publish(&ctx_, &rec, nullptr, nullptr));
    ctx_.provider = nullptr;
    EXPECT_EQ(-2, obs_policy_publish(&ctx_, &rec, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_dispatch(&ctx_, nullptr, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_dispatch(&ctx_, &rec, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_dispatch(nullptr, &rec, nullptr, directory_));
    ctx_.ipc_ctx = nullptr;
    EXPECT_EQ(-1, obs_policy_publish(&ctx_, &rec, nullptr, directory_));
    ctx_.ipc_ctx = &scripted_;
    scripted_.table()->set = nullptr;
    EXPECT_EQ(-1, obs_policy_publish(&ctx_, &rec, nullptr, directory_));
    ctx_.ipc = nullptr;
    EXPECT_EQ(-1, obs_policy_publish(&ctx_, &rec, nullptr, directory_));
    EXPECT_EQ(-1, obs_policy_publish(nullptr, &rec, nullptr, directory_));
    std::vector<std::string> expected(2, "obs_policy_dispatch:N no any policy provider found");
    expected.resize(6, "obs_policy_publish:N no any ipc provider found");
    EXPECT_EQ(expected, unnumbered_lines());
}

// Claims by a named SDK and their effect on a default provider are proven end to end.
TEST_F(PublishingTest, DispatchSkipsOtherSdksAndUnnamedRecordsUnlessMonitoring) {
    obs_policy rec = {};
    provider_.type = OBS_POLICY_PROVIDER_DEFAULT;
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &rec, nullptr, directory_));
    provider_.type = OBS_POLICY_PROVIDER_SDK;
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &rec, nullptr, directory_));
    rec.name = const_cast<char *>("other");
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &rec, nullptr, directory_));
    EXPECT_EQ(0u, rec.dispatch_flags);
    EXPECT_EQ("", written());
    EXPECT_TRUE(lines().empty());
    provider_.type = OBS_POLICY_PROVIDER_MONITOR;
    rec.dispatch_flags = OBS_POLICY_PROVIDER_SDK;
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &rec, nullptr, directory_));
    rec.name = nullptr;
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &rec, nullptr, directory_));
    EXPECT_EQ("a/default/obs b/default/obs a/default/obs b/default/obs ", written());
    char taken[96];
    snprintf(taken, sizeof taken, "obs_policy_dispatch:N sdk(obs) translator=%p, path=NA name=",
             static_cast<void *>(nullptr));
    EXPECT_EQ((std::vector<std::string>{taken + std::string("other len=0"),
                                        taken + std::string("NA len=0")}),
              unnumbered_lines("obs_policy_dispatch"));
}

// Two new records for the SDK "other" per input.
obs_policy *split_in_two(obs_policy_ctx *, obs_policy *record) {
    obs_policy *first = obs_policy_clone_one(record, 0);
    free(first->name);
    first->name = strdup("other");
    first->next = obs_policy_clone_one(first, 0);
    return first;
}

obs_policy *same_record(obs_policy_ctx *, obs_policy *record) {
    EXPECT_EQ(nullptr, record->next);
    return record;
}

// Under AddressSanitizer a result left unreleased, or the handed copy released, fails the test.
TEST_F(PublishingTest, EveryTranslatedRecordIsPublishedThenReleased) {
    provider_.type = OBS_POLICY_PROVIDER_DEFAULT;
    obs_policy second = {}, first = {};
    second.name = first.name = const_cast<char *>("obs");
    first.next = &second;
    provider_.dispatch_translator = split_in_two;
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &first, nullptr, directory_));
    EXPECT_EQ("c/default/other c/default/other c/default/other c/default/other ", written());
    provider_.dispatch_translator = same_record;
    EXPECT_EQ(0, obs_policy_dispatch(&ctx_, &first, nullptr, directory_));
    EXPECT_EQ("a/default/obs b/default/obs a/default/obs b/default/obs ", written());
}

// Each copy carries its new path under the record's own root, else the default one.
TEST_F(PublishingTest, IpcSendStoresUpToOpThreeAndSendsAboveWhenItCan) {
    const std::string long_path = "/" + std::string(300, 'r') + "/service{old}";
    const struct {
        uint8_t op;
        bool has_send, sent;
        const char *path;
        std::string root;
    } cases[] = {
        {3, true, false, "/kuv/opa/service{old}/scope{x}/y", "/kuv/opa"},
        {4, true, true, "/agent/root/service{old}/scope{x}/y", "/agent/root"},
        {4, false, false, "/agent/root/scope{x}/y", "/kuv/opa"},
        {1, true, false, nullptr, "/kuv/opa"},
        {1, true, false, "/service{old}", ""},
        {1, true, false, long_path.c_str(), "/" + std::string(254, 'r')},
    };
    const auto send = scripted_.table()->send;
    scripted_.result = 9;
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        obs_test::clear_captured_lines();
        scripted_.table()->send = c.has_send ? send : nullptr;
        obs_policy rec = {};
        rec.op = c.op;
        rec.path = const_cast<char *>(c.path);
        obs_policy_ipc_send(&ctx_, &rec, "k", "a", "net", "obs");
        EXPECT_EQ(c.path, rec.path);
        ASSERT_EQ(c.sent ? 0u : 1u, scripted_.sets.size());
        const size_t vlen =
            c.sent ? scripted_.sends.at(0).data.size() : scripted_.sets[0].value.size();
        for (const auto &set : scripted_.sets) EXPECT_EQ("", set.index_key + set.member);
        EXPECT_EQ("k ", written());
        EXPECT_EQ(std::vector<std::string>{"obs_policy_ipc_send:N to=k path=" + c.root +
                                           "/service{a}/scope{net}/obs vlen=" +
                                           std::to_string(vlen) + " ret=9"},
                  unnumbered_lines("obs_policy_ipc_send"));
    }
    obs_policy rec = {};
    obs_policy_ipc_send(nullptr, &rec, "k", "a", "net", "obs");
    obs_policy_ipc_send(&ctx_, &rec, nullptr, "a", "net", "obs");
    EXPECT_EQ("", written());
}

}  // namespace
