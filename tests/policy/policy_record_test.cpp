#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "observability_api.h"

namespace {

const char *const kInvalidNameLine = "invalid name, '{', '}' not allowed";

std::vector<std::string> log_lines;

int capture_line(int, const char *line) {
    log_lines.emplace_back(line);
    return 0;
}

class LoggedTest : public testing::Test {
  protected:
    void SetUp() override {
        log_lines.clear();
        obs_log_callback_set(capture_line);
    }
    void TearDown() override { obs_log_callback_set(nullptr); }
};

void *copy_bytes(const void *bytes, size_t n) {
    void *copy = malloc(n);
    memcpy(copy, bytes, n);
    return copy;
}

// Every field set; the byte payloads hold a NUL so only a copy by length gets them whole.
obs_policy *full_record(const char *name) {
    auto *record = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    record->type = 7;
    record->op = 4;
    record->format = OBS_POLICY_FORMAT_RAW_BYTES | OBS_POLICY_FORMAT_CODEC_TEXT;
    record->codec_vlen = 6;
    record->codec_val = copy_bytes("ab\0cd", 6);
    record->raw_vlen = 5;
    record->raw_val = copy_bytes("r\0aw", 5);
    record->seq_id = 0x1122334455667788ull;
    record->dispatch_flags = 0x20;
    record->path = strdup("/kuv/opa/service{svc}/scope{default}/obs");
    record->name = strdup(name);
    record->reqid = strdup("req-1");
    record->traceid = strdup("trace-1");
    return record;
}

obs_policy *list_of(std::initializer_list<const char *> names) {
    obs_policy *head = nullptr, **link = &head;
    for (const char *name : names) {
        *link = full_record(name);
        link = &(*link)->next;
    }
    return head;
}

using DefaultProviderTest = LoggedTest;

TEST_F(DefaultProviderTest, InvalidNamesGiveNullWithTheLogLine) {
    for (const char *name : {static_cast<const char *>(nullptr), "a{b", "a}"}) {
        log_lines.clear();
        EXPECT_EQ(nullptr, obs_create_default_sdk_policy_provider(name));
        EXPECT_EQ(std::vector<std::string>{kInvalidNameLine}, log_lines);
    }
}

TEST_F(DefaultProviderTest, ValidNameGivesATemplateCopyWithItsOwnName) {
    char name[] = "custom";
    obs_sdk_policy_provider *provider = obs_create_default_sdk_policy_provider(name);
    ASSERT_NE(nullptr, provider);
    name[0] = 'X';
    EXPECT_EQ(uint32_t{OBS_POLICY_PROVIDER_DEFAULT}, provider->type);
    EXPECT_STREQ("custom", provider->name);
    EXPECT_STREQ("1.0", provider->version);
    EXPECT_EQ(&obs_policy_init, provider->init);
    EXPECT_EQ(&obs_policy_free, provider->free);
    EXPECT_EQ(nullptr, provider->ctx_free);
    EXPECT_EQ(nullptr, provider->service_online_handler);
    EXPECT_EQ(nullptr, provider->service_report_handler);
    EXPECT_EQ(nullptr, provider->policy_translator);
    EXPECT_EQ(nullptr, provider->dispatch_translator);
    free(const_cast<char *>(provider->name));
    free(provider);
}

TEST_F(DefaultProviderTest, EachCallGivesAnIndependentTable) {
    obs_sdk_policy_provider *first = obs_create_default_sdk_policy_provider("one");
    first->free = nullptr;
    obs_sdk_policy_provider *second = obs_create_default_sdk_policy_provider("two");
    ASSERT_NE(first, second);
    EXPECT_EQ(&obs_policy_free, second->free);
    for (obs_sdk_policy_provider *provider : {first, second}) {
        free(const_cast<char *>(provider->name));
        free(provider);
    }
}

struct built_in {
    obs_sdk_policy_provider *(*get)();
    uint32_t type;
    const char *name;
};

void PrintTo(const built_in &record, std::ostream *out) {
    *out << record.name;
}

class BuiltInProviderTest : public testing::TestWithParam<built_in> {};

TEST_P(BuiltInProviderTest, GetterReturnsTheSameTableEveryTime) {
    const built_in &expected = GetParam();
    obs_sdk_policy_provider *provider = expected.get();
    EXPECT_EQ(provider, expected.get());
    EXPECT_EQ(expected.type, provider->type);
    EXPECT_STREQ(expected.name, provider->name);
    EXPECT_STREQ("1.0", provider->version);
    EXPECT_EQ(&obs_policy_init, provider->init);
    EXPECT_EQ(nullptr, provider->ctx_free);
    EXPECT_EQ(nullptr, provider->dispatch_translator);
}

TEST_P(BuiltInProviderTest, HookSetThroughOneContextIsSeenByAnother) {
    obs_sdk_policy_provider *provider = GetParam().get();
    const obs_sdk_policy_provider saved = *provider;
    obs_policy_ctx setter{}, viewer{};
    setter.provider = viewer.provider = provider;
    obs_policy_translator_fn translator = [](void *, const char *, obs_policy *) {
        return static_cast<obs_policy *>(nullptr);
    };
    obs_policy_dispatch_translator_fn dispatcher = [](obs_policy_ctx *, obs_policy *) {
        return static_cast<obs_policy *>(nullptr);
    };
    obs_policy_free_fn release = [](obs_policy *) {};
    obs_policy_set_policy_translator(&setter, translator);
    obs_policy_set_dispatch_translator(&setter, dispatcher);
    obs_policy_set_free(&setter, release);
    EXPECT_EQ(translator, viewer.provider->policy_translator);
    EXPECT_EQ(dispatcher, viewer.provider->dispatch_translator);
    EXPECT_EQ(release, viewer.provider->free);
    EXPECT_EQ(provider, GetParam().get());
    *provider = saved;
}

INSTANTIATE_TEST_SUITE_P(
    Records, BuiltInProviderTest,
    testing::Values(built_in{obs_get_monitor_sdk_policy_provider, 0x80, "monitor"},
                    built_in{obs_get_ot_sdk_policy_provider, 0x20, "obs"},
                    built_in{obs_get_ot_monitor_sdk_policy_provider, 0x80, "obs-monitor"}),
    [](const testing::TestParamInfo<built_in> &info) {
        std::string name = info.param.name;
        for (char &c : name) {
            if (c == '-') c = '_';
        }
        return name;
    });

TEST(BuiltInProviders, AreThreeDistinctTablesAndMonitorFreesPlainly) {
    obs_sdk_policy_provider *monitor = obs_get_monitor_sdk_policy_provider();
    EXPECT_NE(monitor, obs_get_ot_sdk_policy_provider());
    EXPECT_NE(monitor, obs_get_ot_monitor_sdk_policy_provider());
    EXPECT_NE(obs_get_ot_sdk_policy_provider(), obs_get_ot_monitor_sdk_policy_provider());
    EXPECT_EQ(&obs_policy_free, monitor->free);
    EXPECT_EQ(nullptr, monitor->policy_translator);
}

using PolicyInitTest = LoggedTest;

TEST_F(PolicyInitTest, InvalidServiceNameGivesNull) {
    int user = 0;
    EXPECT_EQ(nullptr, obs_policy_init(&user, "svc{"));
    EXPECT_EQ(nullptr, obs_policy_init(&user, ""));
    EXPECT_EQ((std::vector<std::string>{kInvalidNameLine, kInvalidNameLine}), log_lines);
}

TEST_F(PolicyInitTest, ValidNameGivesAZeroedContextWithItsOwnNameCopy) {
    int user = 0;
    char service[] = "svc";
    obs_policy_ctx *ctx = obs_policy_init(&user, service);
    ASSERT_NE(nullptr, ctx);
    service[0] = 'X';
    EXPECT_EQ(&user, ctx->user_ctx);
    EXPECT_STREQ("svc", ctx->service_name);
    EXPECT_EQ(nullptr, ctx->provider);
    EXPECT_EQ(nullptr, ctx->ipc);
    EXPECT_EQ(nullptr, ctx->ipc_ctx);
    EXPECT_EQ(nullptr, ctx->handler);
    EXPECT_TRUE(log_lines.empty());
    free(ctx->service_name);
    free(ctx);
}

void expect_own_text(const char *source, const char *copy) {
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(source, copy);
    EXPECT_STREQ(source, copy);
}

void expect_own_bytes(const void *source, const void *copy, size_t n) {
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(source, copy);
    EXPECT_EQ(0, memcmp(source, copy, n));
}

TEST(PolicyCloneTest, CopiesEveryFieldIntoItsOwnBuffers) {
    obs_policy_ctx owner{};
    obs_policy *source = list_of({"obs", "second"});
    source->owner = &owner;
    obs_policy *copy = obs_policy_clone_one(source, 1);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(source->type, copy->type);
    EXPECT_EQ(source->op, copy->op);
    EXPECT_EQ(source->format, copy->format);
    EXPECT_EQ(source->codec_vlen, copy->codec_vlen);
    EXPECT_EQ(source->raw_vlen, copy->raw_vlen);
    EXPECT_EQ(source->seq_id, copy->seq_id);
    EXPECT_EQ(source->dispatch_flags, copy->dispatch_flags);
    EXPECT_EQ(&owner, copy->owner);
    EXPECT_EQ(nullptr, copy->next);
    expect_own_text(source->path, copy->path);
    expect_own_text(source->name, copy->name);
    expect_own_text(source->reqid, copy->reqid);
    expect_own_text(source->traceid, copy->traceid);
    expect_own_bytes(source->codec_val, copy->codec_val, 6);
    expect_own_bytes(source->raw_val, copy->raw_val, 5);
    source->owner = nullptr;
    obs_policy_free(source);
    copy->owner = nullptr;
    obs_policy_free(copy);
}

TEST(PolicyCloneTest, WithoutCodecFlagDropsTheCodecButKeepsTheFormat) {
    obs_policy *source = full_record("obs");
    obs_policy *copy = obs_policy_clone_one(source, 0);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(nullptr, copy->codec_val);
    EXPECT_EQ(0u, copy->codec_vlen);
    EXPECT_EQ(source->format, copy->format);
    expect_own_bytes(source->raw_val, copy->raw_val, 5);
    obs_policy_free(source);
    obs_policy_free(copy);
}

TEST(PolicyCloneTest, ZeroLengthsGiveNoPayloadCopies) {
    obs_policy *source = full_record("obs");
    source->raw_vlen = 0;
    source->codec_vlen = 0;
    obs_policy *copy = obs_policy_clone_one(source, 1);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(nullptr, copy->raw_val);
    EXPECT_EQ(0u, copy->raw_vlen);
    EXPECT_EQ(nullptr, copy->codec_val);
    EXPECT_EQ(0u, copy->codec_vlen);
    obs_policy_free(source);
    obs_policy_free(copy);
}

TEST(PolicyCloneTest, MissingTextsStayMissing) {
    auto *source = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    source->op = 2;
    obs_policy *copy = obs_policy_clone_one(source, 1);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(2, copy->op);
    EXPECT_EQ(nullptr, copy->path);
    EXPECT_EQ(nullptr, copy->name);
    EXPECT_EQ(nullptr, copy->reqid);
    EXPECT_EQ(nullptr, copy->traceid);
    obs_policy_free(source);
    obs_policy_free(copy);
}

TEST(PolicyCloneTest, TranslatedMarkIsNeverCarriedOtherMarksAre) {
    obs_policy *source = full_record("obs");
    source->dispatch_flags = 0x20 | 0x4 | OBS_POLICY_FLAG_TRANSLATED;
    obs_policy *copy = obs_policy_clone_one(source, 1);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(0x24u, copy->dispatch_flags);
    obs_policy_free(source);
    obs_policy_free(copy);
}

TEST(PolicyCloneTest, NullSourceGivesNull) {
    EXPECT_EQ(nullptr, obs_policy_clone_one(nullptr, 1));
}

// A provider whose free hook records its calls and then releases the list plainly.
struct hook_record {
    int calls = 0;
    obs_policy *list = nullptr;
    obs_policy_ctx *owner_seen = nullptr;
};
hook_record hook;

void recording_free(obs_policy *list) {
    ++hook.calls;
    hook.list = list;
    hook.owner_seen = list->owner;
    obs_policy_free(list);
}

class PolicyFreeTest : public testing::Test {
  protected:
    void SetUp() override {
        hook = hook_record{};
        provider.free = recording_free;
        owner.provider = &provider;
    }
    obs_sdk_policy_provider provider{};
    obs_policy_ctx owner{};
};

TEST_F(PolicyFreeTest, PlainPathReleasesEveryRecord) {
    obs_policy_free(list_of({"a", "b", "c"}));
    obs_policy_free(nullptr);
    EXPECT_EQ(0, hook.calls);
}

TEST_F(PolicyFreeTest, OwnersFreeGetsTheWholeListOnceWithTheOwnerCleared) {
    obs_policy *list = list_of({"a", "b", "c"});
    list->owner = &owner;
    obs_policy_free(list);
    EXPECT_EQ(1, hook.calls);
    EXPECT_EQ(list, hook.list);
    EXPECT_EQ(nullptr, hook.owner_seen);
}

TEST_F(PolicyFreeTest, OnlyTheFirstRecordsOwnerCounts) {
    obs_policy *list = list_of({"a", "b"});
    list->next->owner = &owner;
    obs_policy_free(list);
    EXPECT_EQ(0, hook.calls);
}

TEST_F(PolicyFreeTest, OwnerWithoutAFreeHookTakesThePlainPath) {
    provider.free = nullptr;
    obs_policy *list = list_of({"a", "b"});
    list->owner = &owner;
    obs_policy_free(list);
    obs_policy_ctx no_provider{};
    list = list_of({"c"});
    list->owner = &no_provider;
    obs_policy_free(list);
    EXPECT_EQ(0, hook.calls);
}

TEST(LockAndTlsApiTest, AcceptAnyPointerAndChangeNothing) {
    obs_sdk_policy_provider before = *obs_get_monitor_sdk_policy_provider();
    int api = 0;
    obs_set_lock_api(nullptr);
    obs_set_lock_api(&api);
    obs_set_tls_api(nullptr);
    obs_set_tls_api(&api);
    EXPECT_EQ(0, api);
    EXPECT_EQ(0, memcmp(&before, obs_get_monitor_sdk_policy_provider(), sizeof before));
}

}  // namespace
