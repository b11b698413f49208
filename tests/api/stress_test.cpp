// Telemetry threads against policy changes, meant for ThreadSanitizer: four threads trace, log
// and add in a few scopes while one thread applies and resets policies, directly and through an
// agent over the in-process IPC. Afterwards each scope's counters must equal what reached the
// provider.
#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "api/api_test.h"

namespace {

constexpr std::array<const char *, 3> kScopes = {"default", "net", "disk"};

// What reached the provider in one scope. It is also every span and instrument handle there, so
// no slot allocates or locks (a lock would hide the library's races from the sanitizer).
struct tally {
    std::atomic<int> starts{0}, ends{0}, logs{0}, adds{0};
};
tally &of(void *handle) {
    return *static_cast<tally *>(handle);
}

obs_sdk_provider counting_provider() {
    static int sdk_ctx;
    obs_sdk_provider p = {};
    p.init = [](obs_ctx *, const char *) -> void * { return &sdk_ctx; };
    p.scope_create = [](void *, const char *, const char *, obs_sampling) -> void * {
        return new tally;
    };
    p.scope_free = [](void *scope) { delete &of(scope); };
    p.span_start = [](void *, void *, void *scope, const char *) {
        return ++of(scope).starts, scope;
    };
    p.span_start_from_context = [](void *, const char *, void *scope, const char *) {
        return ++of(scope).starts, scope;
    };
    p.span_end = [](void *span, int, const char *) { ++of(span).ends; };
    p.span_log = [](void *, void *, void *scope, int, const char *) { return ++of(scope).logs, 0; };
    p.metrics_inst_create = [](int, int, void *, void *scope, const char *, const char *) {
        return scope;
    };
    p.metrics_inst_add_int64 = [](void *inst, int64_t, obs_key_value *) {
        return ++of(inst).adds, 0;
    };
    return p;
}

// Telemetry in every scope in turn until stop; progress counts the rounds.
void work(const std::vector<obs_scope *> &scopes, const std::atomic<bool> &stop,
          std::atomic<unsigned> &progress) {
    std::vector<obs_updown_counter *> counters;
    for (obs_scope *scope : scopes)
        counters.push_back(obs_int64_updown_counter_create(scope, "queued", "items"));
    for (unsigned i = 0; !stop.load(std::memory_order_relaxed); ++i, ++progress) {
        obs_scope *scope = scopes[i % scopes.size()];
        if (obs_span *span = obs_span_start(scope, nullptr, "request")) {
            obs_span_end_with_status(obs_span_start(scope, span, "step"), 1, "ok");
            obs_span_log(span, static_cast<int>(i % 4), "inside");
            obs_span_end(span);
        }
        obs_scope_log(scope, static_cast<int>(i % 4), "beside");
        EXPECT_EQ(obs_int64_updown_counter_add(counters[i % scopes.size()], 1, nullptr), 0);
    }
    for (obs_updown_counter *counter : counters) obs_int64_updown_counter_destroy(counter);
}

TEST(ApiStressTest, CountersMatchWhatReachedTheProviderWhilePoliciesChange) {
    obs_log_callback_set([](int, const char *) { return 0; });  // many lines, nobody reads them
    obs_sdk_provider provider = counting_provider();
    obs_ipc_provider *mem = obs_ipc_mem_provider();
    obs_ctx *ctx = obs_ctx_init("stress-svc", &provider, mem);
    obs_policy_ctx *agent = obs_policy_ctx_init(nullptr, "stress-agent", nullptr, mem,
                                                obs_get_ot_sdk_policy_provider());
    ASSERT_TRUE(ctx && agent);
    std::vector<obs_scope *> scopes;
    for (const char *name : kScopes)
        scopes.push_back(obs_scope_create(ctx, name, nullptr, OBS_SAMPLING_ALL_ON, 2));
    obs_ipc_mem_flush();
    std::atomic<bool> stop{false};
    std::atomic<unsigned> progress{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) workers.emplace_back([&] { work(scopes, stop, progress); });

    // Direct and published applies and resets in turn for three seconds (240 rounds at least),
    // each in force until every worker has gone round every scope at least once.
    const obs_policy_ot_sampler traces_off{nullptr, OBS_SAMPLING_OFF, OBS_SAMPLING_ON, 0, nullptr};
    const obs_policy_ot_sampler metrics_off{nullptr, OBS_SAMPLING_ON, OBS_SAMPLING_OFF, 0, nullptr};
    const obs_sampling samplings[] = {api_test::sampler(traces_off), api_test::sampler(metrics_off),
                                      OBS_SAMPLING_ALL_OFF, OBS_SAMPLING_ALL_ON};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (int round = 0; round < 240 || std::chrono::steady_clock::now() < end; ++round) {
        const int op =
            round % 5 == 1 || round % 5 == 4 ? OBS_POLICY_OP_REMOVE : OBS_POLICY_OP_APPLY;
        obs_policy_ot policy = api_test::entry(round % 5 ? "*" : kScopes[round % 3],
                                               samplings[round % 4], uint8_t(round % 4));
        if (round % 5 < 2)
            obs_scope_set_policy_by_name("stress-svc", nullptr, op, &policy);
        else
            EXPECT_EQ(api_test::publish(agent, "stress-svc", op, op == 1 ? &policy : nullptr), 0);
        const unsigned until = progress + 4 * kScopes.size();
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (progress < until && std::chrono::steady_clock::now() < give_up)
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        if (progress < until) {
            ADD_FAILURE() << "telemetry stalled in round " << round;
            break;
        }
    }
    stop = true;
    for (std::thread &worker : workers) worker.join();

    ASSERT_NE(ctx->opa_scope, nullptr);
    scopes.push_back(ctx->opa_scope);  // where requests are traced, counted the same way
    for (obs_scope *scope : scopes) {
        SCOPED_TRACE(scope->name);
        const tally &reached = of(scope->sdk_scope);
        EXPECT_EQ(scope->span_count, reached.starts);
        EXPECT_EQ(reached.ends, reached.starts);
        EXPECT_EQ(scope->open_span_count, 0);
        EXPECT_EQ(scope->log_count, reached.logs);
        // A closed metrics gate returns 0 as well: only the provider knows what was added.
        EXPECT_EQ(scope->metric_count, reached.adds);
    }
    obs_ipc_mem_flush();
    obs_policy_ctx_free(agent);
    obs_ctx_destroy(ctx);
    obs_log_callback_set(nullptr);
}

}  // namespace
