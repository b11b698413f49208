// Up-down counters: refusals and their messages, the kept name, and additions through the metrics
// gate counted only when the provider took them.
#include "api/api_test.h"

namespace api_test {

using CounterTest = ApiTest;

TEST_F(CounterTest, RefusalsSayWhyAndKeepNothing) {
    sdk_.fail_inst = true;
    EXPECT_EQ(obs_int64_updown_counter_create(nullptr, "", nullptr), nullptr);
    EXPECT_EQ(obs_double_updown_counter_create(nullptr, "q", nullptr), nullptr);
    EXPECT_EQ(obs_int64_updown_counter_create(scope_, nullptr, nullptr), nullptr);
    EXPECT_EQ(obs_double_updown_counter_create(scope_, "q", nullptr), nullptr);
    EXPECT_EQ(obs_int64_updown_counter_add(nullptr, 1, nullptr), -1);
    EXPECT_EQ(obs_double_updown_counter_add(nullptr, 1, nullptr), -1);
    const std::string i64 = "[OBS_API obs_int64_updown_counter_create:N] Error: ";
    const std::string dbl = "[OBS_API obs_double_updown_counter_create:N] Error: ";
    EXPECT_EQ(unnumbered_lines(),
              (Lines{i64 + "NULL scope", i64 + "Empty name", dbl + "NULL scope", i64 + "Empty name",
                     dbl + "Failed to create private data for counter q",
                     "[OBS_API obs_double_updown_counter_add:N] Error: NULL counter"}));
}

TEST_F(CounterTest, AdditionsPassTheMetricsGateAndCountWhatTheProviderTook) {
    const std::string name(300, 'n');  // kept cut at 256, handed to the provider whole
    obs_updown_counter *i = obs_int64_updown_counter_create(scope_, name.c_str(), "items");
    obs_updown_counter *d = obs_double_updown_counter_create(scope_, "d", nullptr);
    EXPECT_EQ(i->name, name.substr(0, 256));
    const int results[] = {0, 0, -1, -1};  // on; metrics off; refused; no add slots
    for (int n = 0; n < 4; ++n) {
        obs_scope_set_sampling(scope_, n == 1 ? OBS_SAMPLING_ALL_OFF : OBS_SAMPLING_ALL_ON);
        sdk_.add_result = n == 2 ? 5 : 0;
        if (n == 3) sdk_.table()->metrics_inst_add_int64 = nullptr;
        if (n == 3) sdk_.table()->metrics_inst_add_double = nullptr;
        EXPECT_EQ(obs_int64_updown_counter_add(i, 5, nullptr), results[n]) << n;
        EXPECT_EQ(obs_double_updown_counter_add(d, 1.5, nullptr), results[n]) << n;
    }
    EXPECT_EQ(scope_->metric_count, 2);
    const std::string add_i = "add_int64 inst:" + name.substr(0, 60) + " 5 -";
    EXPECT_EQ(sdk_.calls(),
              (Lines{"metrics_inst_create 2 1 scope:default " + name + " items",
                     "metrics_inst_create 2 2 scope:default d -", add_i,
                     "add_double inst:d 1.500000 -", add_i, "add_double inst:d 1.500000 -"}));
    const std::string add = "[OBS_API obs_double_updown_counter_add:N] Error: ";
    EXPECT_EQ(unnumbered_lines(),
              (Lines{add + "Failed to add double value for instrument d",
                     add + "instrument d does not have sdk_priv_data or metrics_inst_add_double"}));
    obs_int64_updown_counter_destroy(i);
    void *instrument = d->sdk_priv_data;
    sdk_.table()->metrics_inst_destroy = nullptr;
    obs_double_updown_counter_destroy(d);  // the record is released all the same
    free(instrument);
}

}  // namespace api_test
