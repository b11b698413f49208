// One policy message on its two roads: the agent encoding a record, and a service decoding the
// message and translating its "ot" policy, as intake does for every update. Items/s are messages.
//
// The argument "logged" picks the debug log: 0 diverts it to a callback that drops every line,
// 1 keeps the real output (a log file, here in a private directory, and standard output). Run the
// logged cases with the results written elsewhere, e.g.
//   policy_message_bench --benchmark_out=results.txt --benchmark_out_format=console >/dev/null
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log_output.h"
#include "policy_text.h"
#include "observability_api.h"

namespace {

// The "ot" policy the message carries: scope "default" all on at log level 3, and every scope
// under sampler "s1" (traces on, metrics off, logs on).
std::string ot_policy_text() {
    obs_policy_ot_sampler s1 = {};
    s1.name = const_cast<char *>("s1");
    s1.traces_config = OBS_SAMPLING_ON;
    s1.metrics_config = OBS_SAMPLING_OFF;
    s1.logs_config = OBS_SAMPLING_ON;
    obs_policy_ot every_scope = {};
    every_scope.scope_name = const_cast<char *>("*");
    every_scope.sampler = reinterpret_cast<obs_sampling>(&s1);
    obs_policy_ot default_scope = {};
    default_scope.scope_name = const_cast<char *>("default");
    default_scope.sampler = OBS_SAMPLING_ON;
    default_scope.log_level = 3;
    default_scope.next = &every_scope;
    return obs_bench::policy_text(&default_scope, 1);
}

// A typical policy update for service "svc", holding its own copies of every text.
class policy_update {
  public:
    policy_update() : codec_(ot_policy_text()) {
        record_.reqid = const_cast<char *>(reqid_.c_str());
        record_.name = const_cast<char *>(name_.c_str());
        record_.path = const_cast<char *>(path_.c_str());
        record_.traceid = const_cast<char *>(traceid_.c_str());
        record_.op = 1;
        record_.format = OBS_POLICY_FORMAT_CODEC_TEXT;
        record_.codec_val = const_cast<char *>(codec_.c_str());
        record_.codec_vlen = static_cast<uint32_t>(codec_.size() + 1);
    }
    const obs_policy &record() const { return record_; }
    bool has_policy() const { return !codec_.empty(); }

  private:
    std::string reqid_ = "7c1e5a02-4b9d-4f3e-a861-0d2c9b7e5f34";
    std::string name_ = "obs";
    std::string path_ = "/kuv/opa/service{svc}/scope{default}/obs";
    std::string traceid_ = "4bf92f3577b34da6a3ce929d0e0e4736";
    std::string codec_;
    obs_policy record_ = {};
};

std::string encoded(const obs_policy &record) {
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&record, &text, &len);
    std::string result = text ? std::string(text, len) : "";
    free(text);
    return result;
}

int count_entries(const obs_policy *translated) {
    int entries = 0;
    if (translated && (translated->format & OBS_POLICY_FORMAT_CODEC_BYTES)) {
        for (auto *entry = static_cast<const obs_policy_ot *>(translated->codec_val); entry;
             entry = entry->next)
            ++entries;
    }
    return entries;
}

// Decodes and translates one message; the number of policy entries it yielded.
int receive(const std::string &message) {
    obs_policy *record = nullptr;
    obs_policy_internal_decode(message.data(), static_cast<uint32_t>(message.size()), &record);
    obs_policy *translated =
        record ? sdk_policy_ot_apply_translate(nullptr, "svc", record) : nullptr;
    int entries = count_entries(translated);
    obs_policy_free(record);
    sdk_policy_ot_free(translated);
    return entries;
}

void BM_encode(benchmark::State &state) {
    policy_update update;
    if (!update.has_policy()) return state.SkipWithError("no ot policy text");
    obs_bench::log_output output(state.range(0) != 0);
    for (auto _ : state) {
        char *text = nullptr;
        uint32_t len = 0;
        obs_policy_internal_encode(&update.record(), &text, &len);
        benchmark::DoNotOptimize(text);
        free(text);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_decode_translate(benchmark::State &state) {
    policy_update update;
    const std::string message = encoded(update.record());
    obs_bench::log_output output(state.range(0) != 0);
    if (message.empty() || receive(message) != 2)
        return state.SkipWithError("the message does not carry the two policy entries");
    for (auto _ : state) benchmark::DoNotOptimize(receive(message));
    state.SetItemsProcessed(state.iterations());
    state.counters["message_bytes"] = static_cast<double>(message.size());
}

BENCHMARK(BM_encode)->ArgName("logged")->Arg(0)->Arg(1);
BENCHMARK(BM_decode_translate)->ArgName("logged")->Arg(0)->Arg(1);

}  // namespace
