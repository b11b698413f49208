// Our binding, libopentelemetry-c.so, behind the API and the built-in provider: each telemetry
// call's cost on the caller's thread with the otlp_file exporter writing to /dev/null, so that
// encoding and writing happen on the exporter thread as they do in use. With
// --benchmark_repetitions each also reports "min".
//
// export_spans: the exporter's own work, N spans (2 attributes each) queued in a context of their
// own, then encoded as OTLP JSON and written to /dev/null by the context's cleanup on this
// thread; items_per_second is spans exported per second of CPU time.
//
// The executable carries the binding's build directory as its DT_RPATH, which the provider's
// dlopen of "libopentelemetry-c.so" searches; each run checks that the file loaded is that one.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_output.h"
#include "observability/otelc.h"
#include "observability_api.h"
#include "observability_ipc_mem.h"

namespace {

void export_to_dev_null() {
    for (const char *signal : {"TRACES", "LOGS", "METRICS"}) {
        setenv((std::string("OTEL_") + signal + "_EXPORTER").c_str(), "otlp_file", 1);
        setenv((std::string("OTEL_EXPORTER_OTLP_") + signal + "_FILE").c_str(), "/dev/null", 1);
    }
}

// Whether the binding the provider opened is the one built beside this benchmark.
bool binding_is_ours() {
    void *handle = dlopen("libopentelemetry-c.so", RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) return false;
    link_map *map = nullptr;
    char loaded[PATH_MAX], ours[PATH_MAX];
    const bool same = dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && realpath(map->l_name, loaded) &&
                      realpath(OBS_BENCH_OTELC_PATH, ours) && strcmp(loaded, ours) == 0;
    dlclose(handle);
    return same;
}

// A service context over the built-in provider and the in-process IPC provider, with an open
// scope, an integer counter and the attribute lists the calls pass.
struct world {
    obs_bench::log_output quiet{false};
    obs_ctx *ctx;
    obs_scope *scope;
    obs_updown_counter *counter;
    obs_key_value *counter_attr = nullptr;
    obs_key_value *span_attrs = nullptr;
    bool ours = false;

    world()
        : ctx((export_to_dev_null(),
               obs_ctx_init("bench-otelc", obs_get_default_sdk_ot_buildin_provider(),
                            obs_ipc_mem_provider()))),
          scope(obs_scope_create(ctx, "open", nullptr, OBS_SAMPLING_ALL_ON, 2)),
          counter(obs_int64_updown_counter_create(scope, "queued", "")) {
        obs_key_value_add_str(&counter_attr, "route", "/status", 0);
        obs_key_value_add_str(&span_attrs, "http.route", "/status", 0);
        obs_key_value_add_int(&span_attrs, "http.status_code", 200);
        // The provider opens the binding at its first use.
        obs_span_end(obs_span_start(scope, nullptr, "first"));
        ours = binding_is_ours();
    }
    ~world() {
        obs_key_value_free(counter_attr);
        obs_key_value_free(span_attrs);
        obs_int64_updown_counter_destroy(counter);
        obs_ipc_mem_flush();
        obs_ctx_destroy(ctx);
    }
};

world &the_world() {
    static world instance;
    return instance;
}

template <typename Call>
void run(benchmark::State &state, Call call) {
    world &w = the_world();
    if (!w.counter || !w.counter_attr || !w.span_attrs) {
        state.SkipWithError("the context, its scope, counter or attributes could not be made");
        return;
    }
    if (!w.ours) {
        state.SkipWithError("libopentelemetry-c.so loaded is not the one built here");
        return;
    }
    for (auto _ : state) call(w);
}

void span_start_end(benchmark::State &state) {
    run(state, [](world &w) { obs_span_end(obs_span_start(w.scope, nullptr, "work")); });
}

void span_start_end_2_attrs(benchmark::State &state) {
    run(state, [](world &w) {
        obs_span *span = obs_span_start(w.scope, nullptr, "work");
        obs_span_attrs_set(span, w.span_attrs);
        obs_span_end(span);
    });
}

void scope_log(benchmark::State &state) {
    run(state, [](world &w) { benchmark::DoNotOptimize(obs_scope_log(w.scope, 1, "message")); });
}

void counter_add(benchmark::State &state) {
    run(state, [](world &w) {
        benchmark::DoNotOptimize(obs_int64_updown_counter_add(w.counter, 1, nullptr));
    });
}

void counter_add_one_attr(benchmark::State &state) {
    run(state, [](world &w) {
        benchmark::DoNotOptimize(obs_int64_updown_counter_add(w.counter, 1, w.counter_attr));
    });
}

// Queue limits that hold every span of a round and never wake the exporter thread, so that the
// round is exported by the cleanup, on this thread, alone.
void set_round_limits(int64_t spans) {
    const std::string room = std::to_string(spans * 2);
    setenv("OTEL_BSP_MAX_QUEUE_SIZE", room.c_str(), 1);
    setenv("OTEL_BSP_MAX_EXPORT_BATCH_SIZE", room.c_str(), 1);
    setenv("OTEL_BSP_SCHEDULE_DELAY", "3600000", 1);
}

void clear_round_limits() {
    unsetenv("OTEL_BSP_MAX_QUEUE_SIZE");
    unsetenv("OTEL_BSP_MAX_EXPORT_BATCH_SIZE");
    unsetenv("OTEL_BSP_SCHEDULE_DELAY");
}

void export_spans(benchmark::State &state) {
    const int64_t spans = state.range(0);
    export_to_dev_null();
    AttrMap *attrs = otelc_create_attr_map();
    otelc_set_str_attr(attrs, "http.route", "/status");
    otelc_set_int64_t_attr(attrs, "http.status_code", 200);
    for (auto _ : state) {
        state.PauseTiming();
        set_round_limits(spans);
        void *provider = otelc_init_tracer_provider_ctx("bench-otelc", nullptr, nullptr);
        clear_round_limits();
        void *tracer = otelc_get_tracer(provider, "export", nullptr, nullptr, nullptr);
        if (!provider || !tracer) {
            state.SkipWithError("the tracer provider context could not be made");
            break;
        }
        char context[OTELC_CONTEXT_CAPACITY];
        for (int64_t i = 0; i < spans; ++i) {
            int capacity = sizeof context;
            void *span = otelc_start_span_with_tracer(provider, tracer, "work", attrs, "", context,
                                                      &capacity);
            otelc_end_span(span);
        }
        state.ResumeTiming();
        otelc_cleanup_tracer_provider_ctx(provider);
    }
    otelc_destroy_attr_map(attrs);
    state.SetItemsProcessed(state.iterations() * spans);
}

void with_min(benchmark::internal::Benchmark *b) {
    b->ComputeStatistics("min", [](const std::vector<double> &runs) {
        return *std::min_element(runs.begin(), runs.end());
    });
}

}  // namespace

BENCHMARK(span_start_end)->Apply(with_min);
BENCHMARK(span_start_end_2_attrs)->Apply(with_min);
BENCHMARK(scope_log)->Apply(with_min);
BENCHMARK(counter_add)->Apply(with_min);
BENCHMARK(counter_add_one_attr)->Apply(with_min);
BENCHMARK(export_spans)->Arg(2048)->Unit(benchmark::kMicrosecond)->Apply(with_min);
