#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "observability_api.h"

namespace {

// "<type name>[&] <vlen> <printed>" per node, "&" marking a borrowed payload.
std::string describe(const obs_any_value *node) {
    std::string text;
    for (; node; node = obs_any_value_get_next(node)) {
        char buf[32];
        memset(buf, '#', sizeof buf);  // so that a missing terminator shows
        const uint8_t type = obs_any_value_get_type(node);
        text += std::string(text.empty() ? "" : ", ") + obs_any_value_type_name(type) +
                (type & OBS_VALUE_REF ? "& " : " ") + std::to_string(obs_any_value_get_vlen(node)) +
                " " + obs_any_value_print(node, buf, sizeof buf);
    }
    return text;
}

class AnyValueTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(head_); }
    obs_any_value *head_ = nullptr;
};

TEST_F(AnyValueTest, AddersAppendTypedNodesInCallOrderAndPrintFitsTheBuffer) {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_int(&pairs, "a", 1);
    obs_key_value_add_int(&pairs, "b", 2);
    obs_any_value *chain = nullptr;
    obs_any_value_add_str(&chain, "kept", 0);
    obs_any_value_add_int(&chain, 9);
    obs_any_value elements[3] = {};
    auto *owned = static_cast<obs_any_value *>(calloc(3, sizeof(obs_any_value)));
    obs_any_value_set_generic(&owned[0], OBS_VALUE_STR, "one", 4);
    obs_any_value_set_generic(&owned[1], OBS_VALUE_KVLIST, obs_key_value_clone(pairs, 0), 1);
    obs_any_value_set_generic(&owned[2], OBS_VALUE_BYTES, "\1\2", 2);
    obs_any_value_add_int(&head_, INT64_MIN);
    obs_any_value_add_bool(&head_, true);
    obs_any_value_add_bool(&head_, false);
    obs_any_value_add_double(&head_, 1.5);
    obs_any_value_add_kvlist(&head_, pairs, 0);
    obs_key_value_add_int(&pairs, "late", 3);  // the count was taken when the node was made
    obs_any_value_add_array(&head_, elements, 3, 1);
    obs_any_value_add_array(&head_, owned, 3, 0);  // its elements' payloads are released with it
    obs_any_value_add_generic(&head_, 9, "", 0);
    obs_any_value_add_list(&head_, chain);
    EXPECT_EQ(
        describe(head_),
        "int 8 -9223372036854775808, bool 1 true, bool 1 false, double 8 1.500000, "
        "kvlist 2 2(kvlist), array& 3 3(array), array 3 3(array), na 0 , str 5 \"kept\", int 8 9");
    char buf[4] = "#";
    EXPECT_STREQ(obs_any_value_print(head_, buf, 0), "");
    EXPECT_STREQ(buf, "#");
    EXPECT_STREQ(obs_any_value_print(head_, buf, sizeof buf), "-92");
    obs_any_value_free(head_);  // before the borrowed elements go
    head_ = nullptr;
}

TEST_F(AnyValueTest, CopiesArePrivateAndBorrowedPayloadsAreNeitherCopiedNorFreed) {
    char text[] = "abc";
    unsigned char bytes[] = {0, 0xff, 7};
    obs_any_value_add_str(&head_, text, 0);
    obs_any_value_add_byte(&head_, bytes, sizeof bytes, 0);
    obs_any_value_add_byte(&head_, bytes, 0, 0);
    obs_any_value_add_str(&head_, text, 1);
    obs_any_value_add_byte(&head_, bytes, sizeof bytes, 1);
    text[0] = 'X';
    bytes[1] = 0;
    EXPECT_EQ(describe(head_),
              "str 4 \"abc\", byte 3 3(bytes), byte 0 0(bytes), str& 4 \"Xbc\", byte& 3 3(bytes)");
    const obs_any_value *copied = obs_any_value_get_next(head_);
    const obs_any_value *empty = obs_any_value_get_next(copied);
    EXPECT_EQ(memcmp(obs_any_value_get_byte(copied), "\x00\xff\x07", 3), 0);
    EXPECT_EQ(obs_any_value_get_byte(empty), nullptr);
    EXPECT_EQ(obs_any_value_get_byte(obs_any_value_get_next(obs_any_value_get_next(empty))), bytes);
    obs_any_value_free(head_);
    head_ = nullptr;
}

TEST_F(AnyValueTest, ClonesAreReferencesThatShareThePayloads) {
    obs_any_value_add_str(&head_, "first", 0);
    obs_any_value_add_str(&head_, "second", 0);
    for (int only_first : {0, 1}) {
        obs_any_value *copy = obs_any_value_clone(head_, only_first);
        EXPECT_EQ(describe(copy),
                  only_first ? "str& 6 \"first\"" : "str& 6 \"first\", str& 7 \"second\"");
        EXPECT_EQ(obs_any_value_get_str(copy), obs_any_value_get_str(head_));
        obs_any_value_free(copy);
    }
    EXPECT_EQ(describe(head_), "str 6 \"first\", str 7 \"second\"");
}

TEST_F(AnyValueTest, NullHeadPayloadOrNodeIsHarmless) {
    obs_any_value_add_int(nullptr, 1);
    obs_any_value_add_str(&head_, nullptr, 0);
    obs_any_value_add_byte(&head_, nullptr, 3, 0);
    obs_any_value_add_list(&head_, nullptr);
    EXPECT_EQ(head_, nullptr);
    EXPECT_EQ(obs_any_value_clone(nullptr, 0), nullptr);
    EXPECT_STREQ(obs_any_value_print(nullptr, nullptr, 8), "");
    obs_any_value_free(nullptr);
}

TEST(HexTest, DigitsOfEitherCaseHaveTheirValuesAndTheirNeighboursNone) {
    const std::string digits = "0123456789abcdefABCDEF", neighbours = "/:@G`g\xff";
    for (size_t i = 0; i < digits.size(); ++i)
        EXPECT_EQ(obs_hex_char_to_value(digits[i]), i < 16 ? i : i - 6) << digits[i];
    for (char c : neighbours) EXPECT_EQ(obs_hex_char_to_value(c), 0) << c;
    unsigned char out[3] = {0x55, 0x55, 0x55};
    obs_hex_to_byte(out, "0aFf7", 5);
    EXPECT_EQ(memcmp(out, "\x0a\xff\x55", 3), 0);
}

}  // namespace
