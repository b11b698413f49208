#include <gtest/gtest.h>

#include <string>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

// Two entries: "default" with a sampler and rules in every list, whose pairs hold a payload of
// every owning kind (string, bytes, nested kvlist, array); "*" all off.
std::string rich_policy_text() {
    const std::string kv =
        pair("kv", kvlist({pair("service", str("svc")), pair("id", node("byte", "010203")),
                           pair("where", kvlist({pair("region", str("eu"))})),
                           pair("list", node("array", "2 " + joined({integer(42), str("x")})))}));
    auto rule = [&](int match, bool with_kv) {
        std::vector<std::string> pairs = {pair("match", integer(match)),
                                          pair("action", integer(0))};
        if (with_kv) pairs.insert(pairs.begin(), kv);
        return kvlist(pairs);
    };
    const std::string sampler =
        kvlist({pair("name", str("s1")), pair("traces_config", integer(2)),
                pair("metrics_config", integer(1)), pair("logs_config", integer(2))});
    return joined({kvlist({pair("signal", integer(7)), pair("scope_name", str("default")),
                           pair("sampler", sampler), pair("log_level", integer(4)),
                           pair("resource_rule", joined({rule(1, true), rule(3, false)})),
                           pair("scope_rule", rule(5, true)), pair("span_rule", rule(7, true)),
                           pair("log_rule", rule(9, false)), pair("metric_rule", rule(11, true))}),
                   kvlist({pair("scope_name", str("*")), pair("sampling", integer(1))})});
}

TEST(PolicyFindTest, FindsTheFirstEntryWithTheNameByteWise) {
    entries_ptr list = own(new_entry(nullptr, 2, 0));
    list->next = new_entry("a", 1, 0);
    list->next->next = new_entry("b", 2, 0);
    list->next->next->next = new_entry("b", 0, 0);
    const std::pair<const char *, const obs_policy_ot *> cases[] = {
        {"b", list->next->next}, {"a", list->next}, {"B", nullptr},
        {"bb", nullptr},         {"", nullptr},     {nullptr, nullptr}};
    for (const auto &c : cases) EXPECT_EQ(obs_policy_ot_find(list.get(), c.first), c.second);
    EXPECT_EQ(obs_policy_ot_find(nullptr, "a"), nullptr);
}

// Under ASan a copy that shares any part of the source is read after the source is released.
TEST(PolicyCloneTest, CopyOwnsEverythingItHoldsAndOutlivesTheSource) {
    entries_ptr source = decode(rich_policy_text());
    const std::string before = encode(source.get());
    ASSERT_EQ(before, rich_policy_text());
    entries_ptr copy = own(obs_policy_ot_clone(source.get(), 0));
    EXPECT_EQ(encode(copy.get()), before);

    source->log_level = 1;
    source->scope_name[0] = 'X';
    sampler_of(source->sampler)->traces_config = 1;
    static_cast<char *>(obs_key_value_get_val(source->scope_rule->kv)->val.ptr)[0] = 'X';
    EXPECT_EQ(encode(copy.get()), before);
    source.reset();
    EXPECT_EQ(encode(copy.get()), before);
}

// Nodes of the copy that kept the borrow mark would never release the payloads copied for them.
void expect_owned(const obs_key_value *pairs) {
    for (; pairs; pairs = pairs->next) {
        SCOPED_TRACE(pairs->key);
        ASSERT_NE(pairs->val, nullptr);
        EXPECT_EQ(pairs->val->type & OBS_VALUE_REF, 0);
        if (OBS_VALUE_TYPE_CODE(pairs->val->type) == OBS_VALUE_KVLIST)
            expect_owned(obs_any_value_get_kvlist(pairs->val));
    }
}

TEST(PolicyCloneTest, BorrowedPayloadsAreCopiedIntoNodesThatOwnThem) {
    static const char borrowed[] = "the caller's";
    obs_key_value *inner = nullptr;
    obs_key_value_add_str(&inner, "s", borrowed, 1);
    obs_key_value *kv = nullptr;
    obs_key_value_add_str(&kv, "s", borrowed, 1);
    obs_key_value_add_byte(&kv, "b", borrowed, 4, 1);
    obs_key_value_add_kvlist(&kv, "nested", inner, 1);
    obs_policy_ot_rule *rule = new_rule(kv, 1, 0);
    obs_policy_ot_rule *copy = obs_policy_ot_rule_clone(rule, 0);
    obs_policy_ot_rule_free(rule);
    obs_key_value_free(inner);
    ASSERT_NE(copy, nullptr);
    expect_owned(copy->kv);
    EXPECT_STREQ(obs_any_value_get_str(copy->kv->val), borrowed);
    obs_policy_ot_rule_free(copy);
}

TEST(PolicyCloneTest, OnlyFirstCopiesOneEntryOrOneRule) {
    entries_ptr source = decode(rich_policy_text());
    entries_ptr first = own(obs_policy_ot_clone(source.get(), 1));
    ASSERT_EQ(length_of(first.get()), 1u);
    EXPECT_EQ(encode(first.get()), encode(source.get(), 0));

    obs_policy_ot_rule *rule = obs_policy_ot_rule_clone(source->resource_rule, 1);
    ASSERT_EQ(length_of(rule), 1u);
    EXPECT_EQ(rule->match, 1);
    EXPECT_NE(rule->kv, source->resource_rule->kv);
    obs_policy_ot_rule_free(rule);
    EXPECT_EQ(obs_policy_ot_clone(nullptr, 0), nullptr);
    EXPECT_EQ(obs_policy_ot_rule_clone(nullptr, 0), nullptr);
}

}  // namespace
