#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

const std::string kTwoEntries = joined({kDefaultAllOn, kEverySampler});

class TranslateTest : public testing::Test {
  protected:
    void SetUp() override {
        record_ = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
        record_->format = OBS_POLICY_FORMAT_RAW | OBS_POLICY_FORMAT_CODEC_TEXT;
        record_->path = strdup("/op/observability-policy-agent/service{svc}/scope{*}/obs");
        record_->raw_vlen = 3;
        record_->raw_val = strdup("ok");
        set_codec(kTwoEntries);
    }
    void TearDown() override {
        sdk_policy_ot_free(copy_);
        obs_policy_free(record_);
    }
    void set_codec(const std::string &text) {
        free(record_->codec_val);
        record_->codec_val = strdup(text.c_str());
        record_->codec_vlen = static_cast<uint32_t>(text.size() + 1);
    }
    obs_policy *translate() {
        sdk_policy_ot_free(copy_);
        return copy_ = sdk_policy_ot_apply_translate(nullptr, "svc", record_);
    }
    static const obs_policy_ot *entries(const obs_policy *record) {
        return static_cast<const obs_policy_ot *>(record->codec_val);
    }
    obs_policy *record_ = nullptr;
    obs_policy *copy_ = nullptr;
};

// The copy has the entries of a codec text when the format says it holds one; the record
// translated stays as it was.
TEST_F(TranslateTest, CodecTextBecomesAMarkedEntryChainInACopy) {
    const struct {
        uint8_t format;
        const char *codec;  // null: the record keeps a text but with codec_vlen 0
        uint8_t translated_format;
        std::string entries;  // as encoded again
    } cases[] = {
        {0x11, kTwoEntries.c_str(), 0x21, kTwoEntries},
        {0xdf, kDefaultAllOn, 0x2f, kDefaultAllOn},
        {OBS_POLICY_FORMAT_RAW, kDefaultAllOn, OBS_POLICY_FORMAT_RAW, ""},
        {OBS_POLICY_FORMAT_CODEC_TEXT, nullptr, OBS_POLICY_FORMAT_CODEC_TEXT, ""},
        {0x11, "not a value", 0x21, ""},
        {0x11, "{int 1 5}", 0x21, ""},
        {0x11, "{kvlist 9 1 [{str 3 \"k\"", 0x21, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.codec ? c.codec : "(no length)");
        record_->format = c.format;
        set_codec(c.codec ? c.codec : "x");
        if (!c.codec) record_->codec_vlen = 0;
        ASSERT_NE(translate(), nullptr);
        EXPECT_EQ(copy_->format, c.translated_format);
        EXPECT_EQ(encode(entries(copy_)), c.entries);
        EXPECT_EQ(copy_->codec_val != nullptr, !c.entries.empty());
        EXPECT_EQ(copy_->codec_vlen, c.entries.empty() ? 0u : sizeof(obs_policy_ot));
        EXPECT_EQ(copy_->dispatch_flags, c.entries.empty() ? 0u : OBS_POLICY_FLAG_TRANSLATED);
        EXPECT_NE(copy_->path, record_->path);
        EXPECT_STREQ(copy_->path, record_->path);
        EXPECT_STREQ(static_cast<const char *>(copy_->raw_val), "ok");
        EXPECT_EQ(record_->format, c.format);
        EXPECT_STREQ(static_cast<const char *>(record_->codec_val), c.codec ? c.codec : "x");
    }
    EXPECT_EQ(sdk_policy_ot_apply_translate(nullptr, nullptr, nullptr), nullptr);
}

TEST_F(TranslateTest, CopiesOfTranslatedRecordsGetSeparateMarkedEntryChains) {
    obs_policy *records = translate();
    records->next = sdk_policy_ot_apply_translate(nullptr, "svc", record_);
    obs_policy *copies = sdk_policy_ot_clone(records, 0);
    ASSERT_EQ(length_of(copies), 2u);
    for (const obs_policy *copy = copies, *src = records; copy;
         copy = copy->next, src = src->next) {
        EXPECT_NE(copy->codec_val, src->codec_val);
        EXPECT_EQ(copy->codec_vlen, sizeof(obs_policy_ot));
        EXPECT_EQ(copy->dispatch_flags, OBS_POLICY_FLAG_TRANSLATED);
        EXPECT_EQ(copy->format, src->format);
        EXPECT_EQ(encode(entries(copy)), kTwoEntries);
        static_cast<obs_policy_ot *>(copy->codec_val)->log_level = 9;
        EXPECT_EQ(entries(src)->log_level, 3);
    }
    obs_policy *first = sdk_policy_ot_clone(records, 1);
    EXPECT_EQ(length_of(first), 1u);
    sdk_policy_ot_free(first);
    sdk_policy_ot_free(copies);
    EXPECT_EQ(sdk_policy_ot_clone(nullptr, 0), nullptr);
}

// Only the mark makes a codec value an entry chain: not a forged record (bytes of an entry's size
// that would be freed as pointers), nor a byte copy of a translated record (which shares the
// chain's pointers). Both are copied without codec value and released as plain blocks.
// The chain holds this process's addresses: its message carries the rest of the record only.
TEST_F(TranslateTest, TranslatedRecordsAreEncodedWithoutTheirEntryChain) {
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(translate(), &text, &len);
    ASSERT_NE(text, nullptr);
    const std::string message = text;
    free(text);
    EXPECT_EQ(message.find("codec_"), std::string::npos) << message;
    EXPECT_NE(message.find(pair("raw_val", str("ok"))), std::string::npos) << message;
}

TEST_F(TranslateTest, RecordsOfEntrySizeWithoutTheMarkAreNoEntryChains) {
    obs_policy *forged = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    forged->format = OBS_POLICY_FORMAT_CODEC_BYTES;
    forged->codec_vlen = sizeof(obs_policy_ot);
    forged->codec_val = memset(malloc(sizeof(obs_policy_ot)), 0xa5, sizeof(obs_policy_ot));
    forged->dispatch_flags = ~OBS_POLICY_FLAG_TRANSLATED;
    // A plain copy of a translated record never holds the chain's bytes either.
    obs_policy *plain_copy = obs_policy_clone_one(translate(), 1);
    EXPECT_TRUE(!plain_copy->codec_val && !plain_copy->codec_vlen && !plain_copy->dispatch_flags);
    obs_policy *copy = sdk_policy_ot_clone(forged, 0);
    EXPECT_EQ(copy->codec_val, nullptr);
    EXPECT_EQ(copy->codec_vlen, 0u);
    EXPECT_EQ(copy->dispatch_flags, forged->dispatch_flags);
    for (obs_policy *list : {copy, forged, plain_copy}) sdk_policy_ot_free(list);
    EXPECT_EQ(encode(entries(copy_)), kTwoEntries);
}

}  // namespace
