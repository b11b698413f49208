// Spans and log records: the traces and level gates with the scope's counters, and telemetry
// threads racing sampling changes.
#include <atomic>
#include <thread>

#include "api/api_test.h"

namespace api_test {

using SpanLogTest = ApiTest;

TEST_F(SpanLogTest, TracesGateSpansAndLogsAndTheLevelGatesLogs) {
    const obs_policy_ot_sampler logs_off{nullptr, 0, 1, 1, nullptr};  // logs follow traces
    const obs_sampling samplings[] = {2, 2, 1, sampler(logs_off), 2};
    const int levels[] = {2, 3, 0, -9, 2}, logged[] = {7, -1, -1, 7, -2},
              counted[] = {1, 0, 0, 1, 1};
    sdk_.log_result = 7;
    for (int i = 0; i < 5; ++i) {
        obs_scope_set_sampling(scope_, samplings[i]);
        if (i == 4) sdk_.table()->span_log = nullptr;
        sdk_.clear();
        const int spans = scope_->span_count, logs = scope_->log_count;
        obs_span *span = obs_span_start(scope_, nullptr, "s");
        EXPECT_EQ(obs_scope_log(scope_, levels[i], "m"), logged[i]) << i;
        EXPECT_EQ(scope_->log_count - logs, counted[i]) << i;
        EXPECT_EQ(scope_->span_count - spans, samplings[i] == 1 ? 0 : 1) << i;
        EXPECT_TRUE(span || sdk_.calls().empty()) << i;
        obs_span_end(span);
    }
}

TEST_F(SpanLogTest, TelemetryThreadsRaceSamplingChangesAndCountExactly) {
    obs_updown_counter *counter = obs_int64_updown_counter_create(scope_, "c", nullptr);
    const obs_policy_ot_sampler traces_off{nullptr, 1, 2, 0, nullptr};
    std::atomic<int> spans{0}, logs{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                obs_span *span = obs_span_start(scope_, nullptr, "s");
                spans += span != nullptr;
                logs += obs_span_log(span, 1, "m") == 0;
                obs_int64_updown_counter_add(counter, 1, nullptr);
                obs_span_end(span);
            }
        });
    const obs_sampling settings[] = {1, sampler(traces_off), 0};
    for (int i = 0; i < 300; ++i) {
        obs_scope_set_sampling(scope_, settings[i % 3]);
        obs_scope_set_log_level(scope_, i % 2 ? -1 : 0);
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(scope_->span_count, spans);
    EXPECT_EQ(scope_->open_span_count, 0);
    EXPECT_EQ(scope_->log_count, logs);
    EXPECT_EQ(scope_->metric_count, static_cast<int>(sdk_.calls("add_int64").size()));
    obs_int64_updown_counter_destroy(counter);
}

}  // namespace api_test
