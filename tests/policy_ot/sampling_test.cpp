#include <gtest/gtest.h>

#include <cstring>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

// Two samplers; only the first (traces on, metrics off, logs unset) may ever be consulted.
class SamplingTest : public testing::Test {
  protected:
    void SetUp() override { sampler_->next = new_sampler(nullptr, 1, 2, 2); }
    void TearDown() override { obs_policy_ot_sampler_free(sampling_); }
    obs_policy_ot_sampler *sampler_ = new_sampler("s1", 2, 1, 0);
    const obs_sampling sampling_ = as_sampling(sampler_);
};

TEST_F(SamplingTest, FirstSetBitDecidesTracesBeforeMetricsBeforeLogs) {
    const int expected[] = {1, 2, 0, 2, 1, 2, 1, 2, 1};  // bits 0 to 8
    for (unsigned bits = 0; bits <= 8; ++bits) {
        EXPECT_EQ(obs_policy_ot_sampler_get_config(0, bits), 1) << bits;
        EXPECT_EQ(obs_policy_ot_sampler_get_config(1, bits), 1) << bits;
        EXPECT_EQ(obs_policy_ot_sampler_get_config(2, bits), 2) << bits;
        EXPECT_EQ(obs_policy_ot_sampler_get_config(sampling_, bits), expected[bits]) << bits;
    }
}

TEST_F(SamplingTest, DumpIsAConstantForWholeSignalValuesElseWrittenAndCutToTheBuffer) {
    char buf[40];
    memset(buf, 'x', sizeof buf);
    const struct {
        obs_sampling sampling;
        char *buf;
        uint32_t size;
        const char *text;
        size_t written;  // bytes of buf the call may write
    } cases[] = {
        {0, buf, sizeof buf, "[all:off]", 0},
        {1, buf, sizeof buf, "[all:off]", 0},
        {2, nullptr, 0, "[all:on]", 0},
        {sampling_, nullptr, 128, "", 0},
        {sampling_, buf, 0, "", 0},
        {sampling_, buf, 8, "[trace:", 8},
        {sampling_, buf, sizeof buf, "[trace:on][metrics:off][logs:off]", 34},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const char *text = obs_policy_ot_sampler_dump_config(c.sampling, c.buf, c.size);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(c.written != 0, text == buf);
        EXPECT_EQ(std::string(buf + c.written, sizeof buf - c.written),
                  std::string(sizeof buf - c.written, 'x'));
    }
    *sampler_ = {sampler_->name, 1, 2, 2, sampler_->next};
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(sampling_, buf, sizeof buf),
                 "[trace:off][metrics:on][logs:on]");
}

// LeakSanitizer would report anything allocated for 0, 1 or 2; freeing them as pointers would
// crash.
TEST_F(SamplingTest, CloneCopiesEverySamplerOrTheFirstAndWholeSignalValuesAsTheyAre) {
    for (obs_sampling value : {0u, 1u, 2u}) {
        EXPECT_EQ(obs_policy_ot_sampler_clone(value, 0), value);
        obs_policy_ot_sampler_free(value);
    }
    obs_policy_ot_sampler *all = sampler_of(obs_policy_ot_sampler_clone(sampling_, 0));
    obs_policy_ot_sampler *first = sampler_of(obs_policy_ot_sampler_clone(sampling_, 1));
    ASSERT_EQ(length_of(all), 2u);
    ASSERT_EQ(length_of(first), 1u);
    EXPECT_EQ(all->next->name, nullptr);
    EXPECT_EQ(all->next->logs_config, 2);
    EXPECT_NE(all->name, sampler_->name);
    EXPECT_STREQ(all->name, "s1");
    all->traces_config = 1;
    EXPECT_EQ(sampler_->traces_config, 2);
    obs_policy_ot_sampler_free(as_sampling(all));
    EXPECT_STREQ(first->name, "s1");
    obs_policy_ot_sampler_free(as_sampling(first));
}

}  // namespace
