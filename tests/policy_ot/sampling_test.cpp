#include <gtest/gtest.h>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

// Two samplers; only the first (traces on, metrics off, logs unset) may ever be consulted.
class SamplingTest : public testing::Test {
  protected:
    void SetUp() override { first_->next = sampler_of(new_sampler(nullptr, 1, 2, 2)); }
    void TearDown() override { obs_policy_ot_sampler_free(sampling_); }
    const obs_sampling sampling_ = new_sampler("s1", 2, 1, 0);
    obs_policy_ot_sampler *const first_ = sampler_of(sampling_);
};

TEST_F(SamplingTest, FirstSetBitDecidesTracesBeforeMetricsBeforeLogs) {
    std::string got;
    for (obs_sampling sampling : {obs_sampling{0}, obs_sampling{1}, obs_sampling{2}, sampling_}) {
        for (unsigned bits = 0; bits <= 8; ++bits)
            got += std::to_string(obs_policy_ot_sampler_get_config(sampling, bits));
        got += ' ';
    }
    EXPECT_EQ(got, "111111111 111111111 222222222 120212121 ");
}

// A call that must not write leaves the buffer as it was; a written text is cut to the size.
TEST_F(SamplingTest, DumpIsAConstantForWholeSignalValuesElseWrittenAndCutToTheBuffer) {
    char buf[40];
    memset(buf, 'x', sizeof buf);
    const auto dump = obs_policy_ot_sampler_dump_config;
    EXPECT_STREQ(dump(0, buf, sizeof buf), "[all:off]");
    EXPECT_STREQ(dump(1, buf, sizeof buf), "[all:off]");
    EXPECT_STREQ(dump(2, nullptr, 0), "[all:on]");
    EXPECT_STREQ(dump(sampling_, nullptr, 128), "");
    EXPECT_STREQ(dump(sampling_, buf, 0), "");
    EXPECT_EQ(std::string(buf, sizeof buf), std::string(sizeof buf, 'x'));
    EXPECT_EQ(dump(sampling_, buf, 8), buf);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("[trace:\0", 8) + std::string(32, 'x'));
    EXPECT_STREQ(dump(sampling_, buf, sizeof buf), "[trace:on][metrics:off][logs:off]");
    *first_ = {first_->name, 1, 2, 2, first_->next};
    EXPECT_STREQ(dump(sampling_, buf, sizeof buf), "[trace:off][metrics:on][logs:on]");
}

// 0, 1 and 2 are no pointers to allocate or free; a copy sharing a name is freed twice (ASan).
TEST_F(SamplingTest, CloneCopiesEverySamplerOrTheFirstAndWholeSignalValuesAsTheyAre) {
    for (obs_sampling value : {0u, 1u, 2u}) {
        EXPECT_EQ(obs_policy_ot_sampler_clone(value, 0), value);
        obs_policy_ot_sampler_free(value);
    }
    const obs_sampling all = obs_policy_ot_sampler_clone(sampling_, 0);
    const obs_sampling first = obs_policy_ot_sampler_clone(sampling_, 1);
    ASSERT_TRUE(length_of(sampler_of(all)) == 2 && length_of(sampler_of(first)) == 1);
    EXPECT_TRUE(!sampler_of(all)->next->name && sampler_of(all)->next->logs_config == 2);
    EXPECT_STREQ(sampler_of(first)->name, "s1");
    for (obs_sampling copy : {all, first}) obs_policy_ot_sampler_free(copy);
}

}  // namespace
