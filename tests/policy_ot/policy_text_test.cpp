#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

// An entry that writes no key (its sampler writing none either) adds nothing.
TEST(PolicyTextTest, EntriesEncodeByteForByteAndThoseThatWriteNoKeyGiveNoText) {
    entries_ptr list = own(new_entry("default", 2, 3));
    list->next = new_entry("*", new_sampler("s1", 2, 1, 0), 0);
    EXPECT_EQ(encode(list.get(), 0), kDefaultAllOn);
    EXPECT_EQ(encode(list.get(), 1), joined({kDefaultAllOn, kEverySampler}));
    entries_ptr empty = own(new_entry(nullptr, new_sampler(nullptr, 0, 0, 0), 0));
    EXPECT_EQ(encode(empty.get()) + encode(nullptr), "");
    empty->next = new_entry("x", 0, 0);
    EXPECT_EQ(encode(empty.get()), kvlist({pair("scope_name", str("x"))}));
}

// A text, what its entries encode to ("=": the text) and their number. A value of another type
// than its key's is ignored; read as that type, a number would become a pointer (ASan).
TEST(PolicyTextTest, DecodedEntriesHoldWhatTheTextGivesInTheRightType) {
    const std::string a = kDefaultAllOn, b = kEverySampler;
    const std::string logs_on = pair("sampler", kvlist({pair("logs_config", integer(2))}));
    std::vector<std::tuple<std::string, std::string, size_t>> cases = {
        {kRichEntry, "=", 1},
        {joined({a, b, integer(5), a}), joined({a, b}), 2},
        {joined({integer(5), a}), "", 0},
        {"{kvlist 111 3 [", "", 0},
        {"", "", 0},
        {kvlist(
             {pair("scope_name", integer(0x1000)), pair("sampling", str("2")),
              pair("log_level", node("double", "3.000000")),
              pair("signal", joined({integer(4), integer(5)})), pair("scope_rule", str("text")),
              pair("span_rule", joined({kvlist({pair("kv", str("text")), pair("match", str("1")),
                                                pair("action", kvlist({pair("a", integer(1))}))}),
                                        integer(5), str("rule")})),
              pair("sampler",
                   joined({integer(0x1000),
                           kvlist({pair("name", integer(0x1000)), pair("traces_config", str("2")),
                                   pair("logs_config", integer(2))})}))}),
         kvlist({logs_on, pair("span_rule", rule(0))}), 1},
        // A repeated key: the first is used, the others are released with the tree.
        {kvlist({pair("scope_name", str("one")), pair("scope_name", str("two")),
                 pair("span_rule", rule(4)), pair("span_rule", rule(5))}),
         kvlist({pair("scope_name", str("one")), pair("span_rule", rule(4))}), 1},
    };
    // "sampling" from 0 to 2 wins over "sampler"; any other int counts as absent, even one whose
    // low word is 2, and is never taken for a sampler pointer.
    for (long long sampling : {0LL, 1LL, 2LL})
        cases.push_back({kvlist({pair("sampling", integer(sampling)), logs_on}),
                         sampling ? kvlist({pair("sampling", integer(sampling))}) : "", 1});
    for (long long bad : {3LL, -1LL, 0x100000002LL, LLONG_MIN})
        cases.push_back({kvlist({pair("sampling", integer(bad)), logs_on}), kvlist({logs_on}), 1});
    for (const auto &[text, expected, count] : cases) {
        SCOPED_TRACE(text);
        entries_ptr entries = decode(text);
        EXPECT_EQ(length_of(entries.get()), count);
        EXPECT_EQ(encode(entries.get()), expected == "=" ? text : expected);
    }
}

// Readers append, take over what a pair list owns once and copy what it only borrows; a
// whole-signal sampling value never becomes a list.
TEST(PolicyTextTest, ReadersAppendAndTakeOwnedPayloadsOnce) {
    entries_ptr list = decode(kDefaultAllOn, new_entry("first", 1, 0));
    EXPECT_EQ(encode(list.get()),
              joined({kvlist({pair("scope_name", str("first")), pair("sampling", integer(1))}),
                      kDefaultAllOn}));
    obs_key_value *kv = nullptr, *rule = nullptr, *sampler = nullptr, *pairs = nullptr;
    obs_key_value_add_str(&kv, "k", "v", 0);
    obs_key_value_add_kvlist(&rule, "kv", kv, 0);
    obs_key_value_add_kvlist(&pairs, "span_rule", rule, 0);
    obs_key_value_add_str(&sampler, "name", "s", 0);
    obs_key_value_add_int(&sampler, "traces_config", 1);
    obs_key_value_add_kvlist(&pairs, "sampler", sampler, 0);

    obs_policy_ot_rule *taken = nullptr,
                       *copied = on_heap(obs_policy_ot_rule{nullptr, 9, 9, nullptr});
    for (obs_policy_ot_rule **rules : {&taken, &copied})
        sdk_policy_ot_rule_from_key_value("span_rule", pairs, rules);
    obs_sampling appended = new_sampler("old", 2, 2, 2), copy = 0, off = 1, on = 2;
    for (obs_sampling *sampling : {&appended, &copy, &off, &on})
        sdk_policy_ot_sampler_from_key_value(pairs, sampling);
    ASSERT_TRUE(off == 1 && on == 2 && taken && copy && length_of(copied) == 2 &&
                length_of(sampler_of(appended)) == 2);
    EXPECT_EQ(sampler_of(appended)->next->traces_config, 1);
    EXPECT_EQ(taken->kv, kv);
    obs_key_value_free(pairs);
    EXPECT_STREQ(obs_any_value_get_str(obs_key_value_get_val(copied->next->kv)), "v");
    EXPECT_STREQ(sampler_of(copy)->name, "s");
    for (obs_policy_ot_rule *rules : {taken, copied}) obs_policy_ot_rule_free(rules);
    for (obs_sampling sampling : {appended, copy}) obs_policy_ot_sampler_free(sampling);
}

}  // namespace
