#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "observability_api.h"
#include "support/log_capture.h"

namespace {

using PolicyProviderTest = obs_test::LogCaptureTest;

void *copy_bytes(const void *bytes, size_t n) {
    return memcpy(malloc(n), bytes, n);
}

// Every field set; the byte payloads hold a NUL so only a copy by length gets them whole.
obs_policy *full_record(const char *name, obs_policy *next = nullptr) {
    auto *r = static_cast<obs_policy *>(malloc(sizeof(obs_policy)));
    return &(*r = obs_policy{7, 4, OBS_POLICY_FORMAT_RAW_BYTES | OBS_POLICY_FORMAT_CODEC_TEXT, 6, 5,
                             0x1122334455667788ull, 0x24 | OBS_POLICY_FLAG_TRANSLATED,
                             strdup("/kuv/opa/service{svc}/scope{default}/obs"), strdup(name),
                             copy_bytes("ab\0cd", 6), copy_bytes("r\0aw", 5), nullptr,
                             strdup("req-1"), strdup("trace-1"), next});
}

// Invalid names give neither a provider nor a context, with one line each; a valid one gives a
// zeroed context holding user_ctx and a copy of the name of its own.
TEST_F(PolicyProviderTest, InvalidNamesGiveNoProviderAndNoContext) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "a{b", "a}"}) {
        obs_test::clear_captured_lines();
        EXPECT_EQ(nullptr, obs_create_default_sdk_policy_provider(name));
        EXPECT_EQ(nullptr, obs_policy_init(nullptr, name));
        EXPECT_EQ(std::vector<std::string>(2, "invalid name, '{', '}' not allowed"),
                  obs_test::captured_lines());
    }
    char service[] = "svc";
    obs_policy_ctx *ctx = obs_policy_init(service, service);
    service[0] = 'X';
    const obs_policy_ctx zeroed = {service, ctx->service_name, nullptr, nullptr, nullptr, nullptr};
    EXPECT_TRUE(!memcmp(&zeroed, ctx, sizeof zeroed) && !strcmp("svc", ctx->service_name));
    free(ctx->service_name);
    free(ctx);
}

// A created provider has a malloc'd name; a built-in one is the same table on every call.
TEST_F(PolicyProviderTest, EachProviderHasItsClassNameAndHooks) {
    obs_sdk_policy_provider *custom = obs_create_default_sdk_policy_provider("custom");
    auto hooks = [&](const obs_sdk_policy_provider *p) {
        return std::to_string(p->type) + " " + p->name + " " + p->version +
               (p->init == obs_policy_init ? "" : " ?") +
               (!p->policy_translator && p->free == obs_policy_free ? " plain" : "") +
               (p->policy_translator == sdk_policy_ot_apply_translate &&
                        p->free == sdk_policy_ot_free
                    ? " ot"
                    : "") +
               "|";
    };
    EXPECT_EQ(hooks(custom) + hooks(obs_get_monitor_sdk_policy_provider()) +
                  hooks(obs_get_ot_sdk_policy_provider()) +
                  hooks(obs_get_ot_monitor_sdk_policy_provider()),
              "16 custom 1.0 plain|128 monitor 1.0 plain|32 obs 1.0 ot|128 obs-monitor 1.0 ot|");
    free(const_cast<char *>(custom->name));
    free(custom);
}

// Under ASan, a copy sharing a buffer with its source is freed twice.
TEST(PolicyCloneTest, CopyOwnsItsBuffersAndTakesPayloadsOnlyWhenAskedAndNotEmpty) {
    // with_codec, codec_vlen, raw_vlen, translated (an entry chain is never copied as bytes)
    const std::tuple<int, uint32_t, uint32_t, bool> cases[] = {
        {1, 6, 5, false}, {0, 6, 5, false}, {1, 0, 5, false}, {1, 6, 0, false}, {1, 6, 5, true}};
    obs_policy_ctx owner{};
    for (const auto &[with_codec, codec_vlen, raw_vlen, translated] : cases) {
        SCOPED_TRACE(testing::Message() << with_codec << codec_vlen << raw_vlen << translated);
        obs_policy *source = full_record("obs", full_record("second"));
        source->codec_vlen = codec_vlen;
        source->raw_vlen = raw_vlen;
        source->owner = &owner;
        if (!translated) source->dispatch_flags &= ~OBS_POLICY_FLAG_TRANSLATED;
        obs_policy *copy = obs_policy_clone_one(source, with_codec);
        ASSERT_NE(nullptr, copy);
        // The translated mark is never carried.
        EXPECT_TRUE(copy->type == 7 && copy->op == 4 && copy->format == source->format &&
                    copy->seq_id == source->seq_id && copy->owner == &owner && !copy->next &&
                    copy->dispatch_flags == 0x24);
        for (auto text :
             {&obs_policy::path, &obs_policy::name, &obs_policy::reqid, &obs_policy::traceid})
            EXPECT_STREQ(source->*text, copy->*text);
        const bool codec = with_codec && codec_vlen && !translated;
        EXPECT_TRUE(copy->codec_vlen == (codec ? 6u : 0u) && copy->raw_vlen == raw_vlen);
        EXPECT_EQ(codec, copy->codec_val && !memcmp(source->codec_val, copy->codec_val, 6));
        EXPECT_EQ(raw_vlen != 0, copy->raw_val && !memcmp(source->raw_val, copy->raw_val, 5));
        for (obs_policy *record : {source, copy}) obs_policy_free(record);
    }
    EXPECT_EQ(nullptr, obs_policy_clone_one(nullptr, 1));
}

// A provider's free hook: counts its calls and releases the list (its owner link cleared, or the
// call would come back here without end).
int hook_calls = 0;
void recording_free(obs_policy *list) {
    ++hook_calls;
    obs_policy_free(list);
}

// LeakSanitizer reports any record that neither path releases.
TEST(PolicyFreeTest, OnlyTheFirstRecordsOwnerWithAFreeHookTakesTheListOnce) {
    obs_sdk_policy_provider provider{}, hookless{};
    obs_policy_ctx owner{nullptr, nullptr, &provider, nullptr, nullptr, nullptr}, no_table{};
    obs_policy_ctx no_hook{nullptr, nullptr, &hookless, nullptr, nullptr, nullptr};
    obs_policy_set_free(&owner, recording_free);
    // The second record's owner is never asked.
    for (obs_policy_ctx *first :
         {&owner, static_cast<obs_policy_ctx *>(nullptr), &no_hook, &no_table}) {
        hook_calls = 0;
        obs_policy *list = full_record("a", full_record("b", full_record("c")));
        list->owner = first;
        list->next->owner = &owner;
        obs_policy_free(list);
        EXPECT_EQ(first == &owner ? 1 : 0, hook_calls);
    }
    obs_policy_free(nullptr);
    obs_policy_set_free(nullptr, nullptr);
    obs_set_lock_api(nullptr);
    obs_set_tls_api(nullptr);
}

}  // namespace
