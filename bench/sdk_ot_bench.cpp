// The built-in provider's own cost: each telemetry call through the API and the built-in
// provider into a binding whose functions return at once (builtin/...), beside the same call
// through the API and a provider table that does nothing (noop/...). The difference is the
// provider's work: lazy-creation checks, the span record, the attribute map.
//
// The binding is loaded by its path before any context is made; the provider's own dlopen of
// "libopentelemetry-c.so" then finds it by its soname, so no LD_LIBRARY_PATH is needed.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <vector>

#include "call_floor.h"
#include "log_output.h"
#include "observability_api.h"
#include "observability_ipc_mem.h"

namespace {

// A context with an open scope and an integer counter, over one provider.
struct world {
    obs_bench::log_output quiet{false};
    obs_ctx *ctx;
    obs_scope *scope;
    obs_updown_counter *counter;
    obs_key_value *attr = nullptr;

    explicit world(obs_sdk_provider *provider)
        : ctx(obs_ctx_init("bench-sdk-ot", provider, obs_ipc_mem_provider())),
          scope(obs_scope_create(ctx, "open", nullptr, OBS_SAMPLING_ALL_ON, 2)),
          counter(obs_int64_updown_counter_create(scope, "queued", "")) {
        obs_key_value_add_str(&attr, "route", "/status", 0);
    }
    ~world() {
        obs_key_value_free(attr);
        obs_int64_updown_counter_destroy(counter);
        obs_ipc_mem_flush();
        obs_ctx_destroy(ctx);
    }
    bool ready() const { return counter && attr; }
};

world &builtin() {
    static void *binding = dlopen(OBS_BENCH_OTELC_PATH, RTLD_NOW | RTLD_GLOBAL);
    static world instance(binding ? obs_get_default_sdk_ot_buildin_provider() : nullptr);
    return instance;
}

world &noop() {
    static world instance(obs_bench_noop_provider());
    return instance;
}

template <typename Call>
void run(benchmark::State &state, world &w, Call call) {
    if (!w.ready()) {
        state.SkipWithError("the context, its scope or counter could not be made");
        return;
    }
    for (auto _ : state) call(w);
}

void span_start_end(benchmark::State &state, world &(*w)()) {
    run(state, w(), [](world &w) { obs_span_end(obs_span_start(w.scope, nullptr, "work")); });
}

void scope_log(benchmark::State &state, world &(*w)()) {
    run(state, w(), [](world &w) { benchmark::DoNotOptimize(obs_scope_log(w.scope, 1, "m")); });
}

void counter_add(benchmark::State &state, world &(*w)()) {
    run(state, w(), [](world &w) {
        benchmark::DoNotOptimize(obs_int64_updown_counter_add(w.counter, 1, nullptr));
    });
}

void counter_add_one_attr(benchmark::State &state, world &(*w)()) {
    run(state, w(), [](world &w) {
        benchmark::DoNotOptimize(obs_int64_updown_counter_add(w.counter, 1, w.attr));
    });
}

void with_min(benchmark::internal::Benchmark *b) {
    b->ComputeStatistics("min", [](const std::vector<double> &runs) {
        return *std::min_element(runs.begin(), runs.end());
    });
}

}  // namespace

BENCHMARK_CAPTURE(span_start_end, builtin, builtin)->Apply(with_min);
BENCHMARK_CAPTURE(span_start_end, noop, noop)->Apply(with_min);
BENCHMARK_CAPTURE(scope_log, builtin, builtin)->Apply(with_min);
BENCHMARK_CAPTURE(scope_log, noop, noop)->Apply(with_min);
BENCHMARK_CAPTURE(counter_add, builtin, builtin)->Apply(with_min);
BENCHMARK_CAPTURE(counter_add, noop, noop)->Apply(with_min);
BENCHMARK_CAPTURE(counter_add_one_attr, builtin, builtin)->Apply(with_min);
BENCHMARK_CAPTURE(counter_add_one_attr, noop, noop)->Apply(with_min);
