#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "observability_api.h"

namespace {

// Takes over an encoder result; the text must end with exactly one counted NUL.
std::string take_text(obs_sds sds) {
    EXPECT_NE(sds, nullptr);
    if (!sds) return "<null>";
    std::string text(sds);
    EXPECT_EQ(obs_sdslen(sds), text.size() + 1);
    obs_sdsfree(sds);
    return text;
}

class TextEncoderTest : public ::testing::Test {
  protected:
    void TearDown() override {
        obs_any_value_free(head_);
        obs_key_value_free(pairs_);
    }
    std::string encode() { return take_text(obs_any_value_encode(head_)); }

    obs_any_value *head_ = nullptr;
    obs_key_value *pairs_ = nullptr;
};

TEST_F(TextEncoderTest, NullGivesNull) {
    EXPECT_EQ(obs_any_value_encode(nullptr), nullptr);
    EXPECT_EQ(obs_key_value_encode(nullptr), nullptr);
}

TEST_F(TextEncoderTest, ScalarsAreWrittenWithTheirPayloadLengths) {
    const std::pair<void (*)(obs_any_value **), const char *> cases[] = {
        {[](obs_any_value **h) { obs_any_value_add_int(h, 5); }, "{int 1 5}"},
        {[](obs_any_value **h) { obs_any_value_add_int(h, -1); }, "{int 2 -1}"},
        {[](obs_any_value **h) { obs_any_value_add_int(h, INT64_MIN); },
         "{int 20 -9223372036854775808}"},
        {[](obs_any_value **h) { obs_any_value_add_str(h, "abc", 0); }, "{str 5 \"abc\"}"},
        {[](obs_any_value **h) { obs_any_value_add_str(h, "a\"}b", 1); }, "{str 6 \"a\"}b\"}"},
        {[](obs_any_value **h) { obs_any_value_add_bool(h, true); }, "{bool 4 true}"},
        {[](obs_any_value **h) { obs_any_value_add_bool(h, false); }, "{bool 5 false}"},
        {[](obs_any_value **h) { obs_any_value_add_double(h, 0); }, "{double 8 0.000000}"},
        {[](obs_any_value **h) { obs_any_value_add_byte(h, "\x00\xff\x10", 3, 0); },
         "{byte 6 00ff10}"},
        {[](obs_any_value **h) { obs_any_value_add_byte(h, "", 0, 0); }, "{byte 0 }"},
    };
    for (const auto &c : cases) {
        c.first(&head_);
        EXPECT_EQ(encode(), c.second);
        obs_any_value_free(head_);
        head_ = nullptr;
    }
}

TEST_F(TextEncoderTest, UntypedNodesAndEmptyContainers) {
    obs_any_value node = {};
    EXPECT_EQ(take_text(obs_any_value_encode(&node)), "{na 2 ff}");
    node.type = 9 | OBS_VALUE_REF;
    EXPECT_EQ(take_text(obs_any_value_encode(&node)), "{na 2 ff}");
    node.type = OBS_VALUE_ARRAY;
    EXPECT_EQ(take_text(obs_any_value_encode(&node)), "{array 0 }");
    node.type = OBS_VALUE_KVLIST;
    EXPECT_EQ(take_text(obs_any_value_encode(&node)), "{kvlist 0 }");
}

TEST_F(TextEncoderTest, DoublesBeyondThe32ByteFormTakeTheShortestFormThatReadsBack) {
    obs_any_value_add_double(&head_, 1e24);
    obs_any_value_add_double(&head_, 1e25);
    EXPECT_EQ(encode(), "[{double 31 999999999999999983222784.000000},{double 5 1e+25}]");
    for (double value : {-1.7976931348623157e308, 1.2345678901234566e40, -1e25}) {
        obs_any_value node = {};
        obs_any_value_set_generic(&node, OBS_VALUE_DOUBLE, &value, 8);
        obs_sds text = obs_any_value_encode(&node);
        obs_any_value *back = nullptr;
        ASSERT_NE(obs_any_value_decode(text, obs_sdslen(text), &back), nullptr) << text;
        EXPECT_EQ(obs_any_value_get_double(back), value) << text;
        obs_any_value_free(back);
        obs_sdsfree(text);
    }
}

TEST_F(TextEncoderTest, LongByteBlocksRoundTrip) {
    unsigned char bytes[100];
    for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    obs_any_value_add_byte(&head_, bytes, sizeof bytes, 1);
    const std::string text = encode();
    EXPECT_EQ(text.rfind("{byte 200 00070e15", 0), 0u) << text;
    obs_any_value *back = nullptr;
    ASSERT_NE(obs_any_value_decode(text.c_str(), 0, &back), nullptr);
    EXPECT_EQ(obs_any_value_get_vlen(back), sizeof bytes);
    EXPECT_EQ(memcmp(obs_any_value_get_byte(back), bytes, sizeof bytes), 0);
    obs_any_value_free(back);
}

TEST_F(TextEncoderTest, ChainOfTwoIsBracketedWithoutCount) {
    obs_any_value_add_int(&head_, 7);
    obs_any_value_add_double(&head_, 2.5);
    EXPECT_EQ(encode(), "[{int 1 7},{double 8 2.500000}]");
}

TEST_F(TextEncoderTest, ArrayWritesCountAndElementTexts) {
    auto *elements = static_cast<obs_any_value *>(calloc(2, sizeof(obs_any_value)));
    const int64_t one = 1;
    const uint8_t yes = 1;
    obs_any_value_set_generic(&elements[0], OBS_VALUE_INT, &one, 8);
    obs_any_value_set_generic(&elements[1], OBS_VALUE_BOOL, &yes, 1);
    obs_any_value_add_array(&head_, elements, 2, 0);
    EXPECT_EQ(encode(), "{array 27 2 [{int 1 1},{bool 4 true}]}");
}

TEST_F(TextEncoderTest, KeyValueListIsOneKvlistNode) {
    obs_key_value_add_str(&pairs_, "name", "abc", 0);
    obs_key_value_add_int(&pairs_, "n", 5);
    obs_sds text = obs_key_value_encode(pairs_);
    EXPECT_EQ(obs_sdslen(text), 72u);
    EXPECT_EQ(take_text(text),
              "{kvlist 59 2 [{str 6 \"name\" 13 {str 5 \"abc\"}},{str 3 \"n\" 9 {int 1 5}}]}");
}

TEST_F(TextEncoderTest, PairValueChainIsBracketed) {
    obs_any_value *chain = nullptr;
    obs_any_value_add_int(&chain, 1);
    obs_any_value_add_int(&chain, 2);
    obs_key_value_add_list(&pairs_, "k", chain);
    EXPECT_EQ(take_text(obs_key_value_encode(pairs_)),
              "{kvlist 40 1 [{str 3 \"k\" 21 [{int 1 1},{int 1 2}]}]}");
}

TEST_F(TextEncoderTest, StoredCountIsWrittenAndIncompletePairsAreLeftOut) {
    obs_key_value_add_int(&pairs_, "a", 1);
    obs_any_value_add_kvlist(&head_, pairs_, 1);
    obs_key_value_add_int(&pairs_, "b", 2);
    obs_key_value valueless = {const_cast<char *>("c"), nullptr, nullptr};
    obs_key_value keyless = {nullptr, pairs_->val, &valueless};
    pairs_->next->next = &keyless;
    EXPECT_EQ(encode(), "{kvlist 51 1 [{str 3 \"a\" 9 {int 1 1}},{str 3 \"b\" 9 {int 1 2}}]}");
    pairs_->next->next = nullptr;
}

TEST_F(TextEncoderTest, DeepNestingGivesLengthsOfEveryLevel) {
    std::string expected = "{int 1 1}";
    obs_any_value_add_int(&head_, 1);
    for (int level = 0; level < 100; ++level) {
        std::string payload = "1 [" + expected + "]";
        expected = "{array " + std::to_string(payload.size()) + " " + payload + "}";
        obs_any_value *array = nullptr;
        auto *element = static_cast<obs_any_value *>(malloc(sizeof(obs_any_value)));
        *element = *head_;
        free(head_);
        obs_any_value_add_array(&array, element, 1, 0);
        head_ = array;
    }
    EXPECT_EQ(encode(), expected);
}

}  // namespace
