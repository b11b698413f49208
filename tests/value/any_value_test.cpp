#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "observability_api.h"

namespace {

size_t chain_length(const obs_any_value *node) {
    size_t n = 0;
    for (; node; node = obs_any_value_get_next(node)) ++n;
    return n;
}

class AnyValueBuildTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(head_); }
    obs_any_value *head_ = nullptr;
};

TEST_F(AnyValueBuildTest, AppendsAtTheTailInCallOrder) {
    obs_any_value_add_int(&head_, 1);
    obs_any_value_add_bool(&head_, true);
    obs_any_value_add_double(&head_, 1.5);
    ASSERT_EQ(chain_length(head_), 3u);
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_INT);
    EXPECT_EQ(obs_any_value_get_vlen(head_), 8u);
    EXPECT_EQ(obs_any_value_get_int(head_), 1);
    const obs_any_value *flag = obs_any_value_get_next(head_);
    EXPECT_EQ(obs_any_value_get_type(flag), OBS_VALUE_BOOL);
    EXPECT_EQ(obs_any_value_get_vlen(flag), 1u);
    EXPECT_EQ(obs_any_value_get_bool(flag), 1u);
    const obs_any_value *real = obs_any_value_get_next(flag);
    EXPECT_EQ(obs_any_value_get_type(real), OBS_VALUE_DOUBLE);
    EXPECT_EQ(obs_any_value_get_vlen(real), 8u);
    EXPECT_EQ(obs_any_value_get_double(real), 1.5);
}

TEST_F(AnyValueBuildTest, CopiedStringCountsItsTerminatorAndIgnoresLaterChanges) {
    char text[] = "abc";
    obs_any_value_add_str(&head_, text, 0);
    text[0] = 'X';
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_STR);
    EXPECT_EQ(obs_any_value_get_vlen(head_), 4u);
    EXPECT_STREQ(obs_any_value_get_str(head_), "abc");
}

TEST_F(AnyValueBuildTest, BorrowedPayloadsAreReferencedAndLeftAloneOnFree) {
    char text[] = "abc";
    unsigned char bytes[] = {1, 2, 3};
    obs_any_value_add_str(&head_, text, 1);
    obs_any_value_add_byte(&head_, bytes, sizeof bytes, 1);
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_STR | OBS_VALUE_REF);
    EXPECT_EQ(obs_any_value_get_str(head_), text);
    const obs_any_value *blob = obs_any_value_get_next(head_);
    EXPECT_EQ(obs_any_value_get_type(blob), OBS_VALUE_BYTES | OBS_VALUE_REF);
    EXPECT_EQ(obs_any_value_get_byte(blob), bytes);
    obs_any_value_free(head_);  // freeing stack buffers would abort under ASan
    head_ = nullptr;
    EXPECT_STREQ(text, "abc");
}

TEST_F(AnyValueBuildTest, CopiedBytesAreAPrivateBlock) {
    unsigned char bytes[] = {0, 0xff, 7};
    obs_any_value_add_byte(&head_, bytes, sizeof bytes, 0);
    bytes[1] = 0;
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_BYTES);
    EXPECT_EQ(obs_any_value_get_vlen(head_), 3u);
    EXPECT_NE(obs_any_value_get_byte(head_), bytes);
    EXPECT_EQ(memcmp(obs_any_value_get_byte(head_), "\x00\xff\x07", 3), 0);
}

TEST_F(AnyValueBuildTest, EmptyOwnedBytesMakeANodeWithoutBlock) {
    obs_any_value_add_byte(&head_, "x", 0, 0);
    ASSERT_NE(head_, nullptr);
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_BYTES);
    EXPECT_EQ(obs_any_value_get_vlen(head_), 0u);
    EXPECT_EQ(obs_any_value_get_byte(head_), nullptr);
}

TEST_F(AnyValueBuildTest, NullHeadOrPayloadAddsNothing) {
    obs_any_value_add_int(nullptr, 1);
    obs_any_value_add_str(&head_, nullptr, 0);
    obs_any_value_add_byte(&head_, nullptr, 3, 0);
    obs_any_value_add_array(&head_, nullptr, 2, 0);
    obs_any_value_add_kvlist(&head_, nullptr, 0);
    obs_any_value_add_list(&head_, nullptr);
    EXPECT_EQ(head_, nullptr);
}

TEST_F(AnyValueBuildTest, OwnedKvlistCountsPairsOnceAndIsFreedWithTheNode) {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_str(&pairs, "a", "x", 0);
    obs_key_value_add_int(&pairs, "b", 2);
    obs_key_value_add_double(&pairs, "c", 3.0);
    obs_any_value_add_kvlist(&head_, pairs, 0);
    obs_key_value_add_int(&pairs, "late", 4);
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_KVLIST);
    EXPECT_EQ(obs_any_value_get_vlen(head_), 3u);
    EXPECT_EQ(obs_any_value_get_kvlist(head_), pairs);
}

TEST_F(AnyValueBuildTest, OwnedArrayReleasesElementPayloadsAndTheBlockOnce) {
    auto *elements = static_cast<obs_any_value *>(calloc(3, sizeof(obs_any_value)));
    obs_any_value_set_generic(&elements[0], OBS_VALUE_STR, "one", 4);
    obs_key_value *pairs = nullptr;
    obs_key_value_add_int(&pairs, "k", 1);
    obs_any_value_set_generic(&elements[1], OBS_VALUE_KVLIST, pairs, 1);
    int64_t two = 2;
    obs_any_value_set_generic(&elements[2], OBS_VALUE_INT, &two, 8);
    obs_any_value_add_array(&head_, elements, 3, 0);
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_ARRAY);
    EXPECT_EQ(obs_any_value_get_vlen(head_), 3u);
    EXPECT_EQ(obs_any_value_get_array(head_), elements);
}

TEST_F(AnyValueBuildTest, BorrowedArrayLeavesTheBlockToItsOwner) {
    obs_any_value elements[2] = {};
    obs_any_value_add_array(&head_, elements, 2, 1);
    EXPECT_EQ(obs_any_value_get_type(head_), OBS_VALUE_ARRAY | OBS_VALUE_REF);
    EXPECT_EQ(obs_any_value_get_array(head_), elements);
}

TEST_F(AnyValueBuildTest, AddListAppendsTheGivenChainUnchanged) {
    obs_any_value *chain = nullptr;
    obs_any_value_add_str(&chain, "kept", 0);
    obs_any_value_add_int(&chain, 9);
    obs_any_value_add_int(&head_, 1);
    obs_any_value_add_list(&head_, chain);
    ASSERT_EQ(chain_length(head_), 3u);
    EXPECT_EQ(obs_any_value_get_next(head_), chain);
    EXPECT_EQ(obs_any_value_get_type(chain), OBS_VALUE_STR);
    EXPECT_EQ(obs_any_value_get_vlen(chain), 5u);
    EXPECT_EQ(obs_any_value_get_int(obs_any_value_get_next(chain)), 9);
}

TEST_F(AnyValueBuildTest, SetGenericKeepsTheWholeTypeByteAndCutsTheChain) {
    obs_any_value_add_int(&head_, 1);
    obs_any_value_add_int(&head_, 2);
    obs_any_value *second = obs_any_value_get_next(head_);
    int64_t value = 7;
    obs_any_value_set_generic(head_, 0xE3, &value, 8);
    EXPECT_EQ(obs_any_value_get_type(head_), 0xE3);
    EXPECT_EQ(obs_any_value_get_int(head_), 7);
    EXPECT_EQ(obs_any_value_get_next(head_), nullptr);
    obs_any_value_free(second);
}

class AnyValueReadTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(head_); }
    obs_any_value *head_ = nullptr;
};

TEST_F(AnyValueReadTest, GetValFollowsTheAskedCodeNotTheNode) {
    obs_any_value_add_int(&head_, 42);
    void *inside = obs_any_value_get_val(head_, OBS_VALUE_INT);
    ASSERT_NE(inside, nullptr);
    EXPECT_EQ(*static_cast<int64_t *>(inside), 42);
    EXPECT_EQ(obs_any_value_get_val(head_, OBS_VALUE_BOOL | OBS_VALUE_REF), inside);
    EXPECT_EQ(obs_any_value_get_val(head_, OBS_VALUE_NONE), nullptr);
    EXPECT_EQ(obs_any_value_get_val(head_, 9), nullptr);
    obs_any_value_add_str(&head_, "s", 0);
    obs_any_value *str = obs_any_value_get_next(head_);
    EXPECT_EQ(obs_any_value_get_val(str, OBS_VALUE_STR), obs_any_value_get_str(str));
}

TEST_F(AnyValueReadTest, NullNodeReadsAsZero) {
    EXPECT_EQ(obs_any_value_get_type(nullptr), 0);
    EXPECT_EQ(obs_any_value_get_vlen(nullptr), 0u);
    EXPECT_EQ(obs_any_value_get_next(nullptr), nullptr);
    EXPECT_EQ(obs_any_value_get_str(nullptr), nullptr);
    EXPECT_EQ(obs_any_value_get_bool(nullptr), 0u);
    EXPECT_EQ(obs_any_value_get_int(nullptr), 0);
    EXPECT_EQ(obs_any_value_get_double(nullptr), 0.0);
    EXPECT_EQ(obs_any_value_get_val(nullptr, OBS_VALUE_INT), nullptr);
    EXPECT_EQ(obs_any_value_clone(nullptr, 0), nullptr);
    obs_any_value_free(nullptr);
}

TEST_F(AnyValueReadTest, TypeNamesUseTheLowFourBits) {
    const char *names[] = {"na", "str", "bool", "int", "double", "array", "kvlist", "byte"};
    for (int code = 0; code < 16; ++code) {
        const std::string expected = code < 8 ? names[code] : "na";
        EXPECT_EQ(obs_any_value_type_name(code), expected) << code;
        EXPECT_EQ(obs_any_value_type_name(code | 0xF0), expected) << code;
    }
}

class AnyValueCloneTest : public ::testing::Test {
  protected:
    void SetUp() override {
        obs_any_value_add_str(&source_, "first", 0);
        obs_any_value_add_str(&source_, "second", 0);
    }
    void TearDown() override { obs_any_value_free(source_); }
    obs_any_value *source_ = nullptr;
};

TEST_F(AnyValueCloneTest, CopiesAreReferencesSharingThePayloads) {
    obs_any_value *copy = obs_any_value_clone(source_, 0);
    ASSERT_EQ(chain_length(copy), 2u);
    const obs_any_value *src = source_;
    for (const obs_any_value *c = copy; c; c = obs_any_value_get_next(c)) {
        EXPECT_NE(c, src);
        EXPECT_EQ(obs_any_value_get_type(c), 0x11);
        EXPECT_EQ(obs_any_value_get_vlen(c), obs_any_value_get_vlen(src));
        EXPECT_EQ(obs_any_value_get_str(c), obs_any_value_get_str(src));
        src = obs_any_value_get_next(src);
    }
    obs_any_value_free(copy);
    EXPECT_STREQ(obs_any_value_get_str(source_), "first");
    EXPECT_STREQ(obs_any_value_get_str(obs_any_value_get_next(source_)), "second");
}

TEST_F(AnyValueCloneTest, OnlyFirstCopiesOneNode) {
    obs_any_value *copy = obs_any_value_clone(source_, 1);
    ASSERT_EQ(chain_length(copy), 1u);
    EXPECT_EQ(obs_any_value_get_str(copy), obs_any_value_get_str(source_));
    obs_any_value_free(copy);
}

class ValuePrintTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(head_); }
    std::string print_last(uint32_t size = sizeof buf_) {
        obs_any_value *last = head_;
        while (obs_any_value_get_next(last)) last = obs_any_value_get_next(last);
        return obs_any_value_print(last, buf_, size);
    }
    obs_any_value *head_ = nullptr;
    char buf_[32] = {};
};

TEST_F(ValuePrintTest, ScalarsAndStrings) {
    obs_any_value_add_str(&head_, "abc", 0);
    EXPECT_EQ(print_last(), "\"abc\"");
    obs_any_value_add_bool(&head_, true);
    EXPECT_EQ(print_last(), "true");
    obs_any_value_add_bool(&head_, false);
    EXPECT_EQ(print_last(), "false");
    obs_any_value_add_int(&head_, INT64_MIN);
    EXPECT_EQ(print_last(), "-9223372036854775808");
    obs_any_value_add_double(&head_, 1.5);
    EXPECT_EQ(print_last(), "1.500000");
}

TEST_F(ValuePrintTest, ContainersShowTheirCount) {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_int(&pairs, "a", 1);
    obs_key_value_add_int(&pairs, "b", 2);
    obs_any_value_add_kvlist(&head_, pairs, 0);
    EXPECT_EQ(print_last(), "2(kvlist)");
    obs_any_value_add_byte(&head_, "wxyz", 4, 0);
    EXPECT_EQ(print_last(), "4(bytes)");
    obs_any_value elements[3] = {};
    obs_any_value_add_array(&head_, elements, 3, 1);
    EXPECT_EQ(print_last(), "3(array)");
}

TEST_F(ValuePrintTest, UnusedCodesPrintEmpty) {
    obs_any_value_add_int(&head_, 5);
    obs_any_value_set_generic(head_, 9, "", 0);
    EXPECT_EQ(print_last(), "");
}

TEST_F(ValuePrintTest, OutputIsCutToTheBufferSize) {
    obs_any_value_add_str(&head_, "abcdef", 0);
    EXPECT_EQ(print_last(4), "\"ab");
    EXPECT_EQ(buf_[4], '\0');
}

TEST_F(ValuePrintTest, NothingIsWrittenWithoutNodeBufferOrRoom) {
    obs_any_value_add_int(&head_, 5);
    buf_[0] = '#';
    EXPECT_STREQ(obs_any_value_print(head_, buf_, 0), "");
    EXPECT_NE(obs_any_value_print(head_, buf_, 0), buf_);
    EXPECT_STREQ(obs_any_value_print(nullptr, buf_, sizeof buf_), "");
    EXPECT_STREQ(obs_any_value_print(head_, nullptr, sizeof buf_), "");
    EXPECT_EQ(buf_[0], '#');
}

TEST(HexTest, DigitValuesAndTheirEdges) {
    EXPECT_EQ(obs_hex_char_to_value('0'), 0);
    EXPECT_EQ(obs_hex_char_to_value('9'), 9);
    EXPECT_EQ(obs_hex_char_to_value('a'), 10);
    EXPECT_EQ(obs_hex_char_to_value('f'), 15);
    EXPECT_EQ(obs_hex_char_to_value('A'), 10);
    EXPECT_EQ(obs_hex_char_to_value('F'), 15);
    for (char c : {'/', ':', '@', 'G', '`', 'g', ' ', '\0', '\xff'})
        EXPECT_EQ(obs_hex_char_to_value(c), 0) << int(c);
}

TEST(HexTest, PairsOfCharactersBecomeBytes) {
    unsigned char out[3] = {0x55, 0x55, 0x55};
    obs_hex_to_byte(out, "0aFf", 4);
    EXPECT_EQ(out[0], 0x0a);
    EXPECT_EQ(out[1], 0xff);
    EXPECT_EQ(out[2], 0x55);
    obs_hex_to_byte(out, "zz", 2);
    EXPECT_EQ(out[0], 0x00);
    obs_hex_to_byte(out, "12", 0);
    EXPECT_EQ(out[0], 0x00);
}

}  // namespace
