// Spans and log records: the traces and level gates with the scope's counters.
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

}  // namespace api_test
