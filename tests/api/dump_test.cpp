// The dump: the file each dump signal rewrites with the whole text, never through a planted link,
// and dumps racing contexts that come and go.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "api/api_test.h"

namespace api_test {

namespace fs = std::filesystem;

static std::string read_file(const fs::path &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

class DumpTest : public ApiTest {
  protected:
    void TearDown() override { ApiTest::TearDown(), fs::remove_all(dir_); }
    // Waits at most five seconds for the dump file to hold want.
    bool file_becomes(const std::string &want) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (read_file(file_) != want && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return read_file(file_) == want;
    }

    const std::string pid_ = std::to_string(getpid());
    const fs::path dir_ = "/tmp/" + pid_, file_ = dir_ / "obs_info";
};

TEST_F(DumpTest, EachDumpSignalRewritesTheFileWithTheWholeText) {
    const obs_policy_ot_sampler traces_on{nullptr, 2, 0, 0, nullptr};
    const obs_policy_ot_sampler metrics_on{nullptr, 0, 2, 0, nullptr};
    obs_scope_set_sampling(scope_, sampler(traces_on));
    obs_scope *net = obs_scope_create(ctx_, "net", nullptr, sampler(traces_on), 3);
    obs_scope_set_sampling(net, sampler(metrics_on));  // merged: traces stay on
    obs_span *ended = obs_span_start(net, nullptr, "a"), *open = obs_span_start(net, nullptr, "b");
    obs_span_end(ended);
    obs_scope_log(net, 3, "m");
    obs_updown_counter *counter = obs_int64_updown_counter_create(net, "c", nullptr);
    obs_int64_updown_counter_add(counter, 1, nullptr);
    sdk_.table()->name = ipc_.table()->version = nullptr;
    obs_ctx *more = obs_ctx_init("more", sdk_.table(), ipc_.table());
    raise(SIGRTMAX - 4);
    EXPECT_TRUE(file_becomes(dump_text()));
    obs_ctx_destroy(more);  // the next text is shorter
    raise(SIGRTMAX - 4);
    EXPECT_TRUE(file_becomes("service: svc tid: " + std::to_string(obs_gettid()) +
                             " sdk(ot): -0.1 sdk(ipc): scripted-na\n"
                             "scope: default          ver: 1.0    sampling: "
                             "[trace:on][metrics:off][logs:off]([all:on]) log level: 2(2)\n"
                             "\tspan: 0(0) log: 0 metrics: 0\n"
                             "scope: net              ver:        sampling: "
                             "[trace:on][metrics:on][logs:off]([trace:on][metrics:off][logs:off])"
                             " log level: 3(3)\n"
                             "\tspan: 2(1) log: 1 metrics: 1\n"
                             "scripted debug\n"
                             "obs count: 1 pid: " +
                             pid_ + "\n"));
    EXPECT_EQ(fs::status(file_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    obs_span_end(open);
    obs_int64_updown_counter_destroy(counter);
    obs_ctx_destroy(ctx_);
    ctx_ = nullptr;
    EXPECT_EQ(dump_text(), "obs count: 0 pid: " + pid_ + "\n");
}

TEST_F(DumpTest, APlantedLinkIsNotFollowed) {
    const fs::path target = "/tmp/obs-dump-target-" + pid_;
    std::ofstream(target) << "keep";
    fs::create_directory(dir_);
    fs::create_symlink(target, file_);
    obs_dump_info_to_file();
    EXPECT_EQ(read_file(target), "keep");
    EXPECT_TRUE(fs::is_symlink(file_));
    fs::remove(target);
}

TEST_F(DumpTest, DumpsRacingContextsThatComeAndGoReadOnlyLiveState) {
    std::atomic<bool> done{false};
    std::thread dumper([&] {
        while (!done) dump_text();
    });
    for (int i = 0; i < 300; ++i)
        obs_ctx_destroy(obs_ctx_init("churn", sdk_.table(), ipc_.table()));
    done = true;
    dumper.join();
}

}  // namespace api_test
