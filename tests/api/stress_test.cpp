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

#include "observability_api.h"
#include "observability_ipc_mem.h"

namespace {

constexpr const char *kService = "stress-svc";
constexpr std::array<const char *, 3> kScopes = {"default", "net", "disk"};
constexpr int kWorkers = 4;
constexpr int kPolicyRounds = 240;

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
    p.name = "counting";
    p.init = [](obs_ctx *, const char *) -> void * {
        static int sdk_ctx;
        return &sdk_ctx;
    };
    p.scope_create = [](void *, const char *, const char *, obs_sampling) -> void * {
        return new tally;
    };
    p.scope_free = [](void *sdk_scope) { delete tally_of(sdk_scope); };
    p.span_start = [](void *, void *, void *sdk_scope, const char *) -> void * {
        ++tally_of(sdk_scope)->starts;
        return sdk_scope;
    };
    p.span_start_from_context = [](void *, const char *, void *sdk_scope, const char *) -> void * {
        ++tally_of(sdk_scope)->starts;
        return sdk_scope;
    };
    p.span_end = [](void *sdk_span, int, const char *) { ++tally_of(sdk_span)->ends; };
    p.span_log = [](void *, void *, void *sdk_scope, int, const char *) {
        ++tally_of(sdk_scope)->logs;
        return 0;
    };
    p.metrics_inst_create = [](int, int, void *, void *sdk_scope, const char *,
                               const char *) -> void * { return sdk_scope; };
    p.metrics_inst_add_int64 = [](void *inst, int64_t, obs_key_value *) {
        ++tally_of(inst)->adds;
        return 0;
    };
    p.metrics_inst_add_double = [](void *inst, double, obs_key_value *) {
        ++tally_of(inst)->adds;
        return 0;
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
    for (unsigned i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        const size_t at = i % scopes.size();
        obs_scope *scope = scopes[at];
        if (obs_span *span = obs_span_start(scope, nullptr, "request")) {
            ++out.spans[at];
            if (obs_span *child = obs_span_start(scope, span, "step")) {
                ++out.spans[at];
                obs_span_end_with_status(child, 1, "ok");
            }
            out.logs[at] += obs_span_log(span, static_cast<int>(i % 4), "inside") == 0;
            obs_span_end(span);
        }
        if (obs_scope_enabled(scope, OBS_SIGNAL_LOGS))
            out.logs[at] += obs_scope_log(scope, static_cast<int>(i % 4), "beside") == 0;
        EXPECT_EQ(obs_int64_updown_counter_add(ints[at], 1, nullptr), 0);
        EXPECT_EQ(obs_double_updown_counter_add(doubles[at], 0.5, nullptr), 0);
        ++progress;
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

class ApiStressTest : public testing::Test {
  protected:
    void SetUp() override {
        obs_log_callback_set(drop_line);
        provider_ = counting_provider();
        mem_ = obs_ipc_mem_provider();
        ctx_ = obs_ctx_init(kService, &provider_, mem_);
        agent_ = obs_policy_ctx_init(nullptr, "stress-agent", nullptr, mem_,
                                     obs_get_ot_sdk_policy_provider());
        ASSERT_TRUE(ctx_ && agent_);
        for (const char *name : kScopes)
            scopes_.push_back(obs_scope_create(ctx_, name, nullptr, OBS_SAMPLING_ALL_ON, 2));
        obs_ipc_mem_flush();
        directory_ = obs_policy_load_service(agent_);
        ASSERT_NE(directory_, nullptr);
    }
    void TearDown() override {
        obs_ipc_mem_flush();
        obs_policy_free_service(directory_);
        obs_policy_ctx_free(agent_);
        obs_ctx_destroy(ctx_);
        obs_log_callback_set(nullptr);
    }

    // An "ot" policy for every scope of the service, published by the agent.
    void publish(int op, obs_sampling sampling, int log_level) {
        obs_policy_ot entry = {};
        entry.scope_name = const_cast<char *>("*");
        entry.sampler = sampling;
        entry.log_level = static_cast<uint8_t>(log_level);
        char *text = nullptr;
        obs_policy record = {};
        record.type = 1;
        record.op = static_cast<uint8_t>(op);
        record.name = const_cast<char *>("obs");
        if (op != OBS_POLICY_OP_REMOVE) {
            sdk_policy_ot_internal_encode(&entry, &text, &record.codec_vlen, 0);
            record.format = OBS_POLICY_FORMAT_CODEC_TEXT;
            record.codec_val = text;
        }
        EXPECT_EQ(
            obs_policy_dispatch(agent_, &record,
                                OBS_IPC_KEY_ROOT "service{stress-svc}/scope{*}/obs", directory_),
            0);
        free(text);
        obs_ipc_mem_flush();
    }

    // Whether the workers went through at least rounds more rounds (within a generous bound), so
    // that every policy is in force while telemetry runs however the threads are scheduled.
    bool telemetry_went_on(unsigned rounds) {
        const unsigned until = progress_ + rounds;
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (progress_ < until) {
            if (std::chrono::steady_clock::now() > give_up) return false;
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        return true;
    }

    // Direct and published changes in turn: traces, metrics or both off, log levels, resets.
    void change_policies() {
        obs_policy_ot_sampler traces_off = {nullptr, OBS_SAMPLING_OFF, OBS_SAMPLING_ON, 0, nullptr};
        obs_policy_ot_sampler metrics_off = {nullptr, OBS_SAMPLING_ON, OBS_SAMPLING_OFF, 0,
                                             nullptr};
        const obs_sampling samplings[] = {reinterpret_cast<obs_sampling>(&traces_off),
                                          reinterpret_cast<obs_sampling>(&metrics_off),
                                          OBS_SAMPLING_ALL_OFF, OBS_SAMPLING_ALL_ON};
        for (int round = 0; round < kPolicyRounds; ++round) {
            const obs_sampling sampling = samplings[round % 4];
            const int level = round % 4;
            switch (round % 5) {
                case 0: {
                    obs_policy_ot entry = {};
                    entry.scope_name = const_cast<char *>(kScopes[round % kScopes.size()]);
                    entry.sampler = sampling;
                    entry.log_level = static_cast<uint8_t>(level);
                    obs_scope_set_policy_by_name(kService, nullptr, OBS_POLICY_OP_APPLY, &entry);
                    break;
                }
                case 1:
                    obs_scope_set_policy_by_name(kService, nullptr, OBS_POLICY_OP_REMOVE, nullptr);
                    break;
                case 2:
                case 3:
                    publish(OBS_POLICY_OP_APPLY, sampling, level);
                    break;
                default:
                    publish(OBS_POLICY_OP_REMOVE, 0, 0);
                    break;
            }
            ASSERT_TRUE(telemetry_went_on(kWorkers * kScopes.size()));
        }
    }

    obs_sdk_provider provider_;
    obs_ipc_provider *mem_ = nullptr;
    obs_ctx *ctx_ = nullptr;
    obs_policy_ctx *agent_ = nullptr;
    obs_policy_service *directory_ = nullptr;
    std::vector<obs_scope *> scopes_;
    std::atomic<unsigned> progress_{0};
};

TEST_F(ApiStressTest, CountersMatchWhatReachedTheProviderWhilePoliciesChange) {
    std::atomic<bool> stop{false};
    std::array<seen, kWorkers> workers_saw;
    std::vector<std::thread> workers;
    for (seen &saw : workers_saw)
        workers.emplace_back([&] { work(scopes_, stop, progress_, saw); });
    change_policies();
    stop = true;
    for (std::thread &worker : workers) worker.join();

    for (size_t at = 0; at < kScopes.size(); ++at) {
        SCOPED_TRACE(kScopes[at]);
        obs_scope *scope = scopes_[at];
        const tally &reached = *tally_of(scope->sdk_scope);
        int spans = 0, logs = 0;
        for (const seen &saw : workers_saw) spans += saw.spans[at], logs += saw.logs[at];
        EXPECT_EQ(scope->span_count, spans);
        EXPECT_EQ(reached.starts, spans);
        EXPECT_EQ(reached.ends, spans);
        EXPECT_EQ(scope->open_span_count, 0);
        EXPECT_EQ(scope->log_count, logs);
        EXPECT_EQ(reached.logs, logs);
        // A closed metrics gate returns 0 as well: only the provider knows what was added.
        EXPECT_EQ(scope->metric_count, reached.adds);
    }
    // The requests traced in "opa" are counted there the same way.
    ASSERT_NE(ctx_->opa_scope, nullptr);
    EXPECT_EQ(ctx_->opa_scope->span_count, tally_of(ctx_->opa_scope->sdk_scope)->starts);
    EXPECT_EQ(ctx_->opa_scope->open_span_count, 0);
}

}  // namespace
