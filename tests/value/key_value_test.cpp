#include <gtest/gtest.h>

#include <cstring>

#include "observability_api.h"

namespace {

size_t list_length(const obs_key_value *pair) {
    size_t n = 0;
    for (; pair; pair = obs_key_value_get_next(pair)) ++n;
    return n;
}

class KeyValueListTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_key_value_free(list_); }
    obs_key_value *list_ = nullptr;
};

TEST_F(KeyValueListTest, KeepsInsertionOrderAndFindsTheFirstOfEqualKeys) {
    obs_key_value_add_int(&list_, "a", 1);
    obs_key_value_add_int(&list_, "b", 2);
    obs_key_value_add_int(&list_, "a", 3);
    ASSERT_EQ(list_length(list_), 3u);
    EXPECT_STREQ(obs_key_value_get_key(list_), "a");
    EXPECT_STREQ(obs_key_value_get_key(obs_key_value_get_next(list_)), "b");
    obs_key_value *found = obs_key_value_find(list_, "a");
    EXPECT_EQ(found, list_);
    EXPECT_EQ(obs_any_value_get_int(obs_key_value_get_val(found)), 1);
    EXPECT_EQ(obs_key_value_find(list_, "c"), nullptr);
    EXPECT_EQ(obs_key_value_find(list_, "ab"), nullptr);
    EXPECT_EQ(obs_key_value_find(list_, nullptr), nullptr);
    EXPECT_EQ(obs_key_value_find(nullptr, "a"), nullptr);
}

TEST_F(KeyValueListTest, KeyIsAlwaysAPrivateCopy) {
    char key[] = "name";
    char value[] = "v";
    obs_key_value_add_str(&list_, key, value, 1);
    key[0] = 'X';
    EXPECT_NE(obs_key_value_get_key(list_), key);
    EXPECT_STREQ(obs_key_value_get_key(list_), "name");
    const obs_any_value *val = obs_key_value_get_val(list_);
    EXPECT_EQ(obs_any_value_get_type(val), OBS_VALUE_STR | OBS_VALUE_REF);
    EXPECT_EQ(obs_any_value_get_str(val), value);
}

TEST_F(KeyValueListTest, TypedAddersMakeTheSameNodesAsTheValueAdders) {
    unsigned char bytes[] = {1, 2};
    obs_key_value_add_str(&list_, "s", "text", 0);
    obs_key_value_add_byte(&list_, "y", bytes, sizeof bytes, 0);
    obs_key_value_add_bool(&list_, "b", true);
    obs_key_value_add_double(&list_, "d", -0.25);
    const struct {
        const char *key;
        uint8_t type;
        uint32_t vlen;
    } expected[] = {{"s", OBS_VALUE_STR, 5},
                    {"y", OBS_VALUE_BYTES, 2},
                    {"b", OBS_VALUE_BOOL, 1},
                    {"d", OBS_VALUE_DOUBLE, 8}};
    const obs_key_value *pair = list_;
    for (const auto &e : expected) {
        ASSERT_NE(pair, nullptr);
        EXPECT_STREQ(obs_key_value_get_key(pair), e.key);
        EXPECT_EQ(obs_any_value_get_type(obs_key_value_get_val(pair)), e.type) << e.key;
        EXPECT_EQ(obs_any_value_get_vlen(obs_key_value_get_val(pair)), e.vlen) << e.key;
        pair = obs_key_value_get_next(pair);
    }
    EXPECT_STREQ(obs_any_value_get_str(obs_key_value_get_val(list_)), "text");
    EXPECT_EQ(obs_any_value_get_double(obs_key_value_get_val(obs_key_value_find(list_, "d"))),
              -0.25);
}

TEST_F(KeyValueListTest, NestedKvlistAndArrayAreOwnedByThePair) {
    obs_key_value *inner = nullptr;
    obs_key_value_add_str(&inner, "x", "y", 0);
    obs_key_value_add_int(&inner, "n", 1);
    obs_key_value_add_kvlist(&list_, "inner", inner, 0);
    auto *elements = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
    obs_any_value_set_generic(elements, OBS_VALUE_STR, "e", 2);
    obs_key_value_add_array(&list_, "arr", elements, 1, 0);
    const obs_any_value *kv = obs_key_value_get_val(list_);
    EXPECT_EQ(obs_any_value_get_type(kv), OBS_VALUE_KVLIST);
    EXPECT_EQ(obs_any_value_get_vlen(kv), 2u);
    EXPECT_EQ(obs_any_value_get_kvlist(kv), inner);
    const obs_any_value *arr = obs_key_value_get_val(obs_key_value_find(list_, "arr"));
    EXPECT_EQ(obs_any_value_get_type(arr), OBS_VALUE_ARRAY);
    EXPECT_EQ(obs_any_value_get_array(arr), elements);
}

TEST_F(KeyValueListTest, AddListAndGenericTypeNoneAttachTheChainItself) {
    obs_any_value *chain = nullptr;
    obs_any_value_add_int(&chain, 1);
    obs_any_value_add_str(&chain, "two", 0);
    obs_any_value *single = nullptr;
    obs_any_value_add_bool(&single, true);
    obs_key_value_add_list(&list_, "many", chain);
    obs_key_value_add_generic(&list_, "one", OBS_VALUE_NONE, single, 0);
    ASSERT_EQ(list_length(list_), 2u);
    EXPECT_EQ(obs_key_value_get_val(list_), chain);
    EXPECT_EQ(obs_any_value_get_type(chain), OBS_VALUE_INT);
    EXPECT_STREQ(obs_any_value_get_str(obs_any_value_get_next(chain)), "two");
    EXPECT_EQ(obs_key_value_get_val(obs_key_value_get_next(list_)), single);
}

TEST_F(KeyValueListTest, NullHeadKeyOrPayloadAddsNothing) {
    obs_key_value_add_int(nullptr, "a", 1);
    obs_key_value_add_int(&list_, nullptr, 1);
    obs_key_value_add_str(&list_, "a", nullptr, 0);
    obs_key_value_add_byte(&list_, "a", nullptr, 1, 0);
    obs_key_value_add_array(&list_, "a", nullptr, 1, 0);
    obs_key_value_add_kvlist(&list_, "a", nullptr, 0);
    obs_key_value_add_list(&list_, "a", nullptr);
    obs_key_value_add_generic(&list_, "a", OBS_VALUE_INT, nullptr, 8);
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(obs_key_value_get_key(nullptr), nullptr);
    EXPECT_EQ(obs_key_value_get_val(nullptr), nullptr);
    EXPECT_EQ(obs_key_value_get_next(nullptr), nullptr);
}

class KeyValueCloneTest : public ::testing::Test {
  protected:
    void SetUp() override {
        obs_key_value_add_str(&source_, "first", "one", 0);
        obs_any_value *chain = nullptr;
        obs_any_value_add_str(&chain, "two", 0);
        obs_any_value_add_int(&chain, 2);
        obs_key_value_add_list(&source_, "second", chain);
    }
    void TearDown() override { obs_key_value_free(source_); }
    obs_key_value *source_ = nullptr;
};

TEST_F(KeyValueCloneTest, CopiesKeysAndReferencesWholeValueChains) {
    obs_key_value *copy = obs_key_value_clone(source_, 0);
    ASSERT_EQ(list_length(copy), 2u);
    const obs_key_value *src = source_;
    for (const obs_key_value *c = copy; c; c = obs_key_value_get_next(c)) {
        EXPECT_NE(obs_key_value_get_key(c), obs_key_value_get_key(src));
        EXPECT_STREQ(obs_key_value_get_key(c), obs_key_value_get_key(src));
        const obs_any_value *cv = obs_key_value_get_val(c);
        const obs_any_value *sv = obs_key_value_get_val(src);
        for (; cv && sv; cv = obs_any_value_get_next(cv), sv = obs_any_value_get_next(sv)) {
            EXPECT_NE(cv, sv);
            EXPECT_EQ(obs_any_value_get_type(cv), obs_any_value_get_type(sv) | OBS_VALUE_REF);
            EXPECT_EQ(obs_any_value_get_val(const_cast<obs_any_value *>(cv), OBS_VALUE_STR),
                      obs_any_value_get_val(const_cast<obs_any_value *>(sv), OBS_VALUE_STR));
        }
        EXPECT_EQ(cv, nullptr);
        EXPECT_EQ(sv, nullptr);
        src = obs_key_value_get_next(src);
    }
    obs_key_value_free(copy);
    EXPECT_STREQ(obs_any_value_get_str(obs_key_value_get_val(source_)), "one");
}

TEST_F(KeyValueCloneTest, OnlyFirstCopiesOnePair) {
    obs_key_value *copy = obs_key_value_clone(source_, 1);
    ASSERT_EQ(list_length(copy), 1u);
    EXPECT_STREQ(obs_key_value_get_key(copy), "first");
    obs_key_value_free(copy);
    EXPECT_EQ(obs_key_value_clone(nullptr, 0), nullptr);
}

}  // namespace
