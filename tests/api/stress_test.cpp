// Telemetry threads against policy changes: four threads start and end spans, log and add to
// counters in a few scopes while one thread applies and resets policies, directly and through an
// agent over the in-process IPC provider. Run it under ThreadSanitizer. Afterwards every scope's
// counters must equal what reached the provider, and what the workers saw succeed.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "api/api_test.h"
#include "observability_ipc_mem.h"

namespace {

using api_test::entry;
using api_test::sampler;

constexpr std::array<const char *, 3> kScopes = {"default", "net", "disk"};
constexpr int kWorkers = 4;

// What reached the provider in one scope. Spans and instruments are handed out as the tally
// itself, so no slot allocates or locks.
struct tally {
    std::atomic<int> starts{0}, ends{0}, logs{0}, adds{0};
};
tally *tally_of(void *handle) {
    return static_cast<tally *>(handle);
}

obs_sdk_provider counting_provider() {
    obs_sdk_provider p = {};
    p.init = [](obs_ctx *, const char *) -> void * {
        static int sdk_ctx;
        return &sdk_ctx;
    };
    p.scope_create = [](void *, const char *, const char *, obs_sampling) -> void * {
        return new tally;
    };
    p.scope_free = [](void *sdk_scope) { delete tally_of(sdk_scope); };
    p.span_start = [](void *, void *, void *sdk_scope, const char *) -> void * {
        return ++tally_of(sdk_scope)->starts, sdk_scope;
    };
    p.span_start_from_context = [](void *, const char *, void *sdk_scope, const char *) -> void * {
        return ++tally_of(sdk_scope)->starts, sdk_scope;
    };
    p.span_end = [](void *sdk_span, int, const char *) { ++tally_of(sdk_span)->ends; };
    p.span_log = [](void *, void *, void *sdk_scope, int, const char *) {
        return ++tally_of(sdk_scope)->logs, 0;
    };
    p.metrics_inst_create = [](int, int, void *, void *sdk_scope, const char *,
                               const char *) -> void * { return sdk_scope; };
    p.metrics_inst_add_int64 = [](void *inst, int64_t, obs_key_value *) {
        return ++tally_of(inst)->adds, 0;
    };
    p.metrics_inst_add_double = [](void *inst, double, obs_key_value *) {
        return ++tally_of(inst)->adds, 0;
    };
    return p;
}

// What one worker saw succeed, per scope.
struct seen {
    std::array<int, kScopes.size()> spans{}, logs{};
};

// Telemetry in every scope in turn until stop; progress counts the rounds.
void work(const std::vector<obs_scope *> &scopes, const std::atomic<bool> &stop,
          std::atomic<unsigned> &progress, seen &out) {
    std::vector<obs_updown_counter *> ints, doubles;
    for (obs_scope *scope : scopes) {
        ints.push_back(obs_int64_updown_counter_create(scope, "queued", "items"));
        doubles.push_back(obs_double_updown_counter_create(scope, "load", "ratio"));
    }
    for (unsigned i = 0; !stop.load(std::memory_order_relaxed); ++i, ++progress) {
        const size_t at = i % scopes.size();
        if (obs_span *span = obs_span_start(scopes[at], nullptr, "request")) {
            ++out.spans[at];
            if (obs_span *child = obs_span_start(scopes[at], span, "step")) {
                ++out.spans[at];
                obs_span_end_with_status(child, 1, "ok");
            }
            out.logs[at] += obs_span_log(span, static_cast<int>(i % 4), "inside") == 0;
            obs_span_end(span);
        }
        if (obs_scope_enabled(scopes[at], OBS_SIGNAL_LOGS))
            out.logs[at] += obs_scope_log(scopes[at], static_cast<int>(i % 4), "beside") == 0;
        EXPECT_EQ(obs_int64_updown_counter_add(ints[at], 1, nullptr), 0);
        EXPECT_EQ(obs_double_updown_counter_add(doubles[at], 0.5, nullptr), 0);
    }
    for (size_t at = 0; at < scopes.size(); ++at) {
        obs_int64_updown_counter_destroy(ints[at]);
        obs_double_updown_counter_destroy(doubles[at]);
    }
}

// Lines are many and nobody reads them here.
int drop_line(int, const char *) {
    return 0;
}

TEST(ApiStressTest, CountersMatchWhatReachedTheProviderWhilePoliciesChange) {
    obs_log_callback_set(drop_line);
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
    obs_policy_service *directory = obs_policy_load_service(agent);

    std::atomic<bool> stop{false};
    std::atomic<unsigned> progress{0};
    std::array<seen, kWorkers> workers_saw;
    std::vector<std::thread> workers;
    for (seen &saw : workers_saw) workers.emplace_back([&] { work(scopes, stop, progress, saw); });

    // Direct and published applies and resets in turn, each in force while every worker goes
    // round every scope at least once however the threads are scheduled.
    const obs_policy_ot_sampler traces_off{nullptr, OBS_SAMPLING_OFF, OBS_SAMPLING_ON, 0, nullptr};
    const obs_policy_ot_sampler metrics_off{nullptr, OBS_SAMPLING_ON, OBS_SAMPLING_OFF, 0, nullptr};
    const obs_sampling samplings[] = {sampler(traces_off), sampler(metrics_off),
                                      OBS_SAMPLING_ALL_OFF, OBS_SAMPLING_ALL_ON};
    for (int round = 0; round < 240; ++round) {
        const int op =
            round % 5 == 1 || round % 5 == 4 ? OBS_POLICY_OP_REMOVE : OBS_POLICY_OP_APPLY;
        obs_policy_ot policy = entry(round % 5 == 0 ? kScopes[round % 3] : "*",
                                     samplings[round % 4], static_cast<uint8_t>(round % 4));
        if (round % 5 < 2) {
            obs_scope_set_policy_by_name("stress-svc", nullptr, op, &policy);
        } else {
            obs_policy record = {};
            record.op = static_cast<uint8_t>(op);
            record.name = const_cast<char *>("obs");
            char *text = nullptr;
            if (op == OBS_POLICY_OP_APPLY) {
                sdk_policy_ot_internal_encode(&policy, &text, &record.codec_vlen, 0);
                record.format = OBS_POLICY_FORMAT_CODEC_TEXT;
                record.codec_val = text;
            }
            EXPECT_EQ(
                obs_policy_dispatch(agent, &record,
                                    OBS_IPC_KEY_ROOT "service{stress-svc}/scope{*}/obs", directory),
                0);
            free(text);
            obs_ipc_mem_flush();
        }
        const unsigned until = progress + kWorkers * kScopes.size();
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

    for (size_t at = 0; at < kScopes.size(); ++at) {
        SCOPED_TRACE(kScopes[at]);
        const tally &reached = *tally_of(scopes[at]->sdk_scope);
        int spans = 0, logs = 0;
        for (const seen &saw : workers_saw) spans += saw.spans[at], logs += saw.logs[at];
        EXPECT_EQ(scopes[at]->span_count, spans);
        EXPECT_EQ(reached.starts, spans);
        EXPECT_EQ(reached.ends, spans);
        EXPECT_EQ(scopes[at]->open_span_count, 0);
        EXPECT_EQ(scopes[at]->log_count, logs);
        EXPECT_EQ(reached.logs, logs);
        // A closed metrics gate returns 0 as well: only the provider knows what was added.
        EXPECT_EQ(scopes[at]->metric_count, reached.adds);
    }
    // The requests traced in "opa" are counted there the same way.
    ASSERT_NE(ctx->opa_scope, nullptr);
    EXPECT_EQ(ctx->opa_scope->span_count, tally_of(ctx->opa_scope->sdk_scope)->starts);
    EXPECT_EQ(ctx->opa_scope->open_span_count, 0);
    obs_ipc_mem_flush();
    obs_policy_free_service(directory);
    obs_policy_ctx_free(agent);
    obs_ctx_destroy(ctx);
    obs_log_callback_set(nullptr);
}

}  // namespace
