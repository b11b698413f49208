#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "support/scripted_ipc.h"

namespace {

using namespace obs_test;

std::string uid_key_of(const std::string &service) {
    return root + "service{" + service + "}/uid";
}

// Handlers note what they were given, the policy handler also how many sets came before.
class PolicyContextTest : public ScriptedContextTest {
  protected:
    static void record_policy(obs_policy_ctx *, const char *service, obs_policy *list, void *user) {
        auto *self = fixture<PolicyContextTest>(user);
        self->handled_.push_back(std::string(service) + " " + list->reqid + " after " +
                                 std::to_string(self->scripted_.sets.size()));
    }
    static void record_online(obs_policy_ctx *ctx, const char *service, const void *uid) {
        fixture<PolicyContextTest>(ctx->user_ctx)
            ->handled_.push_back(std::string(service) + " " + text_of(uid));
    }

    std::vector<std::string> handled_;
};

TEST_F(PolicyContextTest, AnnouncesTheServiceThenHandsTheStoredDefaultPolicyOver) {
    const std::string default_key = root + "service{svc}/scope{default}/probe";
    scripted_.stored[default_key] = encoded(0, "stored");
    const std::string len = std::to_string(scripted_.stored[default_key].size());
    scripted_.result = 5;
    provider_.service_online_handler = record_online;
    int creator = 0;
    // On a thread of its own, so that its id is not the process id.
    std::thread([&] {
        creator = obs_gettid();
        create(record_policy);
    }).join();
    const std::string uid = scripted_.sets.at(1).value;
    // Thread id, seconds and nanoseconds, none padded (nanoseconds below 10^8 would show it).
    const std::regex unpadded(std::to_string(creator) + "-[1-9][0-9]*-(0|[1-9][0-9]*)");
    EXPECT_TRUE(std::regex_match(uid, unpadded)) << uid;
    std::string sets;
    for (const auto &s : scripted_.sets)
        sets += s.key.substr(root.size()) + "=" + (s.value == uid ? "<uid>" : s.value) + " " +
                s.index_key.substr(root.size()) + "<-" + s.member + "|";
    EXPECT_EQ(
        "service{svc}/policysdk{probe}/version=2.5 service{svc}/policysdk_keys<-probe|"
        "service{svc}/uid=<uid> service_keys<-svc|"
        "service{svc}/scope{default}/name=default service{svc}/scope_keys<-default|",
        sets);
    EXPECT_EQ(root + "service{svc}/scope{*}/probe " + uid_key_of("*"),
              scripted_.subscriptions.at(0).path + " " + scripted_.subscriptions.at(1).path);
    EXPECT_EQ(std::vector<std::string>{"svc stored after 3"}, handled_);
    const std::string at = "obs_policy_ctx_init:N ";
    EXPECT_EQ(
        (std::vector<std::string>{
            at + "provider ipc=scripted/9.9(evloop=" + pointer_text(&scripted_) +
                ") policy=probe/2.5 handler=" +
                pointer_text(reinterpret_cast<void *>(&record_policy)) +
                " init=" + pointer_text(&scripted_),
            at + "register and subscribe sdk=probe ret=5 ret2=5",
            at + "register path=" + uid_key_of("svc") + " ret=5 default scope ret=5 uid=" + uid,
            at + "try load policy=" + default_key + " len=" + len + " ret=0"}),
        unnumbered_lines("obs_policy_ctx_init"));
}

TEST_F(PolicyContextTest, HandlerAndIpcSlotsDecideWhatIsRegisteredSubscribedAndLoaded) {
    const obs_ipc_provider all_slots = *scripted_.table();
    EXPECT_EQ("2 0 0", create());
    scripted_.table()->subscribe = nullptr;
    EXPECT_EQ("2 0 0", create(record_policy));
    scripted_.table()->subscribe = all_slots.subscribe;
    scripted_.table()->set = nullptr;
    EXPECT_EQ("0 0 1", create(record_policy));
    scripted_.table()->get = nullptr;
    EXPECT_EQ("0 0 0", create(record_policy));
}

TEST_F(PolicyContextTest, RefusalsGiveNullAfterTheirLine) {
    obs_sdk_policy_provider no_version = provider_, no_init = provider_;
    no_version.version = "";
    no_init.init = [](void *, const char *) -> obs_policy_ctx * { return nullptr; };
    obs_ipc_provider *ipc = scripted_.table();
    EXPECT_EQ(nullptr, obs_policy_ctx_init(this, "a{b", record_policy, ipc, &provider_));
    EXPECT_EQ(nullptr, obs_policy_ctx_init(this, "svc", record_policy, nullptr, &provider_));
    EXPECT_EQ(nullptr, obs_policy_ctx_init(this, "svc", record_policy, ipc, &no_version));
    EXPECT_EQ(nullptr, obs_policy_ctx_init(this, "svc", record_policy, ipc, &no_init));
    const std::string at = "obs_policy_ctx_init:N ";
    EXPECT_EQ((std::vector<std::string>{
                  at + "not valid service name", at + "fail, ipc provider not found",
                  at + "fail, policy provider not found, or name/version is empty, service=svc",
                  at + "fail to run init, ctx=" + pointer_text(this) + ", name=svc"}),
              unnumbered_lines("obs_policy_ctx_init"));
}

TEST_F(PolicyContextTest, ServiceOnlineSubscribesToAServiceUidAndForwardsItsEvents) {
    obs_policy_set_service_online(ctx_, "svcA", record_online);
    obs_policy_set_service_online(ctx_, "svcA", nullptr);
    obs_policy_set_service_online(ctx_, "a}b", record_online);  // kept, though not subscribed
    const std::string path = uid_key_of("svcA");
    const char uid[] = "12-3-4";
    // Only the first event has a value and a service in its path.
    scripted_.subscriptions.back().handler(ctx_, 1, path.c_str(), "", uid, sizeof uid);
    sdk_policy_service_online_handler(ctx_, 1, path.c_str(), "", uid, 0);
    sdk_policy_service_online_handler(ctx_, 1, "/no/service/uid", "", uid, 7);
    EXPECT_EQ(std::vector<std::string>{"svcA 12-3-4"}, handled_);
    const std::string at = "sdk_policy_service_online_handler:N path=";
    EXPECT_EQ((std::vector<std::string>{
                  "obs_policy_set_service_online:N subscribe service online=" + path + " ret=0",
                  "invalid name, '{', '}' not allowed", at + path + " len=7",
                  at + "/no/service/uid len=7"}),
              unnumbered_lines());
}

// Scope names are checked and the scope index key cut at 255 characters; missing slots, hooks
// and handles are skipped.
TEST_F(PolicyContextTest, ScopesAndMissingSlotsHooksAndHandles) {
    const std::string service(300, 's');
    obs_policy_register_scope(ctx_, service.c_str(), "net");
    EXPECT_EQ((root + "service{" + service + "}/scope_keys").substr(0, 255),
              scripted_.sets.back().index_key);
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, "svc", ""));
    scripted_.table()->set = nullptr;
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, "svc", "net"));
    const std::string path = uid_key_of("svc");
    sdk_policy_service_online_handler(ctx_, 0, path.c_str(), path.c_str(), "1-2-3", 6);
    EXPECT_TRUE(handled_.empty());
    obs_policy_ctx no_handle = *ctx_;
    no_handle.ipc_ctx = nullptr;
    EXPECT_EQ(nullptr, obs_policy_dump_debuginfor(&no_handle));
    obs_ipc_provider no_free = *scripted_.table();
    no_free.init = [](void *, const char *, void *loop) { return loop; };
    no_free.free = nullptr;
    obs_policy_ctx_free(
        obs_policy_ctx_init(nullptr, "svc", nullptr, &no_free, obs_get_ot_sdk_policy_provider()));
}

}  // namespace
