// Contexts, scopes, spans, logs and counters over the recording provider: refused creations,
// scope lookup and policies by name, the gates with their counters, and the API's messages.
#include "api/api_test.h"

namespace api_test {

TEST_F(ApiTest, RefusedCreationsRegisterNothingAndFreeWhatTheProviderMade) {
    const char *names[] = {nullptr, "", "fails", "x{y}"};  // braces: the policy context refuses
    const Lines calls[] = {{}, {}, {"init fails"}, {"init x{y}", "free ctx:x{y}"}};
    for (int i = 0; i < 4; ++i) {
        obs_test::RecordingProvider sdk;
        sdk.fail_init = i == 2;
        EXPECT_EQ(obs_ctx_init(names[i], sdk.table(), ipc_.table()), nullptr);
        EXPECT_EQ(sdk.calls(), calls[i]);
    }
    EXPECT_EQ(obs_ctx_init("x", nullptr, ipc_.table()), nullptr);
    EXPECT_EQ(obs_ctx_init("x", sdk_.table(), nullptr), nullptr);
    EXPECT_TRUE(obs_info_list->ctx == ctx_ && !obs_info_list->next);  // only "svc" registered
}

TEST_F(ApiTest, ALookupMatchesTheVersionOnlyWhenAskedAndTakesTheNewSampling) {
    obs_scope *a = obs_scope_create(ctx_, "a", "1", OBS_SAMPLING_ALL_ON, 3);
    EXPECT_EQ(obs_scope_create(ctx_, "a", "1", OBS_SAMPLING_ALL_ON, 3), a);
    EXPECT_EQ(obs_scope_create(ctx_, "a", nullptr, OBS_SAMPLING_ALL_OFF, 4), a);
    EXPECT_EQ(a->default_sampling, obs_sampling{OBS_SAMPLING_ALL_OFF});
    obs_scope *b = obs_scope_create(ctx_, "b", nullptr, OBS_SAMPLING_ALL_ON, 2);
    EXPECT_NE(obs_scope_create(ctx_, "b", "1", OBS_SAMPLING_ALL_ON, 2), b);
    EXPECT_EQ(sdk_.calls(),
              (Lines{"scope_create a 1 2", "scope_create b - 2", "scope_create b 1 2"}));
}

TEST_F(ApiTest, PoliciesReachTheNamedScopesOfTheMatchingContexts) {
    obs_ctx *other = obs_ctx_init("svc2", sdk_.table(), ipc_.table());
    obs_scope_create(ctx_, "net", nullptr, OBS_SAMPLING_ALL_ON, 3);
    obs_policy_ot net4 = entry("net", 2, 4), unnamed = entry(nullptr, 1, 0), all = entry("*", 1, 0);
    all.next = &unnamed;
    unnamed.next = &net4;
    obs_test::clear_captured_lines();
    obs_scope_set_policy_by_name("svc", nullptr, 3, &all);  // the last matching entry decides
    obs_scope_set_policy_by_name("svc", "net", 2, &net4);   // op 2 resets
    obs_scope_set_policy_by_name("*", nullptr, 0, nullptr);
    const std::string applied = "---ot policy applied-->service=svc",
                      reset = "---ot policy reset-->";
    EXPECT_EQ(obs_test::captured_lines(),
              (Lines{applied + " scope=default sampling=[all:off] log_level=0 op=3",
                     applied + " scope=net sampling=[all:off] log_level=0 op=3",
                     applied + " scope=net sampling=[all:on] log_level=4 op=3",
                     applied + " scope=net sampling=[all:on] log_level=3 op=2",
                     reset + "service=svc scope=default sampling=[all:on] log_level=2 op=0",
                     reset + "service=svc scope=net sampling=[all:on] log_level=3 op=0",
                     reset + "service=svc2 scope=default sampling=[all:on] log_level=2 op=0"}));
    obs_ctx_destroy(other);
}

TEST_F(ApiTest, TracesGateSpansAndLogsAndTheLevelGatesLogs) {
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

TEST_F(ApiTest, RefusalsSayWhyAndKeepNothing) {
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

TEST_F(ApiTest, AdditionsPassTheMetricsGateAndCountWhatTheProviderTook) {
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
