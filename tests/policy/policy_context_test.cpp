#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/scripted_ipc.h"

namespace {

using obs_test::ScriptedIpc;

const std::string root = OBS_IPC_KEY_ROOT;
const std::string uid_key = root + "service{svc}/uid";
const std::string default_key = root + "service{svc}/scope{default}/probe";

std::string pointer_text(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

std::string uid_key_of(const std::string &service) {
    return root + "service{" + service + "}/uid";
}

std::string online_line(const std::string &service) {
    return "obs_policy_set_service_online:N subscribe service online=" + uid_key_of(service) +
           " ret=0";
}

obs_sdk_policy_provider probe(const char *name = "probe", const char *version = "2.5",
                              obs_policy_init_fn init = obs_policy_init) {
    return {
        OBS_POLICY_PROVIDER_SDK, name, version, init, nullptr, nullptr, nullptr, nullptr, nullptr,
        obs_policy_free};
}

// The instance id printed again from its three numbers without padding; its nanoseconds.
std::string reprinted_uid(const std::string &uid, long long *nsec) {
    long long tid = 0, sec = 0;
    if (sscanf(uid.c_str(), "%lld-%lld-%lld", &tid, &sec, nsec) != 3) return "";
    return std::to_string(tid) + "-" + std::to_string(sec) + "-" + std::to_string(*nsec);
}

// The keys the IPC saw, by role: "sets | subscriptions | gets".
std::string calls(const ScriptedIpc &ipc) {
    static const std::map<std::string, std::string> roles = {
        {root + "service{svc}/policysdk{probe}/version", "sdk"},
        {uid_key, "uid"},
        {root + "service{svc}/scope{default}/name", "scope"},
        {root + "service{svc}/scope{*}/probe", "policies"},
        {uid_key_of("*"), "online"},
        {default_key, "default"}};
    std::string text;
    auto add = [&](const std::string &key) { text += " " + roles.at(key); };
    for (const auto &s : ipc.sets) add(s.key);
    text += " |";
    for (const auto &s : ipc.subscriptions) add(s.path);
    text += " |";
    for (const auto &key : ipc.gets) add(key);
    return text;
}

// A set as "key=value index<-member", without the root.
std::string described(const ScriptedIpc::SetCall &set) {
    return set.key.substr(root.size()) + "=" + set.value + " " + set.index_key.substr(root.size()) +
           "<-" + set.member;
}

// Contexts over a scripted IPC provider whose user_ctx is the fixture, so handlers find it.
class PolicyContextTest : public obs_test::LogCaptureTest {
  protected:
    void TearDown() override {
        obs_policy_ctx_free(ctx_);
        LogCaptureTest::TearDown();
    }
    obs_policy_ctx *create(obs_policy_handler_fn handler = record_policy) {
        obs_policy_ctx_free(ctx_);
        ctx_ = obs_policy_ctx_init(this, "svc", handler, scripted_.table(), &provider_);
        return ctx_;
    }
    static PolicyContextTest *self(void *user) { return static_cast<PolicyContextTest *>(user); }
    // Handlers note what they were given as "service detail", and the policy handler how
    // many sets and subscriptions the IPC had seen by then.
    static void record_policy(obs_policy_ctx *ctx, const char *service, obs_policy *list,
                              void *user) {
        const ScriptedIpc &ipc = self(user)->scripted_;
        EXPECT_EQ(ipc.init_contexts.back(), ctx);
        self(user)->handled_.push_back(
            std::string(service) + " " + (list->reqid ? list->reqid : "") + " after " +
            std::to_string(ipc.sets.size()) + "+" + std::to_string(ipc.subscriptions.size()));
    }
    static void record_online(obs_policy_ctx *ctx, const char *service, const void *uid) {
        EXPECT_EQ(self(ctx->user_ctx)->ctx_, ctx);
        self(ctx->user_ctx)
            ->handled_.push_back(std::string(service) + " " + static_cast<const char *>(uid));
    }
    static void count_and_free(obs_policy_ctx *ctx) {
        ++self(ctx->user_ctx)->ctx_frees_;
        free(ctx);
    }

    ScriptedIpc scripted_;
    obs_sdk_policy_provider provider_ = probe();
    obs_policy_ctx *ctx_ = nullptr;
    std::vector<std::string> handled_;
    int ctx_frees_ = 0;
};

TEST_F(PolicyContextTest, AnnouncesTheServiceThenHandsTheStoredDefaultPolicyOver) {
    obs_policy stored = {};
    stored.reqid = const_cast<char *>("stored");
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&stored, &text, &len);
    scripted_.stored[default_key] = std::string(text, len);
    free(text);
    scripted_.result = 5;
    provider_.service_online_handler = record_online;
    const long long before = time(nullptr);
    int creator = 0;
    // On a thread of its own, so that its id is not the process id.
    std::thread([&] {
        creator = obs_gettid();
        create();
    }).join();
    ASSERT_NE(nullptr, ctx_);
    ASSERT_EQ(3u, scripted_.sets.size());
    const std::string uid = scripted_.sets[1].value;
    EXPECT_EQ((std::vector<std::string>{
                  "service{svc}/policysdk{probe}/version=2.5 service{svc}/policysdk_keys<-probe",
                  "service{svc}/uid=" + uid + " service_keys<-svc",
                  "service{svc}/scope{default}/name=default service{svc}/scope_keys<-default"}),
              (std::vector<std::string>{described(scripted_.sets[0]), described(scripted_.sets[1]),
                                        described(scripted_.sets[2])}));
    EXPECT_EQ(" sdk uid scope | policies online | default", calls(scripted_));
    EXPECT_EQ(&sdk_policy_subscribe_handler, scripted_.subscriptions[0].handler);
    EXPECT_EQ(&sdk_policy_service_online_handler, scripted_.subscriptions[1].handler);
    EXPECT_EQ(std::vector<std::string>{"svc stored after 3+2"}, handled_);
    const std::string at = "obs_policy_ctx_init:N ";
    EXPECT_EQ(
        (std::vector<std::string>{
            at + "provider ipc=scripted/9.9(evloop=" + pointer_text(&scripted_) +
                ") policy=probe/2.5 handler=" +
                pointer_text(reinterpret_cast<void *>(&record_policy)) +
                " init=" + pointer_text(&scripted_),
            at + "register and subscribe sdk=probe ret=5 ret2=5",
            at + "register path=" + uid_key + " ret=5 default scope ret=5 uid=" + uid,
            at + "try load policy=" + default_key + " len=" + std::to_string(len) + " ret=0"}),
        unnumbered_lines("obs_policy_ctx_init"));

    long long nsec = 0;
    EXPECT_EQ(reprinted_uid(uid, &nsec), uid);
    EXPECT_EQ(std::to_string(creator), uid.substr(0, uid.find('-')));
    EXPECT_TRUE(std::stoll(uid.substr(uid.find('-') + 1)) >= before && nsec < 1000000000);
    // Padding would show below 10^8 nanoseconds only: one more instance just after a second.
    if (nsec >= 100000000) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        std::this_thread::sleep_for(std::chrono::nanoseconds(1001000000 - now.tv_nsec));
        scripted_.sets.clear();
        create(nullptr);
        const std::string next = scripted_.sets.at(0).value;
        EXPECT_EQ(reprinted_uid(next, &nsec), next);
        EXPECT_LT(nsec, 100000000);
    }
}

TEST_F(PolicyContextTest, HandlerAndIpcSlotsDecideWhatIsRegisteredSubscribedAndLoaded) {
    const struct {
        const char *without;
        bool handler, online;
        const char *calls;
    } cases[] = {
        {"", true, true, " sdk uid scope | policies online | default"},
        {"", false, true, " uid scope | online |"},
        {"set", true, true, " | online | default"},
        {"subscribe", true, true, " uid scope | |"},
        {"get", true, false, " sdk uid scope | policies |"},
    };
    const obs_ipc_provider all_slots = *scripted_.table();
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        *scripted_.table() = all_slots;
        const std::string without = c.without;
        if (without == "set") scripted_.table()->set = nullptr;
        if (without == "subscribe") scripted_.table()->subscribe = nullptr;
        if (without == "get") scripted_.table()->get = nullptr;
        scripted_.sets.clear();
        scripted_.subscriptions.clear();
        scripted_.gets.clear();
        provider_.service_online_handler = c.online ? record_online : nullptr;
        ASSERT_NE(nullptr, create(c.handler ? record_policy : nullptr));
        EXPECT_EQ(c.calls, calls(scripted_));
    }
}

TEST_F(PolicyContextTest, RefusalsGiveNullAfterTheirLines) {
    const std::vector<std::string> bad_name = {"invalid name, '{', '}' not allowed",
                                               "obs_policy_ctx_init:N not valid service name"};
    const std::string no_provider =
        "obs_policy_ctx_init:N fail, policy provider not found, "
        "or name/version is empty, service=svc";
    const std::string no_ipc = "obs_policy_ctx_init:N fail, ipc provider not found";
    const std::string no_init =
        "obs_policy_ctx_init:N fail to run init, ctx=" + pointer_text(this) + ", name=svc";
    const obs_policy_init_fn failing = [](void *, const char *) -> obs_policy_ctx * {
        return nullptr;
    };
    const struct {
        const char *service;
        bool ipc, has_provider;
        obs_sdk_policy_provider provider;
        std::vector<std::string> lines;
    } cases[] = {
        {"a{b", true, true, probe(), bad_name},
        {nullptr, true, true, probe(), bad_name},
        {"svc", false, true, probe(), {no_ipc}},
        {"svc", true, false, probe(), {no_provider}},
        {"svc", true, true, probe("probe", ""), {no_provider}},
        {"svc", true, true, probe(nullptr), {no_provider}},
        {"svc", true, true, probe("probe", "2.5", failing), {no_init}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        obs_test::clear_captured_lines();
        obs_sdk_policy_provider provider = c.provider;
        EXPECT_EQ(nullptr, obs_policy_ctx_init(this, c.service, record_policy,
                                               c.ipc ? scripted_.table() : nullptr,
                                               c.has_provider ? &provider : nullptr));
        EXPECT_EQ(c.lines, unnumbered_lines());
    }
    EXPECT_TRUE(scripted_.init_contexts.empty() && scripted_.sets.empty());
}

TEST_F(PolicyContextTest, FreeReleasesTheIpcOnceAndTheContextThroughTheProvider) {
    provider_.ctx_free = count_and_free;
    create(nullptr);
    obs_policy_ctx_free(ctx_);
    ctx_ = nullptr;
    EXPECT_EQ(1, scripted_.frees);
    EXPECT_EQ(1, ctx_frees_);
    provider_.ctx_free = nullptr;  // released with free: ASan tells a leak or a double free
    scripted_.table()->free = nullptr;
    create(nullptr);
    obs_policy_ctx_free(ctx_);
    ctx_ = nullptr;
    EXPECT_EQ(1, scripted_.frees);
    EXPECT_EQ(1, ctx_frees_);
    obs_policy_ctx_free(nullptr);
}

TEST_F(PolicyContextTest, RegisterScopeRefusesBadArgumentsAndCutsItsIndexKey) {
    ASSERT_NE(nullptr, create(nullptr));
    scripted_.sets.clear();
    scripted_.result = 7;
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, "a{b", "net"));
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, "svc", "n}t"));
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, nullptr, "net"));
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, "svc", ""));
    EXPECT_EQ(-1, obs_policy_register_scope(nullptr, "svc", "net"));
    const auto set = scripted_.table()->set;
    scripted_.table()->set = nullptr;
    EXPECT_EQ(-1, obs_policy_register_scope(ctx_, "svc", "net"));
    scripted_.table()->set = set;
    EXPECT_TRUE(scripted_.sets.empty());

    EXPECT_EQ(7, obs_policy_register_scope(ctx_, "svc", "default"));
    EXPECT_EQ(7, obs_policy_register_scope(ctx_, "svc", "default"));
    ASSERT_EQ(2u, scripted_.sets.size());
    for (const auto &s : scripted_.sets) {
        EXPECT_EQ(root + "service{svc}/scope{default}/name", s.key);
        EXPECT_EQ("default", s.value);
        EXPECT_EQ("default", s.member);
    }
    const std::string service(300, 's');
    EXPECT_EQ(7, obs_policy_register_scope(ctx_, service.c_str(), "net"));
    EXPECT_EQ(root + "service{" + service + "}/scope{net}/name", scripted_.sets.back().key);
    EXPECT_EQ((root + "service{" + service + "}/scope_keys").substr(0, 255),
              scripted_.sets.back().index_key);
}

TEST_F(PolicyContextTest, ServiceOnlineSubscribesToTheNamedOrEveryServiceUid) {
    const struct {
        const char *service;
        obs_policy_service_online_fn fn;
        bool subscribe;
        std::vector<std::string> subscribed, lines;
    } cases[] = {
        {"svcA", record_online, true, {uid_key_of("svcA")}, {online_line("svcA")}},
        {nullptr, record_online, true, {uid_key_of("*")}, {online_line("*")}},
        {"*", record_online, true, {uid_key_of("*")}, {online_line("*")}},
        {"a}b", record_online, true, {}, {"invalid name, '{', '}' not allowed"}},
        {"svcA", nullptr, true, {}, {}},
        {"svcA", record_online, false, {}, {}},
    };
    ASSERT_NE(nullptr, create(nullptr));
    for (const auto &c : cases) {
        SCOPED_TRACE(c.service ? c.service : "null");
        obs_test::clear_captured_lines();
        scripted_.subscriptions.clear();
        if (!c.subscribe) scripted_.table()->subscribe = nullptr;
        provider_.service_online_handler = reinterpret_cast<obs_policy_service_online_fn>(1);
        obs_policy_set_service_online(ctx_, c.service, c.fn);
        EXPECT_EQ(c.fn, provider_.service_online_handler);
        std::vector<std::string> subscribed;
        for (const auto &s : scripted_.subscriptions) {
            subscribed.push_back(s.path);
            EXPECT_EQ(&sdk_policy_service_online_handler, s.handler);
        }
        EXPECT_EQ(c.subscribed, subscribed);
        EXPECT_EQ(c.lines, unnumbered_lines());
    }
}

TEST_F(PolicyContextTest, OnlineEventsForwardServiceAndUidUnlessEmptyOrUnnamed) {
    ASSERT_NE(nullptr, create(nullptr));
    provider_.service_online_handler = record_online;
    const std::string path = uid_key_of("svcA");
    const char uid[] = "12-3-4";
    obs_test::clear_captured_lines();
    sdk_policy_service_online_handler(ctx_, 1, path.c_str(), path.c_str(), uid, sizeof uid);
    EXPECT_EQ(std::vector<std::string>{"svcA 12-3-4"}, handled_);
    EXPECT_EQ(
        (std::vector<std::string>{"sdk_policy_service_online_handler:N path=" + path + " len=7"}),
        unnumbered_lines());
    sdk_policy_service_online_handler(ctx_, 1, path.c_str(), "", nullptr, 7);
    sdk_policy_service_online_handler(ctx_, 1, path.c_str(), "", uid, 0);
    sdk_policy_service_online_handler(nullptr, 1, path.c_str(), "", uid, 7);
    sdk_policy_service_online_handler(ctx_, 1, "/no/service/uid", "", uid, 7);
    provider_.service_online_handler = nullptr;
    sdk_policy_service_online_handler(ctx_, 1, path.c_str(), "", uid, 7);
    EXPECT_EQ(1u, handled_.size());
}

}  // namespace
