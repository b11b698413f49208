#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "observability_api.h"

namespace {

// The capacity word sits directly in front of the first character.
uint32_t alloc_of(obs_sds s) {
    return reinterpret_cast<const uint32_t *>(s)[-1];
}

class SdsTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_sdsfree(s_); }
    obs_sds s_ = obs_sdsempty();
};

TEST_F(SdsTest, GrowsByTheLargerOfTheRoomAskedAnd1024OnlyWhenTheTerminatorNoLongerFits) {
    // Bytes appended, capacity afterwards.
    const std::pair<uint32_t, uint32_t> steps[] = {
        {0, 1024}, {1023, 1024}, {1, 2048}, {3000, 5049}};
    std::string expected;
    for (const auto &[appended, alloc] : steps) {
        SCOPED_TRACE(expected.size());
        const std::string part(appended, char('a' + expected.size() % 26));
        s_ = obs_sdscat(s_, part.data(), appended);
        expected += part;
        ASSERT_EQ(obs_sdslen(s_), expected.size());
        EXPECT_EQ(alloc_of(s_), alloc);
        EXPECT_EQ(std::string(s_), expected);
    }
}

TEST_F(SdsTest, NullSourceAppendsCountedNulsAndMakeRoomAndClearKeepWhatTheyDoNotChange) {
    s_ = obs_sdscatstr(s_, "abc");
    s_ = obs_sdscat(s_, nullptr, 1);
    s_ = obs_sdscatstr(s_, "de");
    EXPECT_EQ(obs_sdsMakeRoomFor(s_, 1018), s_);
    EXPECT_EQ(alloc_of(s_), 1024u);
    s_ = obs_sdsMakeRoomFor(s_, 1019);
    EXPECT_EQ(alloc_of(s_), 2048u);
    EXPECT_EQ(obs_sdslen(s_), 6u);
    EXPECT_EQ(std::memcmp(s_, "abc\0de", 7), 0);
    obs_sdsclear(s_);
    EXPECT_EQ(obs_sdslen(s_), 0u);
    EXPECT_STREQ(s_, "");
    EXPECT_EQ(alloc_of(s_), 2048u);
}

TEST_F(SdsTest, ImpossibleGrowthAndNullStringsAreRefusedHarmlessly) {
    s_ = obs_sdscatstr(s_, "keep");
    EXPECT_EQ(obs_sdsMakeRoomFor(s_, UINT32_MAX), nullptr);
    EXPECT_EQ(obs_sdscat(s_, nullptr, UINT32_MAX - 1), nullptr);
    EXPECT_EQ(obs_sdscat(s_, nullptr, UINT32_MAX), nullptr);
    EXPECT_STREQ(s_, "keep");
    EXPECT_EQ(obs_sdslen(s_), 4u);
    obs_sdsclear(nullptr);
    obs_sdsfree(nullptr);
    EXPECT_EQ(obs_sdslen(nullptr), 0u);
}

}  // namespace
