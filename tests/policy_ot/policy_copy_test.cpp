#include <gtest/gtest.h>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

TEST(PolicyFindTest, FindsTheFirstEntryWithTheNameByteWise) {
    entries_ptr list = decode(
        joined({kvlist({pair("sampling", integer(2))}), kvlist({pair("scope_name", str("a"))}),
                kvlist({pair("scope_name", str("b"))}),
                kvlist({pair("scope_name", str("b")), pair("log_level", integer(1))})}));
    const std::pair<const char *, const obs_policy_ot *> cases[] = {
        {"b", list->next->next}, {"a", list->next}, {"B", nullptr},
        {"bb", nullptr},         {"", nullptr},     {nullptr, nullptr}};
    for (const auto &c : cases) EXPECT_EQ(obs_policy_ot_find(list.get(), c.first), c.second);
}

// Under ASan a part shared with the source is read after the source is released.
TEST(PolicyCloneTest, OnlyFirstCopiesOneEntryOrOneRule) {
    entries_ptr source = decode(joined({kRichEntry, kEverySampler}));
    entries_ptr first = own(obs_policy_ot_clone(source.get(), 1));
    obs_policy_ot_rule *rule = obs_policy_ot_rule_clone(source->resource_rule, 1);
    source.reset();
    EXPECT_EQ(encode(first.get()), kRichEntry);
    EXPECT_TRUE(length_of(rule) == 1 && rule->match == 1);
    obs_policy_ot_rule_free(rule);
    EXPECT_TRUE(!obs_policy_ot_clone(nullptr, 0) && !obs_policy_ot_rule_clone(nullptr, 0));
}

// Nodes of the copy that kept the borrow mark would never release the payloads copied for them.
TEST(PolicyCloneTest, BorrowedPayloadsAreCopiedIntoNodesThatOwnThem) {
    static const char borrowed[] = "the caller's";
    obs_key_value *inner = nullptr, *kv = nullptr;
    obs_key_value_add_str(&inner, "s", borrowed, 1);
    obs_key_value_add_str(&kv, "s", borrowed, 1);
    obs_key_value_add_byte(&kv, "b", borrowed, 4, 1);
    obs_key_value_add_kvlist(&kv, "nested", inner, 1);
    obs_policy_ot_rule *rule = on_heap(obs_policy_ot_rule{kv, 1, 0, nullptr});
    obs_policy_ot_rule *copy = obs_policy_ot_rule_clone(rule, 0);
    obs_policy_ot_rule_free(rule);
    obs_key_value_free(inner);
    obs_any_value *nested = copy->kv->next->next->val;
    for (const obs_any_value *node :
         {copy->kv->val, copy->kv->next->val, nested, obs_any_value_get_kvlist(nested)->val})
        EXPECT_EQ(node->type & OBS_VALUE_REF, 0);
    EXPECT_STREQ(obs_any_value_get_str(copy->kv->val), borrowed);
    obs_policy_ot_rule_free(copy);
}

}  // namespace
