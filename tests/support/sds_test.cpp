#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "observability_api.h"

namespace {

// The capacity word sits directly in front of the first character; the length word before it.
uint32_t alloc_of(obs_sds s) {
    return reinterpret_cast<const uint32_t *>(s)[-1];
}
uint32_t len_word_of(obs_sds s) {
    return reinterpret_cast<const uint32_t *>(s)[-2];
}

class SdsTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_sdsfree(s_); }
    obs_sds s_ = obs_sdsempty();
};

TEST_F(SdsTest, NewStringIsEmptyWithInitialArea) {
    ASSERT_NE(s_, nullptr);
    EXPECT_EQ(obs_sdslen(s_), 0u);
    EXPECT_STREQ(s_, "");
    EXPECT_EQ(alloc_of(s_), 1024u);
    EXPECT_EQ(len_word_of(s_), 0u);
}

TEST_F(SdsTest, GrowsByTheLeastStepOnlyWhenTheTerminatorNoLongerFits) {
    std::string fill(1023, 'x');
    s_ = obs_sdscat(s_, fill.data(), 1023);
    EXPECT_EQ(alloc_of(s_), 1024u);
    s_ = obs_sdscat(s_, "y", 1);
    EXPECT_EQ(alloc_of(s_), 2048u);
    EXPECT_EQ(obs_sdslen(s_), 1024u);
    EXPECT_EQ(std::string(s_), fill + "y");
}

TEST_F(SdsTest, GrowsByTheRoomAskedWhenLargerThanTheLeastStep) {
    std::string big(3000, 'b');
    s_ = obs_sdscat(s_, big.data(), 3000);
    EXPECT_EQ(alloc_of(s_), 1024u + 3001u);
    EXPECT_EQ(std::string(s_, obs_sdslen(s_)), big);
}

TEST_F(SdsTest, MakeRoomLeavesLengthAndDataAndSkipsWhenRoomSuffices) {
    s_ = obs_sdscatstr(s_, "abc");
    obs_sds same = obs_sdsMakeRoomFor(s_, 1021);
    EXPECT_EQ(same, s_);
    s_ = obs_sdsMakeRoomFor(s_, 1022);
    EXPECT_EQ(alloc_of(s_), 2048u);
    EXPECT_EQ(obs_sdslen(s_), 3u);
    EXPECT_STREQ(s_, "abc");
}

TEST_F(SdsTest, NullSourceAppendsCountedNulBytes) {
    s_ = obs_sdscatstr(s_, "abc");
    s_ = obs_sdscat(s_, nullptr, 1);
    EXPECT_EQ(obs_sdslen(s_), 4u);
    EXPECT_STREQ(s_, "abc");
    s_ = obs_sdscatstr(s_, "de");
    EXPECT_EQ(obs_sdslen(s_), 6u);
    EXPECT_EQ(std::memcmp(s_, "abc\0de", 7), 0);
}

TEST_F(SdsTest, ClearKeepsTheGrownArea) {
    std::string big(3000, 'c');
    s_ = obs_sdscat(s_, big.data(), 3000);
    uint32_t grown = alloc_of(s_);
    obs_sdsclear(s_);
    EXPECT_EQ(obs_sdslen(s_), 0u);
    EXPECT_STREQ(s_, "");
    EXPECT_EQ(alloc_of(s_), grown);
}

TEST_F(SdsTest, ImpossibleGrowthFailsAndLeavesTheStringUsable) {
    s_ = obs_sdscatstr(s_, "keep");
    EXPECT_EQ(obs_sdsMakeRoomFor(s_, UINT32_MAX), nullptr);
    EXPECT_EQ(obs_sdscat(s_, nullptr, UINT32_MAX - 1), nullptr);
    EXPECT_STREQ(s_, "keep");
    EXPECT_EQ(obs_sdslen(s_), 4u);
}

TEST(SdsNullTest, LenClearAndFreeAcceptNull) {
    EXPECT_EQ(obs_sdslen(nullptr), 0u);
    obs_sdsclear(nullptr);
    obs_sdsfree(nullptr);
}

}  // namespace
