// Two threads make the first spans, log records and counts of new scopes at the same moment:
// each provider context, tracer, logger, meter and instrument is made once, and under TSan
// without a data race.
#include <atomic>
#include <thread>

#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using FirstUseRaceTest = SdkOtTest;

TEST_F(FirstUseRaceTest, TwoThreadsMakeEachHandleOnce) {
    constexpr size_t kScopes = 20;
    for (size_t round = 0; round < kScopes; ++round) {
        scope_ctx *scope = sdk_ot_scope_create(ctx_, "s", nullptr, OBS_SAMPLING_ALL_ON);
        inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope, "c", nullptr);
        std::atomic<int> ready{0};
        auto first_uses = [&] {
            ready.fetch_add(1);
            while (ready.load() < 2) std::this_thread::yield();  // both threads are up
            span(scope);
            sdk_ot_span_log(ctx_, nullptr, scope, 1, "first");
            sdk_ot_inst_add_int64(inst, 1, nullptr);
        };
        std::thread a(first_uses), b(first_uses);
        a.join();
        b.join();
        sdk_ot_inst_destroy(inst);
        sdk_ot_scope_free(scope);
    }
    EXPECT_EQ(count("init"), 3u);
    EXPECT_EQ(count("get") + count("create_metrics"), 4 * kScopes);
}

}  // namespace sdk_ot_test
