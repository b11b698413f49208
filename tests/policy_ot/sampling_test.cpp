#include <gtest/gtest.h>

#include <cstring>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

class SamplerTest : public testing::Test {
  protected:
    void TearDown() override { obs_policy_ot_sampler_free(as_sampling(sampler_)); }
    // traces on, metrics off, logs unset
    obs_policy_ot_sampler *sampler_ = new_sampler("s1", 2, 1, 0);
};

TEST(SamplingValueTest, WholeSignalValuesGiveOffForNoneAndOffAndOnForOn) {
    for (unsigned bits = 0; bits < 8; ++bits) {
        EXPECT_EQ(obs_policy_ot_sampler_get_config(0, bits), 1) << bits;
        EXPECT_EQ(obs_policy_ot_sampler_get_config(1, bits), 1) << bits;
        EXPECT_EQ(obs_policy_ot_sampler_get_config(2, bits), 2) << bits;
    }
}

TEST(SamplingValueTest, WholeSignalValuesPrintAsConstantsWithoutTouchingTheBuffer) {
    char buf[16] = "untouched";
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(0, buf, sizeof buf), "[all:off]");
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(1, buf, sizeof buf), "[all:off]");
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(2, nullptr, 0), "[all:on]");
    EXPECT_STREQ(buf, "untouched");
}

// LeakSanitizer would report anything these allocated; freeing 1 or 2 as pointers would crash.
TEST(SamplingValueTest, CloneOfWholeSignalValuesIsTheValueAndFreeIgnoresThem) {
    for (obs_sampling value : {0u, 1u, 2u}) {
        EXPECT_EQ(obs_policy_ot_sampler_clone(value, 0), value);
        EXPECT_EQ(obs_policy_ot_sampler_clone(value, 1), value);
        obs_policy_ot_sampler_free(value);
    }
}

TEST_F(SamplerTest, FirstSetBitDecidesTracesBeforeMetricsBeforeLogs) {
    const struct {
        unsigned bits;
        int expected;
    } cases[] = {{1, 2}, {4, 1}, {2, 0}, {5, 2}, {6, 1}, {7, 2}, {0, 1}, {8, 1}};
    for (const auto &c : cases)
        EXPECT_EQ(obs_policy_ot_sampler_get_config(as_sampling(sampler_), c.bits), c.expected)
            << c.bits;
}

TEST_F(SamplerTest, OnlyTheFirstSamplerOfAListIsConsulted) {
    sampler_->next = new_sampler("s2", 1, 2, 2);
    EXPECT_EQ(obs_policy_ot_sampler_get_config(as_sampling(sampler_), OBS_SIGNAL_METRICS), 1);
    char buf[128];
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(as_sampling(sampler_), buf, sizeof buf),
                 "[trace:on][metrics:off][logs:off]");
}

TEST_F(SamplerTest, DumpIsWrittenIntoTheBufferAndCutToItsSize) {
    char buf[128];
    EXPECT_EQ(obs_policy_ot_sampler_dump_config(as_sampling(sampler_), buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "[trace:on][metrics:off][logs:off]");

    sampler_->traces_config = 1;
    sampler_->metrics_config = 2;
    sampler_->logs_config = 2;
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(as_sampling(sampler_), buf, sizeof buf),
                 "[trace:off][metrics:on][logs:on]");

    char small[12];
    memset(small, 'x', sizeof small);
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(as_sampling(sampler_), small, 8), "[trace:");
    EXPECT_EQ(small[8], 'x');
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(as_sampling(sampler_), nullptr, 128), "");
    EXPECT_STREQ(obs_policy_ot_sampler_dump_config(as_sampling(sampler_), small, 0), "");
    EXPECT_EQ(small[0], '[');
}

TEST_F(SamplerTest, CloneCopiesEverySamplerOrOnlyTheFirstAndOwnsItsNames) {
    sampler_->next = new_sampler(nullptr, 1, 1, 2);
    obs_policy_ot_sampler *all = sampler_of(obs_policy_ot_sampler_clone(as_sampling(sampler_), 0));
    obs_policy_ot_sampler *first =
        sampler_of(obs_policy_ot_sampler_clone(as_sampling(sampler_), 1));
    ASSERT_NE(all, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->next, nullptr);
    ASSERT_NE(all->next, nullptr);
    EXPECT_EQ(all->next->next, nullptr);
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
