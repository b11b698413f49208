// Two threads start the first spans, log records and counts of new scopes at the same moment:
// each provider context, tracer, logger, meter and instrument is made once, and under TSan
// without a data race.
#include <atomic>
#include <thread>

#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using FirstUseRaceTest = SdkOtTest;

TEST_F(FirstUseRaceTest, TwoThreadsMakeOneProviderAndOneTracerPerScope) {
    constexpr int kScopes = 20;
    for (int round = 0; round < kScopes; ++round) {
        scope_ctx *scope = sdk_ot_scope_create(ctx_, ("s" + std::to_string(round)).c_str(), nullptr,
                                               OBS_SAMPLING_ALL_ON);
        inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope, "c", nullptr);
        std::atomic<int> ready{0};
        auto first_span = [&, ctx = ctx_] {
            ready.fetch_add(1);
            while (ready.load() < 2) std::this_thread::yield();  // both threads are up
            sdk_ot_span_end(sdk_ot_span_start(ctx, nullptr, scope, "first"), -1, nullptr);
            sdk_ot_span_log(ctx, nullptr, scope, 1, "first");
            sdk_ot_inst_add_int64(inst, 1, nullptr);
        };
        std::thread a(first_span), b(first_span);
        a.join();
        b.join();
        sdk_ot_inst_destroy(inst);
        sdk_ot_scope_free(scope);
    }
    EXPECT_EQ(calls("otelc_init_tracer_provider_ctx").size(), 1u);
    EXPECT_EQ(calls("otelc_init_logger_provider_ctx").size(), 1u);
    EXPECT_EQ(calls("otelc_get_tracer").size(), size_t{kScopes});
    EXPECT_EQ(calls("otelc_get_logger").size(), size_t{kScopes});
    EXPECT_EQ(calls("otelc_init_metrics_provider_ctx").size(), 1u);
    EXPECT_EQ(calls("otelc_get_meter").size(), size_t{kScopes});
    EXPECT_EQ(calls("otelc_create_metrics_inst_from_meter").size(), size_t{kScopes});
    EXPECT_EQ(calls("otelc_metrics_inst_add_int64_attrs").size(), size_t{2 * kScopes});
    EXPECT_EQ(calls("otelc_end_span").size(), size_t{2 * kScopes});
    EXPECT_EQ(calls("otelc_log_with_ctx").size(), size_t{2 * kScopes});
}

}  // namespace sdk_ot_test
