// First uses: spans, log records and metric instruments make what they lack (nothing at an
// instrument's creation), a refusal fails the call and is logged, and the next call tries again.
#include <atomic>
#include <thread>
#include <utility>

#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using FirstUseTest = SdkOtTest;

// Each refusal fails its start or log, and the next one makes what is still missing.
TEST_F(FirstUseTest, RefusalsFailTheCallAndTheNextTriesAgain) {
    for (const char *refused : {"init_tracer_provider_ctx", "get_tracer", "start_span_with_tracer",
                                "init_logger_provider_ctx", "get_logger"}) {
        fail(("otelc_" + std::string(refused)).c_str());
        EXPECT_TRUE(strstr(refused, "logger") ? sdk_ot_span_log(ctx_, nullptr, scope_, 1, "m") == -1
                                              : !sdk_ot_span_start(ctx_, nullptr, scope_, "s"));
        EXPECT_EQ(last().rfind(refused, 0), 0u) << refused;
    }
    EXPECT_EQ(sdk_ot_span_start(ctx_, nullptr, nullptr, "no scope"), nullptr);
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, nullptr, 1, "no scope"), -1);
    span(scope_);
    EXPECT_EQ(last("end"), "end_span(span#1)");
    EXPECT_EQ(sdk_ot_span_log(ctx_, nullptr, scope_, 4, "outside"), 0);
    EXPECT_EQ(last(), "log_with_ctx(lp#1,null,logger#1,5,outside)");
    EXPECT_EQ(recorded("init").size() + recorded("get").size(), 8u);
}

// Names and descriptions keep their first 256 characters; an add's result comes back unchanged.
TEST_F(FirstUseTest, FirstAddMakesProviderMeterAndInstrumentAndLaterAddsOnlyAdd) {
    const std::string name(300, 'n'), text(300, 't');
    inst_ctx *ints = sdk_ot_inst_create(2, 1, ctx_, scope_, name.c_str(), text.c_str()),
             *doubles = sdk_ot_inst_create(2, 2, ctx_, scope_, "doubles", nullptr);
    sdk_ot_inst_destroy(sdk_ot_inst_create(2, 1, ctx_, scope_, "never added", nullptr));
    EXPECT_EQ(sdk_ot_inst_add_int64(ints, -5, nullptr), 0);
    EXPECT_EQ(sdk_ot_inst_add_double(doubles, 0.5, nullptr), 0);
    EXPECT_EQ(sdk_ot_inst_add_int64(ints, INT64_MAX, nullptr), 0);
    EXPECT_EQ(take(),
              "init_metrics_provider_ctx(svc,null,null)\nget_meter(mp#1,lib,1.2,null,null)\n"
              "create_metrics_inst_from_meter({0,1,0},meter#1," +
                  name.substr(0, 256) + ",null," + text.substr(0, 256) +
                  ")\nmetrics_inst_add_int64_attrs(inst#1,-5,null)\n"
                  "create_metrics_inst_from_meter({0,1,1},meter#1,doubles,null,null)\n"
                  "metrics_inst_add_double_attrs(inst#2,0.5,null)\n"
                  "metrics_inst_add_int64_attrs(inst#1,9223372036854775807,null)\n");
    fail("otelc_metrics_inst_add_double_attrs", 1, 7);
    EXPECT_EQ(sdk_ot_inst_add_double(doubles, 2, attrs_), 7);
    EXPECT_EQ(last("metrics"), "metrics_inst_add_double_attrs(inst#2,2,map#1)");
    fail("otelc_create_attr_map");
    EXPECT_EQ(sdk_ot_inst_add_double(doubles, 3, attrs_), 0);
    EXPECT_EQ(last("metrics"), "metrics_inst_add_double_attrs(inst#2,3,null)");
    EXPECT_EQ(unnumbered_lines(), Lines{"[SDK_OT_CPP sdk_ot_inst_add_double:N] Warning: Failed to "
                                        "convert obs_key_value to AttrMap"});
    sdk_ot_inst_destroy(ints);
    sdk_ot_inst_destroy(doubles);
    EXPECT_EQ(recorded("destroy_m"),
              (Lines{"destroy_metrics_inst(inst#1)", "destroy_metrics_inst(inst#2)"}));
}

// A name with "_" first is a pointer left unbound for the add, any other a function refusing; a
// lazy creation's cause is followed by the add's line.
TEST_F(FirstUseTest, EachFailureLogsItsCauseAndTheNextAddTriesAgain) {
    const std::string lazy = "[SDK_OT_CPP do_lazy_sdk_ot_inst_init:N] Error: ",
                      add = "[SDK_OT_CPP sdk_ot_inst_add_int64:N] Error: ",
                      refused = lazy + "Failed to initialize meter_provider via otelc",
                      failed = add + "Unable to lazy initialize instrument";
    inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope_, "c", nullptr);
    const std::pair<const char *, std::string> cases[] = {
        {"_otelc_init_metrics_provider_ctx", ""},
        {"otelc_init_metrics_provider_ctx", refused},
        {"_otelc_get_meter", ""},
        {"otelc_get_meter", refused},
        {"_otelc_create_metrics_inst_from_meter", ""},
        {"otelc_create_metrics_inst_from_meter",
         lazy + "Unable to lazy initialize otelc private data for c"},
        {"_otelc_metrics_inst_add_int64_attrs", add + "NULL _otelc_metrics_inst_add_int64_attrs"},
        {"_otelc_destroy_attr_map", add + "_otelc_destroy_attr_map not loaded"}};
    for (auto [name, cause] : cases) {
        if (cause.empty()) cause = lazy + "otel func ptr '" + name + "' is not loaded";
        obs_test::clear_captured_lines();
        void **unbound = name[0] == '_' ? static_cast<void **>(dlsym(RTLD_DEFAULT, name)) : nullptr;
        void *bound = unbound ? std::exchange(*unbound, nullptr) : (fail(name), nullptr);
        EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, attrs_), -1);
        if (unbound) *unbound = bound;
        EXPECT_EQ(unnumbered_lines(), cause.rfind(lazy, 0) ? Lines{cause} : (Lines{cause, failed}));
    }
    EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, nullptr), 0);
    for (const auto &[type, value] : {std::pair{3, 1}, {2, 5}}) {
        sdk_ot_inst_destroy(inst);
        inst = sdk_ot_inst_create(type, value, ctx_, scope_, "c", nullptr);
        obs_test::clear_captured_lines();
        EXPECT_EQ(sdk_ot_inst_add_int64(inst, 1, nullptr), -1);
        const char *invalid = type == 3 ? "Invalid inst_type 3" : "Invalid val_type 5";
        EXPECT_EQ(unnumbered_lines(), (Lines{lazy + invalid, failed}));
    }
    sdk_ot_inst_destroy(inst);
}

// Two threads make the first uses of new scopes at once: each handle is made once, and under TSan
// without a data race.
TEST_F(FirstUseTest, TwoThreadsMakeEachHandleOnce) {
    for (int round = 0; round < 20; ++round) {
        scope_ctx *scope = sdk_ot_scope_create(ctx_, "s", nullptr, OBS_SAMPLING_ALL_ON);
        inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope, "c", nullptr);
        std::atomic<int> ready{0};
        auto first_uses = [&] {
            for (++ready; ready < 2;) std::this_thread::yield();  // both threads are up
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
    EXPECT_EQ(recorded("init").size(), 3u);
    EXPECT_EQ(recorded("get").size() + recorded("create_metrics").size(), 80u);
}

}  // namespace sdk_ot_test
