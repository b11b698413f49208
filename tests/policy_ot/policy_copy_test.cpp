#include <gtest/gtest.h>

#include <cstring>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

const char kDefaultAllOn[] =
    "{kvlist 111 3 [{str 12 \"scope_name\" 17 {str 9 \"default\"}},{str 10 \"sampling\" 9 {int 1 "
    "2}},{str 11 \"log_level\" 9 {int 1 3}}]}";

// Rule pairs with a payload of every owning kind: string, bytes, nested kvlist, array.
obs_key_value *rich_pairs() {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_str(&pairs, "service", "svc", 0);
    obs_key_value_add_byte(&pairs, "id", "\x01\x02\x03", 3, 0);
    obs_key_value *inner = nullptr;
    obs_key_value_add_str(&inner, "region", "eu", 0);
    obs_key_value_add_kvlist(&pairs, "where", inner, 0);
    auto *elements = static_cast<obs_any_value *>(calloc(2, sizeof(obs_any_value)));
    int64_t number = 42;
    obs_any_value_set_generic(&elements[0], OBS_VALUE_INT, &number, 8);
    obs_any_value_set_generic(&elements[1], OBS_VALUE_STR, "x", 2);
    obs_key_value_add_array(&pairs, "list", elements, 2, 0);
    return pairs;
}

// Two entries: "default" with a sampler and rules in every list, "*" all off.
obs_policy_ot *rich_policy() {
    obs_policy_ot *entry = new_entry("default", as_sampling(new_sampler("s1", 2, 1, 2)), 4);
    entry->signal = 7;
    entry->resource_rule = new_rule(rich_pairs(), 1, 2);
    entry->resource_rule->next = new_rule(nullptr, 3, 4);
    entry->scope_rule = new_rule(rich_pairs(), 5, 6);
    entry->span_rule = new_rule(rich_pairs(), 7, 8);
    entry->log_rule = new_rule(nullptr, 9, 10);
    entry->metric_rule = new_rule(rich_pairs(), 11, 12);
    entry->next = new_entry("*", 1, 0);
    return entry;
}

obs_policy *codec_record(const char *text) {
    auto *record = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    record->op = 1;
    record->format = OBS_POLICY_FORMAT_CODEC_TEXT;
    record->codec_val = strdup(text);
    record->codec_vlen = static_cast<uint32_t>(strlen(text) + 1);
    record->name = strdup("obs");
    return record;
}

obs_policy *translated_record(const char *text) {
    obs_policy *source = codec_record(text);
    obs_policy *translated = sdk_policy_ot_apply_translate(nullptr, "svc", source);
    obs_policy_free(source);
    return translated;
}

const obs_policy_ot *entries_of(const obs_policy *record) {
    return static_cast<const obs_policy_ot *>(record->codec_val);
}

TEST(PolicyFindTest, FindsTheFirstEntryWithTheNameByteWise) {
    entries_ptr list = own(new_entry(nullptr, 2, 0));
    list->next = new_entry("a", 1, 0);
    list->next->next = new_entry("b", 2, 0);
    list->next->next->next = new_entry("b", 0, 0);
    EXPECT_EQ(obs_policy_ot_find(list.get(), "b"), list->next->next);
    EXPECT_EQ(obs_policy_ot_find(list.get(), "a"), list->next);
    EXPECT_EQ(obs_policy_ot_find(list.get(), "B"), nullptr);
    EXPECT_EQ(obs_policy_ot_find(list.get(), "bb"), nullptr);
    EXPECT_EQ(obs_policy_ot_find(list.get(), ""), nullptr);
    EXPECT_EQ(obs_policy_ot_find(list.get(), nullptr), nullptr);
    EXPECT_EQ(obs_policy_ot_find(nullptr, "a"), nullptr);
}

class PolicyCloneTest : public testing::Test {
  protected:
    entries_ptr source_ = own(rich_policy());
};

TEST_F(PolicyCloneTest, CopyIsEqualButChangingItLeavesTheSourceAlone) {
    const std::string before = encode(source_.get(), 1);
    entries_ptr copy = own(obs_policy_ot_clone(source_.get(), 0));
    ASSERT_EQ(length_of(copy.get()), 2u);
    EXPECT_EQ(encode(copy.get(), 1), before);

    copy->log_level = 1;
    copy->scope_name[0] = 'X';
    sampler_of(copy->sampler)->traces_config = 1;
    obs_key_value_free(copy->span_rule->kv);
    copy->span_rule->kv = nullptr;
    obs_any_value *service = obs_key_value_get_val(copy->scope_rule->kv);
    static_cast<char *>(service->val.ptr)[0] = 'X';
    EXPECT_EQ(encode(source_.get(), 1), before);
}

TEST_F(PolicyCloneTest, CopyStaysReadableAfterTheSourceIsReleased) {
    const std::string before = encode(source_.get(), 1);
    entries_ptr copy = own(obs_policy_ot_clone(source_.get(), 0));
    source_.reset();
    EXPECT_EQ(encode(copy.get(), 1), before);
    EXPECT_EQ(length_of(copy->resource_rule), 2u);
    EXPECT_EQ(copy->metric_rule->action, 12);
}

TEST_F(PolicyCloneTest, OnlyFirstCopiesOneEntryOrOneRule) {
    entries_ptr first = own(obs_policy_ot_clone(source_.get(), 1));
    ASSERT_EQ(length_of(first.get()), 1u);
    EXPECT_STREQ(first->scope_name, "default");
    EXPECT_EQ(length_of(first->resource_rule), 2u);

    obs_policy_ot_rule *rule = obs_policy_ot_rule_clone(source_->resource_rule, 1);
    ASSERT_EQ(length_of(rule), 1u);
    EXPECT_EQ(rule->match, 1);
    EXPECT_NE(rule->kv, source_->resource_rule->kv);
    obs_policy_ot_rule_free(rule);
    EXPECT_EQ(obs_policy_ot_clone(nullptr, 0), nullptr);
    EXPECT_EQ(obs_policy_ot_rule_clone(nullptr, 0), nullptr);
}

class RecordCloneTest : public testing::Test {
  protected:
    void TearDown() override { sdk_policy_ot_free(records_); }
    obs_policy *records_ = nullptr;
};

TEST_F(RecordCloneTest, TranslatedRecordsGetSeparateEntryChains) {
    records_ = translated_record(kDefaultAllOn);
    records_->next = translated_record(kDefaultAllOn);
    obs_policy *copies = sdk_policy_ot_clone(records_, 0);
    ASSERT_NE(copies, nullptr);
    ASSERT_NE(copies->next, nullptr);
    EXPECT_EQ(copies->next->next, nullptr);
    for (const obs_policy *copy = copies, *src = records_; copy; copy = copy->next) {
        EXPECT_NE(copy->codec_val, src->codec_val);
        EXPECT_EQ(copy->codec_vlen, sizeof(obs_policy_ot));
        EXPECT_TRUE(copy->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED);
        EXPECT_EQ(copy->format, src->format);
        EXPECT_STREQ(copy->name, "obs");
        static_cast<obs_policy_ot *>(copy->codec_val)->log_level = 9;
        EXPECT_EQ(entries_of(src)->log_level, 3);
        src = src->next;
    }
    obs_policy *first = sdk_policy_ot_clone(records_, 1);
    EXPECT_EQ(first->next, nullptr);
    sdk_policy_ot_free(first);
    sdk_policy_ot_free(copies);
    EXPECT_EQ(sdk_policy_ot_clone(nullptr, 0), nullptr);
}

// A record whose codec length happens to equal an entry's size but that was never translated:
// a received text, or bytes a sender forged. Reading it as an entry chain would follow garbage.
TEST_F(RecordCloneTest, UnmarkedRecordOfEntrySizeIsAPlainBlock) {
    records_ = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    records_->format = OBS_POLICY_FORMAT_CODEC_BYTES;
    records_->codec_vlen = sizeof(obs_policy_ot);
    records_->codec_val = malloc(sizeof(obs_policy_ot));
    memset(records_->codec_val, 0xa5, sizeof(obs_policy_ot));
    records_->dispatch_flags = 0x20;
    obs_policy *copy = sdk_policy_ot_clone(records_, 0);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->codec_val, nullptr);
    EXPECT_EQ(copy->codec_vlen, 0u);
    EXPECT_EQ(copy->dispatch_flags, 0x20u);
    sdk_policy_ot_free(copy);
}

// A byte copy of a translated record's codec value shares the entry's pointers; only the mark
// keeps it from being released as a second owner of the chain.
TEST_F(RecordCloneTest, ByteCopyOfATranslatedRecordIsNotTakenForOne) {
    records_ = translated_record(kDefaultAllOn);
    obs_policy *bytes = obs_policy_clone_one(records_, 1);
    ASSERT_NE(bytes, nullptr);
    ASSERT_EQ(bytes->codec_vlen, sizeof(obs_policy_ot));
    obs_policy *copy = sdk_policy_ot_clone(bytes, 0);
    EXPECT_EQ(copy->codec_val, nullptr);
    sdk_policy_ot_free(copy);
    sdk_policy_ot_free(bytes);
    EXPECT_STREQ(entries_of(records_)->scope_name, "default");
}

}  // namespace
