#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "observability_api.h"

namespace {

// The list's text form: keys, value types, lengths and payloads at once.
std::string encoded(const obs_key_value *list) {
    obs_sds text = obs_key_value_encode(list);
    std::string copy = text ? text : "<null>";
    obs_sdsfree(text);
    return copy;
}

class KeyValueTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_key_value_free(list_); }
    obs_key_value *list_ = nullptr;
};

TEST_F(KeyValueTest, EachAdderAppendsAPrivateKeyWithTheValueItsValueAdderMakes) {
    char key[] = "s", text[] = "t";
    unsigned char bytes[] = {1, 2};
    obs_key_value *inner = nullptr;
    obs_key_value_add_int(&inner, "n", 1);
    auto *elements = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
    obs_any_value_set_generic(elements, OBS_VALUE_STR, "e", 2);
    obs_any_value *chain = nullptr, *single = nullptr;
    obs_any_value_add_int(&chain, 1);
    obs_any_value_add_str(&chain, "two", 0);
    obs_any_value_add_bool(&single, true);
    obs_key_value_add_str(&list_, key, text, 1);
    obs_key_value_add_byte(&list_, "y", bytes, 2, 0);
    key[0] = 'X';
    bytes[0] = 9;
    obs_key_value_add_bool(&list_, "b", false);
    obs_key_value_add_int(&list_, "i", -7);
    obs_key_value_add_double(&list_, "d", -0.25);
    obs_key_value_add_kvlist(&list_, "kv", inner, 0);
    obs_key_value_add_array(&list_, "arr", elements, 1, 0);
    obs_key_value_add_list(&list_, "many", chain);
    obs_key_value_add_generic(&list_, "one", OBS_VALUE_NONE, single, 0);
    EXPECT_EQ(encoded(list_),
              "{kvlist 326 9 [{str 3 \"s\" 11 {str 3 \"t\"}},{str 3 \"y\" 13 {byte 4 0102}},"
              "{str 3 \"b\" 14 {bool 5 false}},{str 3 \"i\" 10 {int 2 -7}},"
              "{str 3 \"d\" 20 {double 9 -0.250000}},"
              "{str 4 \"kv\" 39 {kvlist 27 1 [{str 3 \"n\" 9 {int 1 1}}]}},"
              "{str 5 \"arr\" 26 {array 15 1 [{str 3 \"e\"}]}},"
              "{str 6 \"many\" 25 [{int 1 1},{str 5 \"two\"}]},"
              "{str 5 \"one\" 13 {bool 4 true}}]}");
    EXPECT_EQ(obs_any_value_get_str(obs_key_value_get_val(list_)), text);
    EXPECT_EQ(obs_any_value_get_type(obs_key_value_get_val(list_)), OBS_VALUE_STR | OBS_VALUE_REF);
    EXPECT_EQ(obs_key_value_get_val(obs_key_value_find(list_, "many")), chain);
    EXPECT_EQ(obs_key_value_get_val(obs_key_value_find(list_, "one")), single);
}

TEST_F(KeyValueTest, FindGivesTheFirstPairWithExactlyTheKey) {
    obs_key_value_add_int(&list_, "ab", 0);
    obs_key_value_add_int(&list_, "a", 1);
    obs_key_value_add_int(&list_, "a", 2);
    const obs_key_value *found = obs_key_value_find(list_, "a");
    EXPECT_EQ(found, obs_key_value_get_next(list_));
    EXPECT_EQ(obs_any_value_get_int(obs_key_value_get_val(found)), 1);
    for (const char *missing : {"abc", "b", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(obs_key_value_find(list_, missing), nullptr) << (missing ? missing : "null");
}

TEST_F(KeyValueTest, ClonesCopyKeysAndReferenceWholeValueChains) {
    obs_key_value_add_str(&list_, "first", "one", 0);
    obs_any_value *chain = nullptr;
    obs_any_value_add_str(&chain, "two", 0);
    obs_any_value_add_int(&chain, 2);
    obs_key_value_add_list(&list_, "second", chain);
    const std::string first = "{str 7 \"first\" 13 {str 5 \"one\"}}";
    const std::string whole =
        "{kvlist 82 2 [" + first + ",{str 8 \"second\" 25 [{str 5 \"two\"},{int 1 2}]}]}";
    for (int only_first : {0, 1}) {
        obs_key_value *copy = obs_key_value_clone(list_, only_first);
        EXPECT_EQ(encoded(copy), only_first ? "{kvlist 36 1 [" + first + "]}" : whole);
        EXPECT_NE(obs_key_value_get_key(copy), obs_key_value_get_key(list_));
        const obs_any_value *value = obs_key_value_get_val(copy);
        EXPECT_EQ(obs_any_value_get_type(value), OBS_VALUE_STR | OBS_VALUE_REF);
        EXPECT_EQ(obs_any_value_get_str(value),
                  obs_any_value_get_str(obs_key_value_get_val(list_)));
        obs_key_value_free(copy);
    }
    EXPECT_EQ(encoded(list_), whole);
}

TEST_F(KeyValueTest, NullHeadKeyOrPayloadAddsNothing) {
    obs_key_value_add_int(nullptr, "a", 1);
    obs_key_value_add_int(&list_, nullptr, 1);
    obs_key_value_add_str(&list_, "a", nullptr, 0);
    obs_key_value_add_list(&list_, "a", nullptr);
    obs_key_value_add_generic(&list_, "a", OBS_VALUE_INT, nullptr, 8);
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(obs_key_value_clone(nullptr, 0), nullptr);
    obs_key_value_free(nullptr);
}

}  // namespace
