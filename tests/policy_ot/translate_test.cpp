#include <gtest/gtest.h>

#include <cstring>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

const char kTwoEntries[] =
    "[{kvlist 111 3 [{str 12 \"scope_name\" 17 {str 9 \"default\"}},{str 10 \"sampling\" 9 {int 1 "
    "2}},{str 11 \"log_level\" 9 {int 1 3}}]},{kvlist 185 2 [{str 12 \"scope_name\" 11 {str 3 "
    "\"*\"}},{str 9 \"sampler\" 122 {kvlist 109 3 [{str 6 \"name\" 12 {str 4 \"s1\"}},{str 15 "
    "\"traces_config\" 9 {int 1 2}},{str 16 \"metrics_config\" 9 {int 1 1}}]}}]}]";

class TranslateTest : public testing::Test {
  protected:
    void SetUp() override {
        record_ = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
        record_->op = 1;
        record_->format = OBS_POLICY_FORMAT_RAW | OBS_POLICY_FORMAT_CODEC_TEXT;
        record_->name = strdup("obs");
        record_->path = strdup("/op/observability-policy-agent/service{svc}/scope{*}/obs");
        record_->reqid = strdup("req");
        record_->raw_vlen = 3;
        record_->raw_val = strdup("ok");
        set_codec(kTwoEntries);
    }
    void TearDown() override {
        sdk_policy_ot_free(copy_);
        obs_policy_free(record_);
    }
    void set_codec(const char *text) {
        free(record_->codec_val);
        record_->codec_val = strdup(text);
        record_->codec_vlen = static_cast<uint32_t>(strlen(text) + 1);
    }
    void translate() { copy_ = sdk_policy_ot_apply_translate(nullptr, "svc", record_); }
    const obs_policy_ot *entries() const {
        return static_cast<const obs_policy_ot *>(copy_->codec_val);
    }
    obs_policy *record_ = nullptr;
    obs_policy *copy_ = nullptr;
};

TEST_F(TranslateTest, CodecTextBecomesAMarkedEntryChainAndTheSourceStaysWhole) {
    translate();
    ASSERT_NE(copy_, nullptr);
    EXPECT_EQ(copy_->format, OBS_POLICY_FORMAT_RAW | OBS_POLICY_FORMAT_CODEC_BYTES);
    EXPECT_EQ(copy_->codec_vlen, sizeof(obs_policy_ot));
    EXPECT_EQ(copy_->dispatch_flags, OBS_POLICY_FLAG_TRANSLATED);
    ASSERT_EQ(length_of(entries()), 2u);
    EXPECT_STREQ(entries()->scope_name, "default");
    EXPECT_STREQ(sampler_of(entries()->next->sampler)->name, "s1");
    EXPECT_STREQ(copy_->path, record_->path);
    EXPECT_NE(copy_->path, record_->path);
    EXPECT_STREQ(static_cast<const char *>(copy_->raw_val), "ok");
    EXPECT_EQ(copy_->next, nullptr);
    sdk_policy_ot_free(copy_);
    EXPECT_EQ(record_->format, OBS_POLICY_FORMAT_RAW | OBS_POLICY_FORMAT_CODEC_TEXT);
    EXPECT_STREQ(static_cast<const char *>(record_->codec_val), kTwoEntries);
    EXPECT_STREQ(record_->name, "obs");

    record_->format = 0xdf;
    translate();
    EXPECT_EQ(copy_->format, 0x2f);
}

TEST_F(TranslateTest, RecordWithoutCodecTextIsCopiedWithoutCodecValue) {
    record_->format = OBS_POLICY_FORMAT_RAW;
    translate();
    EXPECT_EQ(copy_->format, OBS_POLICY_FORMAT_RAW);
    EXPECT_EQ(copy_->codec_val, nullptr);
    EXPECT_EQ(copy_->codec_vlen, 0u);
    EXPECT_EQ(copy_->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED, 0u);
    sdk_policy_ot_free(copy_);

    record_->format = OBS_POLICY_FORMAT_CODEC_TEXT;
    record_->codec_vlen = 0;
    translate();
    EXPECT_EQ(copy_->format, OBS_POLICY_FORMAT_CODEC_TEXT);
    EXPECT_EQ(copy_->codec_val, nullptr);
}

TEST_F(TranslateTest, UndecodableTextGivesCodecBytesWithoutValue) {
    for (const char *text : {"not a value", "{int 1 5}", "{kvlist 9 1 [{str 3 \"k\""}) {
        set_codec(text);
        translate();
        EXPECT_EQ(copy_->format, OBS_POLICY_FORMAT_RAW | OBS_POLICY_FORMAT_CODEC_BYTES) << text;
        EXPECT_EQ(copy_->codec_val, nullptr) << text;
        EXPECT_EQ(copy_->codec_vlen, 0u) << text;
        EXPECT_EQ(copy_->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED, 0u) << text;
        sdk_policy_ot_free(copy_);
        copy_ = nullptr;
    }
    EXPECT_EQ(sdk_policy_ot_apply_translate(nullptr, nullptr, nullptr), nullptr);
}

// Translated or not, a record reaches this hook when its owner's provider is the "obs" one;
// LeakSanitizer reports the entry chain should it be released as a plain block.
TEST_F(TranslateTest, OwnedRecordsAreReleasedThroughTheProviderHook) {
    translate();
    obs_policy_ctx ctx = {};
    ctx.provider = obs_get_ot_sdk_policy_provider();
    copy_->owner = &ctx;
    copy_->next = obs_policy_clone_one(record_, 1);
    obs_policy_free(copy_);
    copy_ = nullptr;
}

// Bytes a sender forged to look like an entry: format 0x20 and codec_vlen of an entry, but no
// mark. Taken for an entry chain, the 0xa5 bytes would be freed as pointers.
TEST_F(TranslateTest, ForgedEntrySizedRecordIsReleasedAsABlock) {
    free(record_->codec_val);
    record_->format = OBS_POLICY_FORMAT_CODEC_BYTES;
    record_->codec_vlen = sizeof(obs_policy_ot);
    record_->codec_val = malloc(sizeof(obs_policy_ot));
    memset(record_->codec_val, 0xa5, sizeof(obs_policy_ot));
    record_->dispatch_flags = 0x7fffffff;
    translate();
    EXPECT_EQ(copy_->codec_val, nullptr);
    sdk_policy_ot_free(record_);
    record_ = nullptr;
}

TEST(ProviderHookTest, SamplingProvidersTranslateAndReleaseWithThisSdk) {
    for (const obs_sdk_policy_provider *provider :
         {obs_get_ot_sdk_policy_provider(), obs_get_ot_monitor_sdk_policy_provider()}) {
        EXPECT_EQ(provider->policy_translator, &sdk_policy_ot_apply_translate) << provider->name;
        EXPECT_EQ(provider->free, &sdk_policy_ot_free) << provider->name;
    }
}

}  // namespace
