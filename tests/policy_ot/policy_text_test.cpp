#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

// Signal 5 and two span rules, the first with one attribute pair, the second without any.
const std::string kSpanRules = kvlist(
    {pair("signal", integer(5)), pair("scope_name", str("a")),
     pair("span_rule", joined({kvlist({pair("kv", kvlist({pair("k", str("v"))})),
                                       pair("match", integer(1)), pair("action", integer(2))}),
                               kvlist({pair("match", integer(0)), pair("action", integer(3))})}))});

TEST(PolicyTextTest, EntriesEncodeByteForByteAndThoseThatWriteNoKeyGiveNoText) {
    entries_ptr all_on = own(new_entry("default", 2, 3));
    all_on->next = new_entry("*", as_sampling(new_sampler("s1", 2, 1, 0)), 0);
    EXPECT_EQ(encode(all_on.get(), 0), kDefaultAllOn);
    EXPECT_EQ(encode(all_on->next), kEverySampler);
    EXPECT_EQ(encode(all_on.get(), 1), joined({kDefaultAllOn, kEverySampler}));

    entries_ptr rules = own(new_entry("a", 0, 0));
    rules->signal = 5;
    obs_key_value *kv = nullptr;
    obs_key_value_add_str(&kv, "k", "v", 0);
    rules->span_rule = new_rule(kv, 1, 2);
    rules->span_rule->next = new_rule(nullptr, 0, 3);
    EXPECT_EQ(encode(rules.get()), kSpanRules);

    entries_ptr empty = own(new_entry(nullptr, 0, 0));
    char *text = nullptr;
    uint32_t len = 77;
    sdk_policy_ot_internal_encode(empty.get(), &text, &len, 1);
    sdk_policy_ot_internal_encode(nullptr, &text, &len, 1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(len, 77u);
    // A sampler with nothing to write leaves "sampler" out; the entry still writes its name.
    empty->next = new_entry("x", as_sampling(new_sampler(nullptr, 0, 0, 0)), 0);
    EXPECT_EQ(encode(empty.get()), kvlist({pair("scope_name", str("x"))}));
}

// Each text is decoded and the entries encoded again ("=" : to the same text), so what the
// decoder took shows. Values of a type the format does not give their key are ignored as if
// absent; read as the expected type, a number would become a pointer, which ASan shows.
TEST(PolicyTextTest, DecodedEntriesHoldWhatTheTextGivesInTheRightType) {
    const std::string a = kDefaultAllOn, b = kEverySampler;
    const std::string logs_on = pair("sampler", kvlist({pair("logs_config", integer(2))}));
    const std::string k_v = pair("kv", kvlist({pair("k", str("v"))}));
    auto rule = [](int match) {
        return kvlist({pair("match", integer(match)), pair("action", integer(0))});
    };
    struct row {
        std::string text, expected;
        size_t entries;
    };
    std::vector<row> cases = {
        {a, "=", 1},
        {b, "=", 1},
        {kSpanRules, "=", 1},
        {kvlist(
             {pair("log_rule", rule(9)), pair("metric_rule", joined({rule(1), rule(2), rule(3)}))}),
         "=", 1},
        {joined({a, b, integer(5), a}), joined({a, b}), 2},
        {joined({integer(5), a}), "", 0},
        {"{kvlist 111 3 [", "", 0},
        {"", "", 0},
        {kvlist({pair("scope_name", integer(0x1000))}), "", 1},
        {kvlist({pair("sampling", str("2"))}), "", 1},
        {kvlist({pair("log_level", node("double", "3.000000"))}), "", 1},
        {kvlist({pair("signal", joined({integer(4), integer(5)}))}), "", 1},
        {kvlist({pair("scope_rule", str("text"))}), "", 1},
        {kvlist(
             {pair("span_rule", joined({kvlist({pair("kv", str("text")), pair("match", str("1")),
                                                pair("action", kvlist({pair("a", integer(1))}))}),
                                        integer(5), str("rule")}))}),
         kvlist({pair("span_rule", rule(0))}), 1},
        {kvlist({pair("sampler",
                      joined({integer(0x1000), kvlist({pair("name", integer(0x1000)),
                                                       pair("traces_config", str("2")),
                                                       pair("logs_config", integer(2))})}))}),
         kvlist({logs_on}), 1},
        // A repeated key: the first is used, the others are released with the tree.
        {kvlist({pair("scope_name", str("one")), pair("scope_name", str("two")),
                 pair("span_rule", kvlist({k_v, pair("kv", kvlist({pair("k2", str("v2"))})),
                                           pair("match", integer(4))})),
                 pair("span_rule", rule(5))}),
         kvlist({pair("scope_name", str("one")),
                 pair("span_rule",
                      kvlist({k_v, pair("match", integer(4)), pair("action", integer(0))}))}),
         1},
    };
    // "sampling" from 0 to 2 wins over "sampler"; any other int counts as absent, even one whose
    // low word is 2, and is never taken for a sampler pointer.
    for (long long sampling : {0LL, 1LL, 2LL})
        cases.push_back({kvlist({pair("sampling", integer(sampling)), logs_on}),
                         sampling ? kvlist({pair("sampling", integer(sampling))}) : "", 1});
    for (long long bad : {3LL, -1LL, 0x100000002LL, LLONG_MIN}) {
        cases.push_back({kvlist({pair("sampling", integer(bad)), logs_on}), kvlist({logs_on}), 1});
        cases.push_back({kvlist({pair("sampling", integer(bad))}), "", 1});
    }
    for (const row &c : cases) {
        SCOPED_TRACE(c.text);
        entries_ptr entries = decode(c.text);
        EXPECT_EQ(length_of(entries.get()), c.entries);
        EXPECT_EQ(encode(entries.get()), c.expected == "=" ? c.text : c.expected);
    }
}

TEST(PolicyTextTest, DecodedEntriesAreAppendedAndNothingBeyondTheLengthIsRead) {
    // An exact-size heap block without a terminator: ASan reports any read past it.
    const std::string text = joined({kDefaultAllOn, kEverySampler});
    std::vector<char> bare(text.begin(), text.end());
    obs_policy_ot *list = new_entry("first", 1, 0);
    sdk_policy_ot_internal_decode(bare.data(), static_cast<uint32_t>(bare.size()), &list);
    entries_ptr whole = own(list);
    ASSERT_EQ(length_of(list), 3u);
    EXPECT_EQ(encode(list->next), text);
    list = nullptr;
    sdk_policy_ot_internal_decode(bare.data(), static_cast<uint32_t>(bare.size() - 1), &list);
    sdk_policy_ot_internal_decode(bare.data(), 0, &list);
    EXPECT_EQ(list, nullptr);
}

// Exported readers append to what they are given, take over what a pair list owns exactly once
// and copy what it only borrows; a whole-signal sampling value never becomes a list.
TEST(PolicyTextTest, ReadersAppendAndTakeOwnedPayloadsOnce) {
    obs_key_value *kv = nullptr, *rule = nullptr, *sampler = nullptr, *pairs = nullptr;
    obs_key_value_add_str(&kv, "k", "v", 0);
    obs_key_value_add_kvlist(&rule, "kv", kv, 0);
    obs_key_value_add_kvlist(&pairs, "span_rule", rule, 0);
    obs_key_value_add_str(&sampler, "name", "s", 0);
    obs_key_value_add_int(&sampler, "traces_config", 1);
    obs_key_value_add_kvlist(&pairs, "sampler", sampler, 0);

    obs_policy_ot_rule *taken = nullptr, *copied = nullptr;
    sdk_policy_ot_rule_from_key_value("span_rule", pairs, &taken);
    sdk_policy_ot_rule_from_key_value("span_rule", pairs, &copied);
    obs_sampling appended = as_sampling(new_sampler("old", 2, 2, 2)), copy = 0;
    sdk_policy_ot_sampler_from_key_value(pairs, &appended);
    sdk_policy_ot_sampler_from_key_value(pairs, &copy);
    for (obs_sampling whole : {obs_sampling{1}, obs_sampling{2}}) {
        obs_sampling sampling = whole;
        sdk_policy_ot_sampler_from_key_value(pairs, &sampling);
        EXPECT_EQ(sampling, whole);
    }
    ASSERT_TRUE(taken && copied && copy);
    ASSERT_EQ(length_of(sampler_of(appended)), 2u);
    EXPECT_EQ(sampler_of(appended)->next->traces_config, 1);
    EXPECT_EQ(taken->kv, kv);
    EXPECT_NE(copied->kv, kv);
    EXPECT_NE(sampler_of(appended)->next->name, sampler_of(copy)->name);
    obs_key_value_free(pairs);
    EXPECT_STREQ(obs_any_value_get_str(obs_key_value_get_val(copied->kv)), "v");
    EXPECT_STREQ(sampler_of(copy)->name, "s");
    obs_policy_ot_rule_free(taken);
    obs_policy_ot_rule_free(copied);
    obs_policy_ot_sampler_free(appended);
    obs_policy_ot_sampler_free(copy);
}

}  // namespace
