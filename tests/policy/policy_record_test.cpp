#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"

namespace {

using PolicyProviderTest = obs_test::LogCaptureTest;

void *copy_bytes(const void *bytes, size_t n) {
    return memcpy(malloc(n), bytes, n);
}

template <typename T>
T *on_heap(const T &value) {
    return static_cast<T *>(copy_bytes(&value, sizeof value));
}

// Every field set; the byte payloads hold a NUL so only a copy by length gets them whole.
obs_policy *full_record(const char *name, obs_policy *next = nullptr) {
    return on_heap(obs_policy{7, 4, OBS_POLICY_FORMAT_RAW_BYTES | OBS_POLICY_FORMAT_CODEC_TEXT, 6,
                              5, 0x1122334455667788ull, 0x24 | OBS_POLICY_FLAG_TRANSLATED,
                              strdup("/kuv/opa/service{svc}/scope{default}/obs"), strdup(name),
                              copy_bytes("ab\0cd", 6), copy_bytes("r\0aw", 5), nullptr,
                              strdup("req-1"), strdup("trace-1"), next});
}

TEST_F(PolicyProviderTest, InvalidNamesGiveNoProviderAndNoContext) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "a{b", "a}"}) {
        obs_test::clear_captured_lines();
        EXPECT_EQ(nullptr, obs_create_default_sdk_policy_provider(name));
        EXPECT_EQ(nullptr, obs_policy_init(nullptr, name));
        EXPECT_EQ(std::vector<std::string>(2, "invalid name, '{', '}' not allowed"), lines());
    }
}

// A created provider is a table of its own whose name is malloc'd (released below with free);
// the built-in ones are the same table on every call, and setters write into the table itself.
TEST_F(PolicyProviderTest, EachProviderHasItsClassNameAndHooks) {
    obs_sdk_policy_provider *custom = obs_create_default_sdk_policy_provider("custom");
    obs_sdk_policy_provider *other = obs_create_default_sdk_policy_provider("other");
    ASSERT_TRUE(custom && other);
    custom->free = nullptr;
    const struct {
        const obs_sdk_policy_provider *provider;
        uint32_t type;
        const char *name;
        obs_policy_translator_fn translator;
        obs_policy_free_fn release;
    } cases[] = {
        {other, 0x10, "other", nullptr, obs_policy_free},
        {obs_get_monitor_sdk_policy_provider(), 0x80, "monitor", nullptr, obs_policy_free},
        {obs_get_ot_sdk_policy_provider(), 0x20, "obs", sdk_policy_ot_apply_translate,
         sdk_policy_ot_free},
        {obs_get_ot_monitor_sdk_policy_provider(), 0x80, "obs-monitor",
         sdk_policy_ot_apply_translate, sdk_policy_ot_free},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.type, c.provider->type);
        EXPECT_STREQ(c.name, c.provider->name);
        EXPECT_STREQ("1.0", c.provider->version);
        EXPECT_EQ(&obs_policy_init, c.provider->init);
        EXPECT_EQ(c.translator, c.provider->policy_translator);
        EXPECT_EQ(c.release, c.provider->free);
    }
    EXPECT_EQ(obs_get_ot_sdk_policy_provider(), obs_get_ot_sdk_policy_provider());
    obs_policy_ctx ctx{};
    ctx.provider = custom;
    obs_policy_dispatch_translator_fn dispatcher = [](obs_policy_ctx *, obs_policy *r) {
        return r;
    };
    obs_policy_set_policy_translator(&ctx, sdk_policy_ot_apply_translate);
    obs_policy_set_dispatch_translator(&ctx, dispatcher);
    obs_policy_set_free(&ctx, sdk_policy_ot_free);
    EXPECT_EQ(&sdk_policy_ot_apply_translate, custom->policy_translator);
    EXPECT_EQ(dispatcher, custom->dispatch_translator);
    EXPECT_EQ(&sdk_policy_ot_free, custom->free);
    for (obs_sdk_policy_provider *provider : {custom, other}) {
        free(const_cast<char *>(provider->name));
        free(provider);
    }
}

TEST_F(PolicyProviderTest, PolicyInitGivesAZeroedContextWithItsOwnNameCopy) {
    int user = 0;
    char service[] = "svc";
    obs_policy_ctx *ctx = obs_policy_init(&user, service);
    ASSERT_NE(nullptr, ctx);
    service[0] = 'X';
    EXPECT_STREQ("svc", ctx->service_name);
    const obs_policy_ctx expected = {&user, ctx->service_name, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(0, memcmp(&expected, ctx, sizeof expected));
    EXPECT_TRUE(lines().empty());
    free(ctx->service_name);
    free(ctx);
}

TEST(PolicyCloneTest, CopyOwnsItsBuffersAndTakesPayloadsOnlyWhenAskedAndNotEmpty) {
    // A translated source's codec value is an entry chain in memory, never copied as bytes.
    const struct {
        int with_codec;
        uint32_t codec_vlen, raw_vlen;
        bool translated;
    } cases[] = {
        {1, 6, 5, false}, {0, 6, 5, false}, {1, 0, 5, false}, {1, 6, 0, false}, {1, 6, 5, true}};
    obs_policy_ctx owner{};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.with_codec << " " << c.codec_vlen << " " << c.raw_vlen
                                        << " " << c.translated);
        obs_policy *source = full_record("obs", full_record("second"));
        source->codec_vlen = c.codec_vlen;
        source->raw_vlen = c.raw_vlen;
        source->owner = &owner;
        if (!c.translated) source->dispatch_flags &= ~OBS_POLICY_FLAG_TRANSLATED;
        obs_policy *copy = obs_policy_clone_one(source, c.with_codec);
        ASSERT_NE(nullptr, copy);
        EXPECT_EQ(source->op, copy->op);
        EXPECT_EQ(source->format, copy->format);
        EXPECT_EQ(source->seq_id, copy->seq_id);
        EXPECT_EQ(0x24u, copy->dispatch_flags);  // the translated mark is never carried
        EXPECT_EQ(&owner, copy->owner);
        EXPECT_EQ(nullptr, copy->next);
        for (auto text :
             {&obs_policy::path, &obs_policy::name, &obs_policy::reqid, &obs_policy::traceid}) {
            EXPECT_NE(source->*text, copy->*text);
            EXPECT_STREQ(source->*text, copy->*text);
        }
        const bool with_codec = c.with_codec && c.codec_vlen && !c.translated;
        EXPECT_EQ(with_codec ? 6u : 0u, copy->codec_vlen);
        EXPECT_EQ(with_codec, copy->codec_val && !memcmp(source->codec_val, copy->codec_val, 6));
        EXPECT_EQ(c.raw_vlen, copy->raw_vlen);
        EXPECT_EQ(c.raw_vlen != 0, copy->raw_val && !memcmp(source->raw_val, copy->raw_val, 5));
        EXPECT_NE(source->codec_val, copy->codec_val);
        EXPECT_NE(source->raw_val, copy->raw_val);
        source->owner = copy->owner = nullptr;
        obs_policy_free(source);
        obs_policy_free(copy);
    }
    obs_policy empty{};
    obs_policy *copy = obs_policy_clone_one(&empty, 1);
    EXPECT_TRUE(copy && !copy->path && !copy->name && !copy->reqid && !copy->traceid);
    free(copy);
}

// A provider's free hook that records its calls and then releases the list plainly.
struct hook_record {
    int calls;
    obs_policy *list;
    obs_policy_ctx *owner_seen;
} hook;

void recording_free(obs_policy *list) {
    hook = {hook.calls + 1, list, list->owner};
    obs_policy_free(list);
}

// LeakSanitizer reports any record that neither path releases.
TEST(PolicyFreeTest, OnlyTheFirstRecordsOwnerWithAFreeHookTakesTheListOnce) {
    obs_sdk_policy_provider provider{}, hookless{};
    provider.free = recording_free;
    obs_policy_ctx owner{}, without_hook{}, without_provider{};
    owner.provider = &provider;
    without_hook.provider = &hookless;
    const struct {
        obs_policy_ctx *first_owner, *second_owner;
        int calls;
    } cases[] = {{nullptr, nullptr, 0},
                 {&owner, nullptr, 1},
                 {nullptr, &owner, 0},
                 {&without_hook, nullptr, 0},
                 {&without_provider, nullptr, 0}};
    for (const auto &c : cases) {
        hook = {};
        obs_policy *list = full_record("a", full_record("b", full_record("c")));
        list->owner = c.first_owner;
        list->next->owner = c.second_owner;
        obs_policy_free(list);
        EXPECT_EQ(c.calls, hook.calls);
        EXPECT_EQ(c.calls ? list : nullptr, hook.list);
        EXPECT_EQ(nullptr, hook.owner_seen);
    }
}

TEST(PolicyNullTest, NullAndIgnoredArgumentsAreTolerated) {
    obs_policy_free(nullptr);
    EXPECT_EQ(nullptr, obs_policy_clone_one(nullptr, 1));
    obs_policy_set_free(nullptr, nullptr);
    int api = 0;
    obs_set_lock_api(&api);
    obs_set_tls_api(&api);
    EXPECT_EQ(0, api);
}

}  // namespace
