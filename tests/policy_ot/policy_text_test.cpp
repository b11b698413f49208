#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

const char kDefaultAllOn[] =
    "{kvlist 111 3 [{str 12 \"scope_name\" 17 {str 9 \"default\"}},{str 10 \"sampling\" 9 {int 1 "
    "2}},{str 11 \"log_level\" 9 {int 1 3}}]}";
const char kEverySampler[] =
    "{kvlist 185 2 [{str 12 \"scope_name\" 11 {str 3 \"*\"}},{str 9 \"sampler\" 122 {kvlist 109 3 "
    "[{str 6 \"name\" 12 {str 4 \"s1\"}},{str 15 \"traces_config\" 9 {int 1 2}},{str 16 "
    "\"metrics_config\" 9 {int 1 1}}]}}]}";
// Signal 5 and two span rules, the first with one attribute pair, the second without any.
const char kSpanRules[] =
    "{kvlist 302 3 [{str 8 \"signal\" 9 {int 1 5}},{str 12 \"scope_name\" 11 {str 3 \"a\"}},{str "
    "11 "
    "\"span_rule\" 207 [{kvlist 119 3 [{str 4 \"kv\" 42 {kvlist 30 1 [{str 3 \"k\" 11 {str 3 "
    "\"v\"}}]}},{str 7 \"match\" 9 {int 1 1}},{str 8 \"action\" 9 {int 1 2}}]},{kvlist 60 2 [{str "
    "7 "
    "\"match\" 9 {int 1 0}},{str 8 \"action\" 9 {int 1 3}}]}]}]}";

obs_any_value *int_node(int64_t value) {
    obs_any_value *node = nullptr;
    obs_any_value_add_int(&node, value);
    return node;
}

obs_any_value *kvlist_node(obs_key_value *pairs) {
    obs_any_value *node = nullptr;
    obs_any_value_add_kvlist(&node, pairs, 0);
    return node;
}

obs_key_value *rule_pairs(int64_t match) {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_int(&pairs, "match", match);
    obs_key_value_add_int(&pairs, "action", 0);
    return pairs;
}

TEST(PolicyTextTest, ExamplesEncodeByteForByte) {
    entries_ptr all_on = own(new_entry("default", 2, 3));
    EXPECT_EQ(encode(all_on.get(), 0), kDefaultAllOn);

    entries_ptr every = own(new_entry("*", as_sampling(new_sampler("s1", 2, 1, 0)), 0));
    EXPECT_EQ(encode(every.get(), 0), kEverySampler);

    entries_ptr rules = own(new_entry("a", 0, 0));
    rules->signal = 5;
    obs_key_value *kv = nullptr;
    obs_key_value_add_str(&kv, "k", "v", 0);
    rules->span_rule = new_rule(kv, 1, 2);
    rules->span_rule->next = new_rule(nullptr, 0, 3);
    EXPECT_EQ(encode(rules.get(), 0), kSpanRules);
}

TEST(PolicyTextTest, ExamplesDecodeToTheirEntries) {
    entries_ptr all_on = decode(kDefaultAllOn);
    ASSERT_EQ(length_of(all_on.get()), 1u);
    EXPECT_STREQ(all_on->scope_name, "default");
    EXPECT_EQ(all_on->sampler, 2u);
    EXPECT_EQ(all_on->log_level, 3);
    EXPECT_EQ(all_on->signal, 0);
    EXPECT_EQ(all_on->resource_rule, nullptr);
    EXPECT_EQ(all_on->span_rule, nullptr);

    entries_ptr every = decode(kEverySampler);
    ASSERT_EQ(length_of(every.get()), 1u);
    const obs_policy_ot_sampler *sampler = sampler_of(every->sampler);
    ASSERT_GT(every->sampler, 2u);
    EXPECT_STREQ(sampler->name, "s1");
    EXPECT_EQ(sampler->traces_config, 2);
    EXPECT_EQ(sampler->metrics_config, 1);
    EXPECT_EQ(sampler->logs_config, 0);
    EXPECT_EQ(sampler->next, nullptr);

    entries_ptr rules = decode(kSpanRules);
    ASSERT_EQ(length_of(rules->span_rule), 2u);
    EXPECT_EQ(rules->signal, 5);
    EXPECT_EQ(rules->span_rule->match, 1);
    EXPECT_EQ(rules->span_rule->action, 2);
    EXPECT_STREQ(obs_key_value_get_key(rules->span_rule->kv), "k");
    EXPECT_EQ(rules->span_rule->next->kv, nullptr);
    EXPECT_EQ(rules->span_rule->next->action, 3);
    EXPECT_EQ(encode(rules.get(), 1), kSpanRules);
}

TEST(PolicyTextTest, WholeListFlagChoosesTheFirstEntryOrAll) {
    entries_ptr two = own(new_entry("default", 2, 3));
    two->next = new_entry("*", as_sampling(new_sampler("s1", 2, 1, 0)), 0);
    EXPECT_EQ(encode(two.get(), 0), kDefaultAllOn);
    const std::string both = encode(two.get(), 1);
    EXPECT_EQ(both, std::string("[") + kDefaultAllOn + "," + kEverySampler + "]");
    obs_policy_ot *list = new_entry("first", 1, 0);
    sdk_policy_ot_internal_decode(both.c_str(), static_cast<uint32_t>(both.size() + 1), &list);
    entries_ptr back = own(list);
    ASSERT_EQ(length_of(list), 3u);
    EXPECT_STREQ(list->next->scope_name, "default");
    EXPECT_STREQ(list->next->next->scope_name, "*");
}

TEST(PolicyTextTest, EntriesThatWriteNoKeyGiveNoText) {
    entries_ptr empty = own(new_entry(nullptr, 0, 0));
    char *text = nullptr;
    uint32_t len = 77;
    sdk_policy_ot_internal_encode(empty.get(), &text, &len, 1);
    sdk_policy_ot_internal_encode(nullptr, &text, &len, 1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(len, 77u);
    // A sampler with nothing to write leaves "sampler" out; the entry still writes its name.
    empty->next = new_entry("x", as_sampling(new_sampler(nullptr, 0, 0, 0)), 0);
    EXPECT_EQ(encode(empty.get(), 1), "{kvlist 40 1 [{str 12 \"scope_name\" 11 {str 3 \"x\"}}]}");
}

TEST(PolicyTextTest, NothingBeyondTheLengthIsRead) {
    // An exact-size heap block without a terminator: ASan reports any read past it.
    const size_t n = strlen(kDefaultAllOn);
    char *bare = static_cast<char *>(malloc(n));
    memcpy(bare, kDefaultAllOn, n);
    obs_policy_ot *list = nullptr;
    sdk_policy_ot_internal_decode(bare, static_cast<uint32_t>(n), &list);
    ASSERT_EQ(length_of(list), 1u);
    EXPECT_EQ(list->log_level, 3);
    obs_policy_ot_free(list);
    list = nullptr;
    sdk_policy_ot_internal_decode(bare, static_cast<uint32_t>(n - 1), &list);
    sdk_policy_ot_internal_decode(bare, 0, &list);
    EXPECT_EQ(list, nullptr);
    free(bare);
}

// The policy of one entry holding "sampling" and a sampler with logs on.
entries_ptr decode_sampling(int64_t sampling) {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_int(&pairs, "sampling", sampling);
    obs_key_value *sampler = nullptr;
    obs_key_value_add_int(&sampler, "logs_config", 2);
    obs_key_value_add_kvlist(&pairs, "sampler", sampler, 0);
    return decode(kvlist_text(pairs));
}

TEST(SamplingKeyTest, SamplingZeroToTwoWinsOverSampler) {
    for (int64_t sampling : {0, 1, 2})
        EXPECT_EQ(decode_sampling(sampling)->sampler, static_cast<obs_sampling>(sampling));
}

// Taken as a sampling value, 3 would be a pointer; a value whose low word is 2 is not 2 either.
TEST(SamplingKeyTest, SamplingOutsideZeroToTwoCountsAsAbsent) {
    for (int64_t bad : {int64_t{3}, int64_t{-1}, int64_t{0x100000002}, INT64_MIN}) {
        entries_ptr entry = decode_sampling(bad);
        ASSERT_GT(entry->sampler, 2u) << bad;
        EXPECT_EQ(sampler_of(entry->sampler)->logs_config, 2);
        obs_key_value *alone = nullptr;
        obs_key_value_add_int(&alone, "sampling", bad);
        EXPECT_EQ(decode(kvlist_text(alone))->sampler, 0u) << bad;
    }
}

class PolicyDecodeTest : public testing::Test {
  protected:
    obs_key_value *pairs_ = nullptr;
};

TEST_F(PolicyDecodeTest, RuleKeyTakesOneKvlistOrAListInOrder) {
    obs_key_value_add_kvlist(&pairs_, "log_rule", rule_pairs(9), 0);
    obs_any_value *three = kvlist_node(rule_pairs(1));
    obs_any_value_add_list(&three, kvlist_node(rule_pairs(2)));
    obs_any_value_add_list(&three, kvlist_node(rule_pairs(3)));
    obs_key_value_add_list(&pairs_, "metric_rule", three);
    entries_ptr entry = decode(kvlist_text(pairs_));
    ASSERT_EQ(length_of(entry->log_rule), 1u);
    EXPECT_EQ(entry->log_rule->match, 9);
    ASSERT_EQ(length_of(entry->metric_rule), 3u);
    EXPECT_EQ(entry->metric_rule->match, 1);
    EXPECT_EQ(entry->metric_rule->next->match, 2);
    EXPECT_EQ(entry->metric_rule->next->next->match, 3);
}

TEST_F(PolicyDecodeTest, DecodingStopsAtTheFirstNodeThatIsNotAKvlist) {
    const std::string two_then_int = std::string("[") + kDefaultAllOn + "," + kEverySampler +
                                     ",{int 1 5}," + kDefaultAllOn + "]";
    EXPECT_EQ(length_of(decode(two_then_int).get()), 2u);
    EXPECT_EQ(length_of(decode(std::string("[{int 1 5},") + kDefaultAllOn + "]").get()), 0u);
    EXPECT_EQ(length_of(decode("{kvlist 111 3 [").get()), 0u);
    EXPECT_EQ(length_of(decode("").get()), 0u);
}

// Every key holds a value of a type the format does not give it, or a list where one value
// belongs. Read as the expected type, a number would become a pointer; under ASan that shows.
TEST_F(PolicyDecodeTest, ValuesOfTheWrongTypeAreIgnored) {
    obs_key_value_add_int(&pairs_, "scope_name", 0x1000);
    obs_key_value_add_str(&pairs_, "sampling", "2", 0);
    obs_key_value_add_double(&pairs_, "log_level", 3.0);
    obs_any_value *two_ints = int_node(4);
    obs_any_value_add_int(&two_ints, 5);
    obs_key_value_add_list(&pairs_, "signal", two_ints);
    obs_key_value *not_kv = nullptr;
    obs_key_value_add_str(&not_kv, "kv", "text", 0);
    obs_key_value_add_str(&not_kv, "match", "1", 0);
    obs_key_value_add_kvlist(&not_kv, "action", rule_pairs(1), 0);
    obs_any_value *rules = kvlist_node(not_kv);
    obs_any_value_add_list(&rules, int_node(5));
    obs_any_value_add_str(&rules, "rule", 0);
    obs_key_value_add_list(&pairs_, "span_rule", rules);
    obs_key_value_add_str(&pairs_, "scope_rule", "text", 0);
    obs_key_value *bad_sampler = nullptr;
    obs_key_value_add_int(&bad_sampler, "name", 0x1000);
    obs_key_value_add_str(&bad_sampler, "traces_config", "2", 0);
    obs_any_value *samplers = int_node(0x1000);
    obs_any_value_add_list(&samplers, kvlist_node(bad_sampler));
    obs_key_value_add_list(&pairs_, "sampler", samplers);

    entries_ptr entry = decode(kvlist_text(pairs_));
    ASSERT_EQ(length_of(entry.get()), 1u);
    EXPECT_EQ(entry->signal, 0);
    EXPECT_EQ(entry->scope_name, nullptr);
    EXPECT_EQ(entry->log_level, 0);
    EXPECT_EQ(entry->scope_rule, nullptr);
    ASSERT_EQ(length_of(entry->span_rule), 1u);
    EXPECT_EQ(entry->span_rule->kv, nullptr);
    EXPECT_EQ(entry->span_rule->match, 0);
    EXPECT_EQ(entry->span_rule->action, 0);
    ASSERT_GT(entry->sampler, 2u);
    const obs_policy_ot_sampler *sampler = sampler_of(entry->sampler);
    EXPECT_EQ(sampler->name, nullptr);
    EXPECT_EQ(sampler->traces_config, 0);
    EXPECT_EQ(sampler->next, nullptr);
}

// A repeated key: the first is used, the others are released with the tree (no leak, no double
// release of what the entry took).
TEST_F(PolicyDecodeTest, RepeatedKeysUseTheFirst) {
    obs_key_value_add_str(&pairs_, "scope_name", "one", 0);
    obs_key_value_add_str(&pairs_, "scope_name", "two", 0);
    obs_key_value *kv = nullptr;
    obs_key_value_add_str(&kv, "k", "v", 0);
    obs_key_value *rule = rule_pairs(4);
    obs_key_value_add_kvlist(&rule, "kv", kv, 0);
    obs_key_value *kv2 = nullptr;
    obs_key_value_add_str(&kv2, "k2", "v2", 0);
    obs_key_value_add_kvlist(&rule, "kv", kv2, 0);
    obs_key_value_add_kvlist(&pairs_, "span_rule", rule, 0);
    obs_key_value_add_kvlist(&pairs_, "span_rule", rule_pairs(5), 0);
    entries_ptr entry = decode(kvlist_text(pairs_));
    EXPECT_STREQ(entry->scope_name, "one");
    ASSERT_EQ(length_of(entry->span_rule), 1u);
    EXPECT_EQ(entry->span_rule->match, 4);
    EXPECT_STREQ(obs_key_value_get_key(entry->span_rule->kv), "k");
}

// Exported readers take over what a pair list owns exactly once and copy what it only borrows.
TEST_F(PolicyDecodeTest, ReadersTakeOwnedPayloadsOnceAndCopyBorrowedOnes) {
    obs_key_value *kv = nullptr;
    obs_key_value_add_str(&kv, "k", "v", 0);
    obs_key_value *rule = rule_pairs(1);
    obs_key_value_add_kvlist(&rule, "kv", kv, 0);
    obs_key_value_add_kvlist(&pairs_, "span_rule", rule, 0);
    obs_key_value *sampler = nullptr;
    obs_key_value_add_str(&sampler, "name", "s", 0);
    obs_key_value_add_kvlist(&pairs_, "sampler", sampler, 0);

    obs_policy_ot_rule *taken = nullptr;
    obs_policy_ot_rule *copied = nullptr;
    sdk_policy_ot_rule_from_key_value("span_rule", pairs_, &taken);
    sdk_policy_ot_rule_from_key_value("span_rule", pairs_, &copied);
    obs_sampling first = 0;
    obs_sampling second = 0;
    sdk_policy_ot_sampler_from_key_value(pairs_, &first);
    sdk_policy_ot_sampler_from_key_value(pairs_, &second);
    ASSERT_NE(taken, nullptr);
    ASSERT_NE(copied, nullptr);
    EXPECT_EQ(taken->kv, kv);
    EXPECT_NE(copied->kv, kv);
    EXPECT_NE(sampler_of(first)->name, sampler_of(second)->name);
    obs_key_value_free(pairs_);
    EXPECT_STREQ(obs_any_value_get_str(obs_key_value_get_val(copied->kv)), "v");
    EXPECT_STREQ(sampler_of(second)->name, "s");
    obs_policy_ot_rule_free(taken);
    obs_policy_ot_rule_free(copied);
    obs_policy_ot_sampler_free(first);
    obs_policy_ot_sampler_free(second);
}

TEST_F(PolicyDecodeTest, SamplersAreAppendedToAListButNeverToAWholeSignalValue) {
    obs_key_value *sampler = nullptr;
    obs_key_value_add_int(&sampler, "traces_config", 1);
    obs_key_value_add_kvlist(&pairs_, "sampler", sampler, 0);
    obs_sampling sampling = as_sampling(new_sampler("old", 2, 2, 2));
    sdk_policy_ot_sampler_from_key_value(pairs_, &sampling);
    ASSERT_NE(sampler_of(sampling)->next, nullptr);
    EXPECT_EQ(sampler_of(sampling)->next->traces_config, 1);
    obs_policy_ot_sampler_free(sampling);
    for (obs_sampling whole : {obs_sampling{1}, obs_sampling{2}}) {
        sampling = whole;
        sdk_policy_ot_sampler_from_key_value(pairs_, &sampling);
        EXPECT_EQ(sampling, whole);
    }
    obs_key_value_free(pairs_);
}

}  // namespace
