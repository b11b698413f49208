#include <gtest/gtest.h>

#include <cfloat>
#include <cstdlib>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/value_text.h"

namespace {

// Takes over an encoder result; the text must end with exactly one counted NUL.
std::string take_text(obs_sds sds) {
    if (!sds) return "<null>";
    std::string text(sds);
    EXPECT_EQ(obs_sdslen(sds), text.size() + 1) << text;
    obs_sdsfree(sds);
    return text;
}

class TextEncoderTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(head_); }
    obs_any_value *head_ = nullptr;
};

TEST_F(TextEncoderTest, ChainIsBracketedAndEachNodeWrittenAsNameLengthAndPayload) {
    for (int64_t value : {int64_t{5}, INT64_MIN}) obs_any_value_add_int(&head_, value);
    obs_any_value_add_str(&head_, "abc", 0);
    obs_any_value_add_str(&head_, "a\"}b", 1);
    for (bool value : {true, false}) obs_any_value_add_bool(&head_, value);
    for (double value : {1e24, 1e25, -DBL_MAX, 1.2345678901234566e40})
        obs_any_value_add_double(&head_, value);
    obs_any_value_add_byte(&head_, "\x01\x23\x45\x67\x89\xab\xcd\xef\0\xff", 10, 0);
    obs_any_value_add_byte(&head_, "", 0, 0);
    for (int type : {OBS_VALUE_REF, 9, OBS_VALUE_KVLIST | OBS_VALUE_REF})
        obs_any_value_add_generic(&head_, type, "", 0);
    auto *elements = static_cast<obs_any_value *>(calloc(2, sizeof(obs_any_value)));
    const int64_t one = 1;
    obs_any_value_set_generic(&elements[0], OBS_VALUE_INT, &one, 8);
    obs_any_value_set_generic(&elements[1], OBS_VALUE_BOOL, "\1", 1);
    obs_any_value_add_array(&head_, elements, 0, 1);
    obs_any_value_add_array(&head_, elements, 2, 0);
    obs_key_value *pairs = nullptr;  // counted with one pair; "b", a keyless and a valueless follow
    obs_key_value_add_int(&pairs, "a", 1);
    obs_any_value_add_kvlist(&head_, pairs, 0);
    for (const char *key : {"b", "c", "d"}) obs_key_value_add_int(&pairs, key, 2);
    obs_key_value *keyless = pairs->next->next;
    free(keyless->key);
    obs_any_value_free(keyless->next->val);
    keyless->key = nullptr;
    keyless->next->val = nullptr;
    EXPECT_EQ(obs_any_value_encode(nullptr), nullptr);
    EXPECT_EQ(obs_key_value_encode(nullptr), nullptr);
    EXPECT_EQ(take_text(obs_any_value_encode(head_)),
              "[{int 1 5},{int 20 -9223372036854775808},{str 5 \"abc\"},{str 6 \"a\"}b\"},"
              "{bool 4 true},{bool 5 false},{double 31 999999999999999983222784.000000},"
              "{double 5 1e+25},{double 24 -1.7976931348623157e+308},"
              "{double 22 1.2345678901234566e+40},{byte 20 0123456789abcdef00ff},{byte 0 },"
              "{na 2 ff},{na 2 ff},{kvlist 0 },{array 0 },{array 27 2 [{int 1 1},{bool 4 true}]},"
              "{kvlist 51 1 [{str 3 \"a\" 9 {int 1 1}},{str 3 \"b\" 9 {int 1 2}}]}]");
}

// Enough pairs and double texts to move the encoder's records from its stack to the heap and grow
// them there several times while the walk is under way.
TEST_F(TextEncoderTest, DocumentsOutgrowingTheStackAreWrittenWhole) {
    obs_key_value *pairs = nullptr;
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) {
        obs_key_value_add_double(&pairs, "k", i + 0.5);
        expected.push_back(obs_test::pair("k", obs_test::node("double", std::to_string(i + 0.5))));
    }
    obs_any_value_add_kvlist(&head_, pairs, 0);
    EXPECT_EQ(take_text(obs_any_value_encode(head_)), obs_test::kvlist(expected));
}

}  // namespace
