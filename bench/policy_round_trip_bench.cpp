// One policy on its whole road inside one process: an agent context publishes it, the in-process
// IPC provider's delivery thread hands it to the service context, which decodes and translates it
// and calls the service's handler. Each iteration is timed until the handler has the policy;
// p50_us and p99_us are the median and 99th percentile of those round trips, items/s policies.
//
// The argument "logged" picks the debug log as in policy_message_bench (0 drops every line).
// Beside it, thread_handoff is the floor of any design with a delivery thread: one pointer handed
// to a waiting thread and the answer waited for, with a mutex and condition variables only.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_output.h"
#include "policy_text.h"
#include "observability_api.h"
#include "observability_ipc_mem.h"

namespace {

// Counts the policies the service's handler has been given.
struct arrivals {
    std::mutex lock;
    std::condition_variable changed;
    uint64_t count = 0;

    uint64_t so_far() {
        std::lock_guard<std::mutex> hold(lock);
        return count;
    }
    void wait_beyond(uint64_t seen) {
        std::unique_lock<std::mutex> hold(lock);
        changed.wait(hold, [&] { return count > seen; });
    }
};

arrivals arrived;

void count_policy(obs_policy_ctx *, const char *, obs_policy *, void *) {
    {
        std::lock_guard<std::mutex> hold(arrived.lock);
        ++arrived.count;
    }
    arrived.changed.notify_one();
}

std::string sampling_policy_text() {
    obs_policy_ot entry = {};
    entry.scope_name = const_cast<char *>("default");
    entry.sampler = OBS_SAMPLING_ON;
    entry.log_level = 3;
    return obs_bench::policy_text(&entry, 0);
}

double percentile(std::vector<double> samples, double fraction) {
    if (samples.empty()) return 0;
    size_t at = static_cast<size_t>(fraction * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(at), samples.end());
    return samples[at];
}

// Times each call of trip as one iteration; the median and 99th percentile go to the counters
// p50_us and p99_us, round trips per second to items/s.
template <typename Trip>
void time_round_trips(benchmark::State &state, Trip trip) {
    std::vector<double> round_trips;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        trip();
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        round_trips.push_back(took.count() * 1e6);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["p50_us"] = percentile(round_trips, 0.50);
    state.counters["p99_us"] = percentile(round_trips, 0.99);
}

void policy_round_trip(benchmark::State &state) {
    obs_bench::log_output output(state.range(0) != 0);
    obs_ipc_provider *mem = obs_ipc_mem_provider();
    obs_policy_ctx *service = obs_policy_ctx_init(nullptr, "bench-svc", count_policy, mem,
                                                  obs_get_ot_sdk_policy_provider());
    obs_policy_ctx *agent =
        obs_policy_ctx_init(nullptr, "bench-agent", nullptr, mem, obs_get_ot_sdk_policy_provider());
    obs_ipc_mem_flush();
    obs_policy_service *directory = agent ? obs_policy_load_service(agent) : nullptr;
    if (!service || !agent || !directory) {
        state.SkipWithError("the service, the agent or the directory could not be set up");
    } else {
        std::string text = sampling_policy_text();
        obs_policy record = {};
        record.type = 1;
        record.op = 1;
        record.format = OBS_POLICY_FORMAT_CODEC_TEXT;
        record.name = const_cast<char *>("obs");
        record.reqid = const_cast<char *>("bench-request");
        record.codec_val = const_cast<char *>(text.c_str());
        record.codec_vlen = static_cast<uint32_t>(text.size() + 1);
        const char *target = OBS_IPC_KEY_ROOT "service{bench-svc}/scope{*}/obs";
        time_round_trips(state, [&] {
            uint64_t seen = arrived.so_far();
            obs_policy_dispatch(agent, &record, target, directory);
            arrived.wait_beyond(seen);
        });
    }
    obs_ipc_mem_flush();
    obs_policy_free_service(directory);
    obs_policy_ctx_free(agent);
    obs_policy_ctx_free(service);
}

// A thread that takes one job at a time and reports it done.
class handoff_thread {
  public:
    handoff_thread() : worker_([this] { serve(); }) {}
    ~handoff_thread() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            stopping_ = true;
        }
        changed_.notify_all();
        worker_.join();
    }
    void hand_over_and_wait() {
        std::unique_lock<std::mutex> hold(lock_);
        ++handed_;
        changed_.notify_all();
        changed_.wait(hold, [&] { return done_ == handed_; });
    }

  private:
    void serve() {
        std::unique_lock<std::mutex> hold(lock_);
        for (;;) {
            changed_.wait(hold, [&] { return stopping_ || done_ != handed_; });
            if (stopping_) return;
            done_ = handed_;
            changed_.notify_all();
        }
    }
    std::mutex lock_;
    std::condition_variable changed_;
    uint64_t handed_ = 0, done_ = 0;
    bool stopping_ = false;
    std::thread worker_;
};

void thread_handoff(benchmark::State &state) {
    handoff_thread other;
    time_round_trips(state, [&] { other.hand_over_and_wait(); });
}

}  // namespace

BENCHMARK(policy_round_trip)->ArgName("logged")->Arg(0)->Arg(1)->UseManualTime();
BENCHMARK(thread_handoff)->UseManualTime();
