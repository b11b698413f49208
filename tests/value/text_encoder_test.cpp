#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "observability_api.h"

namespace {

// Takes over an encoder result; the text must end with exactly one counted NUL.
std::string take_text(obs_sds sds) {
    if (!sds) return "<null>";
    std::string text(sds);
    EXPECT_EQ(obs_sdslen(sds), text.size() + 1) << text;
    obs_sdsfree(sds);
    return text;
}

// An element block of the int 1 and the bool true.
obs_any_value *one_and_true() {
    const int64_t one = 1;
    auto *elements = static_cast<obs_any_value *>(calloc(2, sizeof(obs_any_value)));
    obs_any_value_set_generic(&elements[0], OBS_VALUE_INT, &one, 8);
    obs_any_value_set_generic(&elements[1], OBS_VALUE_BOOL, "\1", 1);
    return elements;
}

// A kvlist node made when it held one pair; a second pair and two incomplete ones follow later.
void add_miscounted_kvlist(obs_any_value **head) {
    obs_key_value *pairs = nullptr;
    obs_key_value_add_int(&pairs, "a", 1);
    obs_any_value_add_kvlist(head, pairs, 0);
    obs_key_value_add_int(&pairs, "b", 2);
    auto *valueless = static_cast<obs_key_value *>(calloc(1, sizeof(obs_key_value)));
    auto *keyless = static_cast<obs_key_value *>(calloc(1, sizeof(obs_key_value)));
    valueless->key = strdup("c");
    obs_any_value_add_int(&keyless->val, 3);
    valueless->next = keyless;
    pairs->next->next = valueless;
}

class TextEncoderTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(head_); }
    obs_any_value *head_ = nullptr;
};

TEST_F(TextEncoderTest, ChainIsBracketedAndEachNodeWrittenAsNameLengthAndPayload) {
    obs_any_value_add_int(&head_, 5);
    obs_any_value_add_int(&head_, INT64_MIN);
    obs_any_value_add_str(&head_, "abc", 0);
    obs_any_value_add_str(&head_, "a\"}b", 1);
    obs_any_value_add_bool(&head_, true);
    obs_any_value_add_bool(&head_, false);
    obs_any_value_add_double(&head_, 0);
    obs_any_value_add_double(&head_, 1e24);
    obs_any_value_add_double(&head_, 1e25);
    obs_any_value_add_byte(&head_, "\0\xff\x10", 3, 0);
    obs_any_value_add_byte(&head_, "", 0, 0);
    obs_any_value_add_generic(&head_, OBS_VALUE_REF, "", 0);
    obs_any_value_add_generic(&head_, 9, "", 0);
    obs_any_value_add_generic(&head_, OBS_VALUE_KVLIST | OBS_VALUE_REF, "", 0);
    obs_any_value_add_array(&head_, one_and_true(), 0, 0);
    obs_any_value_add_array(&head_, one_and_true(), 2, 0);
    add_miscounted_kvlist(&head_);
    EXPECT_EQ(obs_any_value_encode(nullptr), nullptr);
    EXPECT_EQ(obs_key_value_encode(nullptr), nullptr);
    EXPECT_EQ(take_text(obs_any_value_encode(head_)),
              "[{int 1 5},{int 20 -9223372036854775808},{str 5 \"abc\"},{str 6 \"a\"}b\"},"
              "{bool 4 true},{bool 5 false},{double 8 0.000000},"
              "{double 31 999999999999999983222784.000000},{double 5 1e+25},"
              "{byte 6 00ff10},{byte 0 },{na 2 ff},{na 2 ff},{kvlist 0 },{array 0 },"
              "{array 27 2 [{int 1 1},{bool 4 true}]},"
              "{kvlist 51 1 [{str 3 \"a\" 9 {int 1 1}},{str 3 \"b\" 9 {int 1 2}}]}]");
}

TEST_F(TextEncoderTest, LargeDoublesAndLongByteBlocksReadBackUnchanged) {
    unsigned char bytes[100];
    for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    obs_any_value_add_byte(&head_, bytes, sizeof bytes, 1);
    for (double value : {-1.7976931348623157e308, 1.2345678901234566e40, -1e25})
        obs_any_value_add_double(&head_, value);
    const std::string text = take_text(obs_any_value_encode(head_));
    EXPECT_EQ(text.rfind("[{byte 200 00070e15", 0), 0u) << text;
    obs_any_value *back = nullptr;
    ASSERT_NE(obs_any_value_decode(text.c_str(), 0, &back), nullptr) << text;
    EXPECT_EQ(memcmp(obs_any_value_get_byte(back), bytes, sizeof bytes), 0);
    const obs_any_value *sent = obs_any_value_get_next(head_), *read = obs_any_value_get_next(back);
    for (; sent && read; sent = obs_any_value_get_next(sent), read = obs_any_value_get_next(read))
        EXPECT_EQ(obs_any_value_get_double(read), obs_any_value_get_double(sent));
    EXPECT_EQ(read, sent);
    obs_any_value_free(back);
}

// Enough pairs and double texts to move the encoder's records from its stack to the heap and grow
// them there several times while the walk is under way.
TEST_F(TextEncoderTest, DocumentsOutgrowingTheStackAreWrittenWhole) {
    obs_key_value *pairs = nullptr;
    std::string expected_pairs;
    for (int i = 0; i < 100; ++i) {
        obs_key_value_add_double(&pairs, "k", i + 0.5);
        const std::string digits = std::to_string(i + 0.5);
        const std::string value = "{double " + std::to_string(digits.size()) + " " + digits + "}";
        expected_pairs += (i ? ",{str 3 \"k\" " : "{str 3 \"k\" ") + std::to_string(value.size()) +
                          " " + value + "}";
    }
    obs_any_value_add_kvlist(&head_, pairs, 0);
    const std::string payload = "100 [" + expected_pairs + "]";
    EXPECT_EQ(take_text(obs_any_value_encode(head_)),
              "{kvlist " + std::to_string(payload.size()) + " " + payload + "}");
}

}  // namespace
