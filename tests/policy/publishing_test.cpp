#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/scripted_ipc.h"

namespace {

const std::string root = OBS_IPC_KEY_ROOT;

std::string policy_key(const std::string &service, const std::string &scope,
                       const std::string &sdk) {
    return root + "service{" + service + "}/scope{" + scope + "}/" + sdk;
}

struct service_spec {
    const char *name;
    std::vector<const char *> scopes, sdks;
};

char **copies(const std::vector<const char *> &names) {
    auto **array = static_cast<char **>(malloc(names.size() * sizeof(char *) + 1));
    for (size_t i = 0; i < names.size(); ++i) array[i] = strdup(names[i]);
    return array;
}

using directory_ptr = std::unique_ptr<obs_policy_service, decltype(&obs_policy_free_service)>;

directory_ptr directory_of(const std::vector<service_spec> &specs) {
    obs_policy_service *head = nullptr, **link = &head;
    for (const service_spec &spec : specs) {
        auto *entry = static_cast<obs_policy_service *>(calloc(1, sizeof(obs_policy_service)));
        *entry = {strdup(spec.name),
                  copies(spec.scopes),
                  static_cast<uint32_t>(spec.scopes.size()),
                  copies(spec.sdks),
                  static_cast<uint32_t>(spec.sdks.size()),
                  nullptr};
        *link = entry;
        link = &entry->next;
    }
    return directory_ptr(head, obs_policy_free_service);
}

obs_policy *decoded(const std::string &bytes) {
    obs_policy *record = nullptr;
    obs_policy_internal_decode(bytes.data(), static_cast<uint32_t>(bytes.size()), &record);
    return record;
}

obs_sdk_policy_provider named_provider(uint32_t type, const char *name) {
    obs_sdk_policy_provider provider = {};
    provider.type = type;
    provider.name = name;
    return provider;
}

// A publishing context over a scripted IPC provider, made by hand, and a directory of three
// services: two that registered "obs" with the scopes "default" and "net", one with another SDK.
class PublishingTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ctx_ = static_cast<obs_policy_ctx *>(calloc(1, sizeof(obs_policy_ctx)));
        ctx_->service_name = strdup("agent");
        ctx_->provider = &provider_;
        ctx_->ipc = scripted_.table();
        ctx_->ipc_ctx = &scripted_;
    }
    void TearDown() override {
        free(ctx_->service_name);
        free(ctx_);
        LogCaptureTest::TearDown();
    }

    // The keys written, stores first, then transient sends.
    std::vector<std::string> written_keys() const {
        std::vector<std::string> keys;
        for (const auto &set : scripted_.sets) keys.push_back(set.key);
        for (const auto &send : scripted_.sends) keys.push_back(send.key);
        return keys;
    }
    void forget_calls() {
        scripted_.sets.clear();
        scripted_.sends.clear();
        obs_test::clear_captured_lines();
    }

    obs_test::ScriptedIpc scripted_;
    obs_sdk_policy_provider provider_ = named_provider(OBS_POLICY_PROVIDER_SDK, "obs");
    obs_policy_ctx *ctx_ = nullptr;
    directory_ptr directory_ = directory_of({{"svcA", {"default", "net"}, {"obs"}},
                                             {"svcB", {"default", "net"}, {"obs"}},
                                             {"svcC", {"default"}, {"other"}}});
};

TEST_F(PublishingTest, RecordsReachTheScopesThatTargetAndPathSelect) {
    const char *any = "/t/service{*}/scope{*}/obs";
    const struct {
        uint32_t type;
        const char *name, *path, *target;
        int result;
        std::vector<std::string> keys;
    } cases[] = {
        {0x20,
         "obs",
         nullptr,
         nullptr,
         0,
         {policy_key("svcA", "default", "obs"), policy_key("svcB", "default", "obs")}},
        {0x20,
         "obs",
         nullptr,
         any,
         0,
         {policy_key("svcA", "default", "obs"), policy_key("svcB", "default", "obs")}},
        {0x20,
         "obs",
         nullptr,
         "/t/service{svcB}/scope{default}/obs",
         0,
         {policy_key("svcB", "default", "obs")}},
        {0x20,
         "obs",
         nullptr,
         "/t/service{*}/scope{net}/obs",
         0,
         {policy_key("svcA", "net", "obs"), policy_key("svcB", "net", "obs")}},
        {0x20, "obs", nullptr, "/t/service{*}/scope{default}/other", -3, {}},
        {0x20, "other", nullptr, nullptr, 0, {policy_key("svcC", "default", "other")}},
        {0x20,
         nullptr,
         "/kuv/opa/service{svcA}/scope{default}/obs",
         nullptr,
         0,
         {policy_key("svcA", "default", "obs")}},
        {0x20,
         nullptr,
         "/kuv/opa/service{*}/scope{*}/obs",
         nullptr,
         0,
         {policy_key("svcA", "default", "obs"), policy_key("svcB", "default", "obs")}},
        {0x10,
         nullptr,
         "/kuv/opa/service{*}/scope{*}/*",
         nullptr,
         0,
         {policy_key("svcA", "default", "obs"), policy_key("svcB", "default", "obs")}},
        // Scope taken from the path and the target must agree.
        {0x20, "obs", "/kuv/opa/service{*}/scope{net}/obs", nullptr, 0, {}},
        {0x20,
         "obs",
         "/kuv/opa/service{*}/scope{net}/obs",
         "/t/service{*}/scope{net}/obs",
         0,
         {policy_key("svcA", "net", "obs"), policy_key("svcB", "net", "obs")}},
        {0x20, "obs", "/kuv/opa/service{*}/scope{*}/other", any, 0, {}},
        // A monitor sends to the target scope of every service with its SDK, registered or not.
        {0x80,
         "whatever",
         "/kuv/opa/service{svcA}/scope{net}/x",
         "/t/service{*}/scope{new}/obs",
         0,
         {policy_key("svcA", "new", "obs"), policy_key("svcB", "new", "obs")}},
        {0x80,
         nullptr,
         "/kuv/opa/service{svcA}/scope{net}/obs",
         nullptr,
         0,
         {policy_key("svcA", "default", "obs"), policy_key("svcB", "default", "obs")}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.type << " " << (c.name ? c.name : "-") << " " << (c.path ? c.path : "-")
                     << " " << (c.target ? c.target : "-"));
        forget_calls();
        provider_.type = c.type;
        obs_policy rec = {};
        rec.op = 1;
        rec.name = const_cast<char *>(c.name);
        rec.path = const_cast<char *>(c.path);
        EXPECT_EQ(c.result, obs_policy_publish(ctx_, &rec, c.target, directory_.get()));
        EXPECT_EQ(c.keys, written_keys());
        const std::vector<std::string> logged = unnumbered_lines("obs_policy_publish");
        ASSERT_EQ(1u, logged.size());
        EXPECT_EQ(c.keys.size(), unnumbered_lines("obs_policy_ipc_send").size());
        EXPECT_EQ(std::string("obs_policy_publish:N policy=") + (c.name ? c.name : "NA") +
                      " sdk=obs target=" +
                      (c.target ? c.target
                       : c.path ? c.path
                                : "NA"),
                  logged[0]);
    }
}

TEST_F(PublishingTest, PublishRefusesWithoutIpcRecordDirectoryOrProviderName) {
    obs_policy rec = {};
    rec.name = const_cast<char *>("obs");
    const struct {
        const char *what;
        void (*spoil)(obs_policy_ctx *);
        int result;
    } cases[] = {
        {"no list", [](obs_policy_ctx *c) { c->ipc->list = nullptr; }, -1},
        {"no set", [](obs_policy_ctx *c) { c->ipc->set = nullptr; }, -1},
        {"no ipc context", [](obs_policy_ctx *c) { c->ipc_ctx = nullptr; }, -1},
        {"no ipc", [](obs_policy_ctx *c) { c->ipc = nullptr; }, -1},
        {"no provider", [](obs_policy_ctx *c) { c->provider = nullptr; }, -2},
        {"no provider name", [](obs_policy_ctx *c) { c->provider->name = nullptr; }, -2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        obs_test::ScriptedIpc scripted;
        obs_sdk_policy_provider provider = provider_;
        obs_policy_ctx ctx = {nullptr, nullptr, &provider, scripted.table(), &scripted, nullptr};
        c.spoil(&ctx);
        obs_test::clear_captured_lines();
        EXPECT_EQ(c.result, obs_policy_publish(&ctx, &rec, nullptr, directory_.get()));
        EXPECT_TRUE(scripted.sets.empty() && scripted.sends.empty());
        EXPECT_EQ(c.result == -1 ? std::vector<std::string>{"obs_policy_publish:N no any ipc "
                                                            "provider found"}
                                 : std::vector<std::string>{},
                  unnumbered_lines());
    }
    EXPECT_EQ(-1, obs_policy_publish(nullptr, &rec, nullptr, directory_.get()));
    EXPECT_EQ(-2, obs_policy_publish(ctx_, nullptr, nullptr, directory_.get()));
    EXPECT_EQ(-2, obs_policy_publish(ctx_, &rec, nullptr, nullptr));
}

TEST_F(PublishingTest, DispatchTakesRecordsByProviderClassAndMarksNamedSdkClaims) {
    const struct {
        uint32_t type;
        const char *provider_name, *record_name;
        uint32_t flags_before;
        size_t sent;
        uint32_t flags_after;
    } cases[] = {
        {0x20, "obs", "obs", 0, 2, 0x20}, {0x10, "obs", "obs", 0x20, 0, 0x20},
        {0x10, "dflt", "obs", 0, 2, 0},   {0x20, "obs", "other", 0, 0, 0},
        {0x20, "obs", nullptr, 0, 0, 0},  {0x10, "obs", nullptr, 0, 0, 0},
        {0x80, "obs", nullptr, 0, 2, 0},  {0x80, "obs", "other", 0x20, 2, 0x20},
    };
    char translator_text[32];
    snprintf(translator_text, sizeof translator_text, "%p", static_cast<void *>(nullptr));
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << " " << (c.record_name ? c.record_name : "-")
                                        << " " << c.flags_before);
        forget_calls();
        provider_ = named_provider(c.type, c.provider_name);
        obs_policy rec = {};
        rec.op = 1;
        rec.name = const_cast<char *>(c.record_name);
        rec.raw_vlen = 0;
        rec.dispatch_flags = c.flags_before;
        EXPECT_EQ(0, obs_policy_dispatch(ctx_, &rec, nullptr, directory_.get()));
        EXPECT_EQ(c.sent, written_keys().size());
        EXPECT_EQ(c.flags_after, rec.dispatch_flags);
        const std::vector<std::string> logged = unnumbered_lines("obs_policy_dispatch");
        if (c.sent == 0) {
            EXPECT_TRUE(logged.empty());
        } else {
            ASSERT_FALSE(logged.empty());
            EXPECT_EQ(std::string("obs_policy_dispatch:N sdk(") + c.provider_name +
                          ") translator=" + translator_text +
                          ", path=NA name=" + (c.record_name ? c.record_name : "NA") + " len=0",
                      logged[0]);
        }
    }
}

TEST_F(PublishingTest, DispatchRefusesWithoutListContextOrProvider) {
    obs_policy rec = {};
    EXPECT_EQ(-1, obs_policy_dispatch(ctx_, nullptr, nullptr, directory_.get()));
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(-1, obs_policy_dispatch(nullptr, &rec, nullptr, directory_.get()));
    ctx_->provider = nullptr;
    EXPECT_EQ(-1, obs_policy_dispatch(ctx_, &rec, nullptr, directory_.get()));
    EXPECT_EQ(std::vector<std::string>(2, "obs_policy_dispatch:N no any policy provider found"),
              unnumbered_lines());
}

// What the translators below were handed, and how often the provider released a result.
std::vector<std::string> translated_reqids;
int provider_frees = 0;

void counting_free(obs_policy *list) {
    ++provider_frees;
    obs_policy_free(list);
}

// Two new records per input, reqids suffixed "a" and "b", released through their owner.
obs_policy *split_in_two(obs_policy_ctx *ctx, obs_policy *record) {
    translated_reqids.push_back(std::string(record->reqid) + (record->next ? "+next" : ""));
    obs_policy *first = obs_policy_clone_one(record, 0);
    obs_policy *second = obs_policy_clone_one(record, 0);
    for (auto [copy, suffix] : {std::pair{first, "a"}, std::pair{second, "b"}}) {
        std::string reqid = std::string(record->reqid) + suffix;
        free(copy->reqid);
        copy->reqid = strdup(reqid.c_str());
    }
    first->next = second;
    first->owner = ctx;
    return first;
}

obs_policy *same_record(obs_policy_ctx *, obs_policy *record) {
    translated_reqids.push_back(record->reqid);
    return record;
}

obs_policy *nothing(obs_policy_ctx *, obs_policy *record) {
    translated_reqids.push_back(record->reqid);
    return nullptr;
}

// Under AddressSanitizer a result left unreleased, or the handed copy released, fails the test.
TEST_F(PublishingTest, EveryTranslatedRecordIsPublishedThenReleased) {
    const struct {
        obs_policy_dispatch_translator_fn translator;
        std::vector<std::string> sent_reqids;
        int frees;
    } cases[] = {
        {split_in_two, {"r1a", "r1a", "r1b", "r1b", "r2a", "r2a", "r2b", "r2b"}, 2},
        {same_record, {"r1", "r1", "r2", "r2"}, 0},
        {nothing, {}, 0},
    };
    for (const auto &c : cases) {
        forget_calls();
        translated_reqids.clear();
        provider_frees = 0;
        provider_.dispatch_translator = c.translator;
        provider_.free = counting_free;
        obs_policy second = {}, first = {};
        second.name = first.name = const_cast<char *>("obs");
        second.op = first.op = 1;
        first.reqid = const_cast<char *>("r1");
        second.reqid = const_cast<char *>("r2");
        first.next = &second;
        EXPECT_EQ(0, obs_policy_dispatch(ctx_, &first, nullptr, directory_.get()));
        EXPECT_EQ((std::vector<std::string>{"r1", "r2"}), translated_reqids);
        std::vector<std::string> sent_reqids;
        for (const auto &set : scripted_.sets) {
            obs_policy *sent = decoded(set.value);
            ASSERT_NE(nullptr, sent);
            sent_reqids.push_back(sent->reqid ? sent->reqid : "");
            obs_policy_free(sent);
        }
        EXPECT_EQ(c.sent_reqids, sent_reqids);
        EXPECT_EQ(c.frees, provider_frees);
    }
}

TEST_F(PublishingTest, IpcSendStoresUpToOpThreeAndSendsAboveWhenItCan) {
    const struct {
        uint8_t op;
        bool has_send, sent;
    } cases[] = {
        {1, true, false}, {3, true, false}, {4, true, true}, {5, true, true}, {4, false, false}};
    const std::string key = policy_key("svcA", "net", "obs");
    const auto send = scripted_.table()->send;
    scripted_.result = 9;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.op) << " " << c.has_send);
        forget_calls();
        scripted_.table()->send = c.has_send ? send : nullptr;
        obs_policy rec = {};
        rec.op = c.op;
        rec.name = const_cast<char *>("obs");
        obs_policy_ipc_send(ctx_, &rec, key.c_str(), "svcA", "net", "obs");
        ASSERT_EQ(1u, written_keys().size());
        EXPECT_EQ(c.sent, !scripted_.sends.empty());
        const std::string bytes = c.sent ? scripted_.sends[0].data : scripted_.sets[0].value;
        if (!c.sent) {
            EXPECT_EQ("", scripted_.sets[0].index_key + scripted_.sets[0].member);
        }
        obs_policy *sent = decoded(bytes);
        ASSERT_NE(nullptr, sent);
        EXPECT_EQ(c.op, sent->op);
        obs_policy_free(sent);
        EXPECT_EQ((std::vector<std::string>{"obs_policy_ipc_send:N to=" + key +
                                            " path=/kuv/opa/service{svcA}/scope{net}/obs vlen=" +
                                            std::to_string(bytes.size()) + " ret=9"}),
                  unnumbered_lines("obs_policy_ipc_send"));
    }
}

TEST_F(PublishingTest, SentPathKeepsTheRecordsRootOrTakesTheDefaultOne) {
    const std::string long_root(300, 'r');
    const struct {
        const char *path;
        std::string root;
    } cases[] = {
        {"/kuv/opa/service{old}/scope{x}/y", "/kuv/opa"},
        {"/agent/root/service{old}/scope{x}/y", "/agent/root"},
        {"/agent/root/scope{x}/y", "/kuv/opa"},
        {nullptr, "/kuv/opa"},
        {"/service{old}", ""},
    };
    std::string long_path = "/" + long_root + "/service{old}";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path ? c.path : "null");
        forget_calls();
        char *path = c.path ? strdup(c.path) : nullptr;
        obs_policy rec = {};
        rec.op = 1;
        rec.path = path;
        obs_policy_ipc_send(ctx_, &rec, "k", "svcA", "net", "obs");
        EXPECT_EQ(path, rec.path);
        if (path) {
            EXPECT_STREQ(c.path, rec.path);
        }
        ASSERT_EQ(1u, scripted_.sets.size());
        obs_policy *sent = decoded(scripted_.sets[0].value);
        ASSERT_TRUE(sent && sent->path);
        EXPECT_EQ(c.root + "/service{svcA}/scope{net}/obs", sent->path);
        obs_policy_free(sent);
        free(path);
    }
    forget_calls();
    obs_policy rec = {};
    rec.path = long_path.data();
    obs_policy_ipc_send(ctx_, &rec, "k", "svcA", "net", "obs");
    obs_policy *sent = decoded(scripted_.sets.at(0).value);
    ASSERT_TRUE(sent && sent->path);
    EXPECT_EQ("/" + long_root.substr(0, 254) + "/service{svcA}/scope{net}/obs", sent->path);
    obs_policy_free(sent);
    obs_policy_ipc_send(nullptr, &rec, "k", "svcA", "net", "obs");
    obs_policy_ipc_send(ctx_, &rec, nullptr, "svcA", "net", "obs");
    EXPECT_EQ(1u, scripted_.sets.size());
}

}  // namespace
