#include <gtest/gtest.h>

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

TEST(KeyValueTest, AddersAppendPrivateKeysFindTakesTheFirstAndClonesReferenceTheValues) {
    obs_key_value *list = nullptr, *inner = nullptr;
    obs_key_value_add_int(nullptr, "a", 1);
    obs_key_value_add_int(&list, nullptr, 1);
    obs_key_value_add_str(&list, "a", nullptr, 0);
    obs_key_value_add_int(&inner, "n", 1);
    obs_any_value element = {}, *chain = nullptr;
    obs_any_value_add_int(&chain, 1);
    obs_any_value_add_str(&chain, "two", 0);
    obs_key_value_add_str(&list, "ab", "t", 1);
    obs_key_value_add_byte(&list, "a", "\1\2", 2, 0);
    obs_key_value_add_bool(&list, "a", false);
    obs_key_value_add_int(&list, "i", -7);
    obs_key_value_add_double(&list, "d", -0.25);
    obs_key_value_add_kvlist(&list, "kv", inner, 0);
    obs_key_value_add_array(&list, "arr", &element, 1, 1);
    obs_key_value_add_list(&list, "many", chain);
    obs_key_value_add_generic(&list, "one", OBS_VALUE_BOOL, "\1", 1);
    const std::string first = "{str 4 \"ab\" 11 {str 3 \"t\"}}",
                      whole = "{kvlist 325 9 [" + first +
                              ",{str 3 \"a\" 13 {byte 4 0102}},{str 3 \"a\" 14 {bool 5 false}},"
                              "{str 3 \"i\" 10 {int 2 -7}},{str 3 \"d\" 20 {double 9 -0.250000}},"
                              "{str 4 \"kv\" 39 {kvlist 27 1 [{str 3 \"n\" 9 {int 1 1}}]}},"
                              "{str 5 \"arr\" 24 {array 13 1 [{na 2 ff}]}},"
                              "{str 6 \"many\" 25 [{int 1 1},{str 5 \"two\"}]},"
                              "{str 5 \"one\" 13 {bool 4 true}}]}";
    EXPECT_EQ(encoded(list), whole);
    EXPECT_EQ(obs_any_value_get_type(obs_key_value_get_val(list)), OBS_VALUE_STR | OBS_VALUE_REF);
    EXPECT_EQ(obs_key_value_find(list, "a"), obs_key_value_get_next(list));
    for (const char *missing : {"abc", "b", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(obs_key_value_find(list, missing), nullptr) << (missing ? missing : "null");
    for (int only_first : {0, 1}) {
        obs_key_value *copy = obs_key_value_clone(list, only_first);
        EXPECT_EQ(encoded(copy), only_first ? "{kvlist 31 1 [" + first + "]}" : whole);
        EXPECT_EQ(obs_any_value_get_str(obs_key_value_get_val(copy)),
                  obs_any_value_get_str(obs_key_value_get_val(list)));
        obs_key_value_free(copy);
    }
    obs_key_value_free(list);
}

}  // namespace
