// The telemetry calls of the instrumentation API against what any call costs anyway.
//
// closed_*: a scope whose gate is shut; read against floor_empty_shared_call (an empty function
// in a shared library, the least a C-ABI call can cost) and, for obs_scope_enabled, against
// floor_lttng_tracepoint_disabled (an LTTng-UST tracepoint with no session, used the same way).
// open_*: the gate is open and the provider's slots do nothing; provider_* calls the same slots
// directly, so the difference is the API's own work. "mallocs" is allocations per iteration on
// the benchmark's thread. With --benchmark_repetitions each also reports "min".
//
// policy_applied: an agent publishes an "ot" policy for a service of two contexts with 20 scopes
// each through the in-process IPC provider; each iteration is timed until every scope's gate
// shows it. p50_us and p99_us are the median and 99th percentile. The argument "logged" picks the
// debug log as in policy_round_trip_bench (0 drops every line; 1 writes the file and stdout).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "api_tracepoint.h"
#include "call_floor.h"
#include "log_output.h"
#include "malloc_count.h"
#include "observability_api.h"
#include "observability_ipc_mem.h"
#include "policy_text.h"

namespace {

// One service context over the do-nothing provider, with a scope whose gate is shut and one
// whose gate is open, and an integer counter in each.
struct api_world {
    obs_bench::log_output quiet{false};
    obs_sdk_provider *provider = obs_bench_noop_provider();
    obs_ctx *ctx = obs_ctx_init("bench-api", provider, obs_ipc_mem_provider());
    obs_scope *closed = obs_scope_create(ctx, "closed", nullptr, OBS_SAMPLING_ALL_OFF, 2);
    obs_scope *open = obs_scope_create(ctx, "open", nullptr, OBS_SAMPLING_ALL_ON, 2);
    obs_updown_counter *closed_counter = obs_int64_updown_counter_create(closed, "queued", "");
    obs_updown_counter *open_counter = obs_int64_updown_counter_create(open, "queued", "");

    ~api_world() {
        obs_int64_updown_counter_destroy(closed_counter);
        obs_int64_updown_counter_destroy(open_counter);
        obs_ipc_mem_flush();
        obs_ctx_destroy(ctx);
    }
    bool ready() const { return closed_counter && open_counter; }
};

api_world &world() {
    static api_world instance;
    return instance;
}

// Runs call once per iteration and reports the allocations it made on this thread.
template <typename Call>
void run(benchmark::State &state, Call call) {
    if (!world().ready()) {
        state.SkipWithError("the context, its scopes or counters could not be made");
        return;
    }
    const uint64_t before = obs_bench_mallocs_here();
    for (auto _ : state) call();
    state.counters["mallocs"] = benchmark::Counter(
        static_cast<double>(obs_bench_mallocs_here() - before), benchmark::Counter::kAvgIterations);
}

void floor_empty_shared_call(benchmark::State &state) {
    run(state, [] { obs_bench_empty_call(); });
}

void floor_lttng_tracepoint_disabled(benchmark::State &state) {
    int value = 0;
    run(state, [&] { lttng_ust_tracepoint(obs_api_bench, call, ++value); });
}

void closed_span_start(benchmark::State &state) {
    obs_scope *scope = world().closed;
    run(state, [=] { benchmark::DoNotOptimize(obs_span_start(scope, nullptr, "work")); });
}

void closed_scope_log(benchmark::State &state) {
    obs_scope *scope = world().closed;
    run(state, [=] { benchmark::DoNotOptimize(obs_scope_log(scope, 1, "message")); });
}

void closed_int64_counter_add(benchmark::State &state) {
    obs_updown_counter *counter = world().closed_counter;
    run(state,
        [=] { benchmark::DoNotOptimize(obs_int64_updown_counter_add(counter, 1, nullptr)); });
}

void closed_scope_enabled(benchmark::State &state) {
    obs_scope *scope = world().closed;
    // Used as the tracepoint is: the work behind it runs only when the signal is on.
    run(state, [=] {
        if (obs_scope_enabled(scope, OBS_SIGNAL_TRACES)) obs_bench_empty_call();
    });
}

void open_span_start_end(benchmark::State &state) {
    obs_scope *scope = world().open;
    run(state, [=] { obs_span_end(obs_span_start(scope, nullptr, "work")); });
}

void provider_span_start_end(benchmark::State &state) {
    const obs_sdk_provider *p = world().provider;
    void *sdk_ctx = world().ctx->sdk_ctx, *sdk_scope = world().open->sdk_scope;
    run(state, [=] {
        p->span_end(p->span_start(sdk_ctx, nullptr, sdk_scope, "work"), OBS_SPAN_STATUS_UNSET,
                    nullptr);
    });
}

void open_scope_log(benchmark::State &state) {
    obs_scope *scope = world().open;
    run(state, [=] { benchmark::DoNotOptimize(obs_scope_log(scope, 1, "message")); });
}

void provider_span_log(benchmark::State &state) {
    const obs_sdk_provider *p = world().provider;
    void *sdk_ctx = world().ctx->sdk_ctx, *sdk_scope = world().open->sdk_scope;
    run(state,
        [=] { benchmark::DoNotOptimize(p->span_log(sdk_ctx, nullptr, sdk_scope, 1, "message")); });
}

void open_int64_counter_add(benchmark::State &state) {
    obs_updown_counter *counter = world().open_counter;
    run(state,
        [=] { benchmark::DoNotOptimize(obs_int64_updown_counter_add(counter, 1, nullptr)); });
}

void provider_int64_add(benchmark::State &state) {
    const obs_sdk_provider *p = world().provider;
    void *instrument = world().open_counter->sdk_priv_data;
    run(state,
        [=] { benchmark::DoNotOptimize(p->metrics_inst_add_int64(instrument, 1, nullptr)); });
}

// Two contexts of one service with 20 scopes each ("default" and 19 more), and an agent.
class policy_stage {
  public:
    static constexpr int kScopesPerContext = 20;

    policy_stage() {
        obs_ipc_provider *mem = obs_ipc_mem_provider();
        for (obs_ctx *&ctx : contexts_) {
            ctx = obs_ctx_init("bench-svc", obs_bench_noop_provider(), mem);
            if (!ctx) continue;
            scopes_.push_back(obs_scope_default(ctx));
            for (int i = 1; i < kScopesPerContext; ++i)
                scopes_.push_back(obs_scope_create(ctx, ("module-" + std::to_string(i)).c_str(),
                                                   "1.0", OBS_SAMPLING_ALL_ON, 2));
        }
        agent_ = obs_policy_ctx_init(nullptr, "bench-agent", nullptr, mem,
                                     obs_get_ot_sdk_policy_provider());
        obs_ipc_mem_flush();
        directory_ = agent_ ? obs_policy_load_service(agent_) : nullptr;
    }
    ~policy_stage() {
        obs_ipc_mem_flush();
        obs_policy_free_service(directory_);
        obs_policy_ctx_free(agent_);
        for (obs_ctx *ctx : contexts_) obs_ctx_destroy(ctx);
    }
    bool ready() const {
        return directory_ && std::count(scopes_.begin(), scopes_.end(), nullptr) == 0 &&
               scopes_.size() == 2 * kScopesPerContext;
    }

    // Publishes, for every scope of the service, all signals off (traces_on false) or only the
    // metrics off. Neither looks like the defaults that undoing the previous policy restores, so
    // the wait below sees the new policy itself.
    void publish(bool traces_on) {
        obs_policy_ot_sampler metrics_off = {nullptr, OBS_SAMPLING_ON, OBS_SAMPLING_OFF, 0,
                                             nullptr};
        obs_policy_ot entry = {};
        entry.scope_name = const_cast<char *>("*");
        entry.sampler =
            traces_on ? reinterpret_cast<obs_sampling>(&metrics_off) : OBS_SAMPLING_ALL_OFF;
        entry.log_level = 2;
        std::string text = obs_bench::policy_text(&entry, 0);
        obs_policy record = {};
        record.type = 1;
        record.op = OBS_POLICY_OP_APPLY;
        record.format = OBS_POLICY_FORMAT_CODEC_TEXT;
        record.name = const_cast<char *>("obs");
        record.reqid = const_cast<char *>("bench-request");
        record.codec_val = const_cast<char *>(text.c_str());
        record.codec_vlen = static_cast<uint32_t>(text.size() + 1);
        obs_policy_dispatch(agent_, &record, OBS_IPC_KEY_ROOT "service{bench-svc}/scope{*}/obs",
                            directory_);
    }

    // Whether every scope shows what publish(traces_on) asked for; false after a second.
    bool wait_for_every_scope(bool traces_on) {
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        for (;;) {
            bool all = true;
            for (const obs_scope *scope : scopes_)
                all = all && !obs_scope_enabled(scope, OBS_SIGNAL_METRICS) &&
                      obs_scope_enabled(scope, OBS_SIGNAL_TRACES) == traces_on;
            if (all) return true;
            if (std::chrono::steady_clock::now() > give_up) return false;
            std::this_thread::yield();
        }
    }

  private:
    obs_ctx *contexts_[2] = {};
    std::vector<obs_scope *> scopes_;
    obs_policy_ctx *agent_ = nullptr;
    obs_policy_service *directory_ = nullptr;
};

double percentile(std::vector<double> samples, double fraction) {
    if (samples.empty()) return 0;
    size_t at = static_cast<size_t>(fraction * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(at), samples.end());
    return samples[at];
}

void policy_applied(benchmark::State &state) {
    obs_bench::log_output output(state.range(0) != 0);
    policy_stage stage;
    if (!stage.ready()) {
        state.SkipWithError("the contexts, their scopes or the agent could not be set up");
        return;
    }
    std::vector<double> samples;
    bool traces_on = true;
    for (auto _ : state) {
        traces_on = !traces_on;
        const auto start = std::chrono::steady_clock::now();
        stage.publish(traces_on);
        if (!stage.wait_for_every_scope(traces_on)) {
            state.SkipWithError("a scope did not take the policy within a second");
            break;
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        samples.push_back(took.count() * 1e6);
        // Both contexts' handlers apply every policy; the next one starts from a quiet queue.
        obs_ipc_mem_flush();
    }
    state.counters["p50_us"] = percentile(samples, 0.50);
    state.counters["p99_us"] = percentile(samples, 0.99);
}

// With --benchmark_repetitions, "min" beside mean and median: on a busy machine the least
// disturbed repetition is the closest to the cost of the code.
void with_min(benchmark::internal::Benchmark *b) {
    b->ComputeStatistics("min", [](const std::vector<double> &runs) {
        return *std::min_element(runs.begin(), runs.end());
    });
}

}  // namespace

BENCHMARK(floor_empty_shared_call)->Apply(with_min);
BENCHMARK(floor_lttng_tracepoint_disabled)->Apply(with_min);
BENCHMARK(closed_span_start)->Apply(with_min);
BENCHMARK(closed_scope_log)->Apply(with_min);
BENCHMARK(closed_int64_counter_add)->Apply(with_min);
BENCHMARK(closed_scope_enabled)->Apply(with_min);
BENCHMARK(open_span_start_end)->Apply(with_min);
BENCHMARK(provider_span_start_end)->Apply(with_min);
BENCHMARK(open_scope_log)->Apply(with_min);
BENCHMARK(provider_span_log)->Apply(with_min);
BENCHMARK(open_int64_counter_add)->Apply(with_min);
BENCHMARK(provider_int64_add)->Apply(with_min);
BENCHMARK(policy_applied)->ArgName("logged")->Arg(0)->Arg(1)->UseManualTime();
