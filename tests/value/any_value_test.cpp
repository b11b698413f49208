#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "observability_api.h"

namespace {

// "<type name>[&] <vlen> <printed>" per node, "&" marking a borrowed payload.
std::string describe(const obs_any_value *node) {
    std::string text;
    for (; node; node = obs_any_value_get_next(node)) {
        std::vector<char> buf(32, '#');  // so that a missing terminator shows
        const uint8_t type = obs_any_value_get_type(node);
        text += std::string(text.empty() ? "" : ", ") + obs_any_value_type_name(type) +
                (type & OBS_VALUE_REF ? "& " : " ") + std::to_string(obs_any_value_get_vlen(node)) +
                " " + obs_any_value_print(node, buf.data(), 32);
    }
    return text;
}

TEST(AnyValueTest, AddersAppendOwningOrBorrowingClonesBorrowAndPrintFitsTheBuffer) {
    obs_any_value borrowed[2] = {}, *head = nullptr, *chain = nullptr;
    obs_any_value_add_int(nullptr, 1);
    obs_any_value_add_str(&head, nullptr, 0);
    obs_any_value_add_byte(&head, nullptr, 3, 0);
    obs_key_value pair = {const_cast<char *>("a"), nullptr, nullptr};
    obs_any_value_add_str(&chain, "abc", 0);
    obs_any_value_add_int(&chain, 9);
    auto *owned = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
    obs_any_value_set_generic(owned, OBS_VALUE_STR, "one", 4);  // released with the array
    obs_any_value_add_byte(&head, "", 0, 0);
    obs_any_value_add_str(&head, "def", 1);
    obs_any_value_add_int(&head, INT64_MIN);
    obs_any_value_add_bool(&head, true);
    obs_any_value_add_bool(&head, false);
    obs_any_value_add_double(&head, 1.5);
    obs_any_value_add_kvlist(&head, &pair, 1);
    obs_any_value_add_array(&head, borrowed, 2, 1);
    obs_any_value_add_array(&head, owned, 1, 0);
    obs_any_value_add_generic(&head, 9, "", 0);
    obs_any_value_add_list(&head, chain);
    EXPECT_EQ(describe(head),
              "byte 0 0(bytes), str& 4 \"def\", int 8 -9223372036854775808, "
              "bool 1 true, bool 1 false, double 8 1.500000, kvlist& 1 1(kvlist), "
              "array& 2 2(array), array 1 1(array), na 0 , str 4 \"abc\", int 8 9");
    EXPECT_EQ(obs_any_value_get_byte(head), nullptr);
    for (int only_first : {0, 1}) {
        obs_any_value *copy = obs_any_value_clone(chain, only_first);
        EXPECT_EQ(describe(copy), only_first ? "str& 4 \"abc\"" : "str& 4 \"abc\", int& 8 9");
        obs_any_value_free(copy);
    }
    char buf[4] = "#";
    EXPECT_STREQ(obs_any_value_print(head, buf, 0), "");
    EXPECT_STREQ(obs_any_value_print(nullptr, buf, sizeof buf), "");
    EXPECT_STREQ(obs_any_value_print(head, nullptr, sizeof buf), "");
    EXPECT_STREQ(buf, "#");
    EXPECT_STREQ(obs_any_value_print(head, buf, sizeof buf), "0(b");
    obs_any_value_free(head);
}

TEST(HexTest, PairsOfDigitsOfEitherCaseBecomeBytesAndATrailingOddDigitIsIgnored) {
    unsigned char bytes[3] = {0x55, 0x55, 0x55};
    obs_hex_to_byte(bytes, "0aFf7", 5);
    EXPECT_EQ(memcmp(bytes, "\x0a\xff\x55", 3), 0);
}

}  // namespace
