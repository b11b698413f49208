#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "observability_api.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kLimit = OBS_DEBUG_LOG_ROTATE_SIZE;

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// One line as the file (with the thread id) or standard output (without) shows it.
bool is_line(const std::string &text, const std::string &msg, bool in_file = true) {
    const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )",
                      tid = in_file ? R"(\[\d+\] )" : "";
    return std::regex_match(text, std::regex(stamp + tid + msg + "\n"));
}

class DebugLogTest : public ::testing::Test {
  protected:
    DebugLogTest() { fs::create_directory(dir_); }
    ~DebugLogTest() override {
        obs_log_file_set(nullptr);
        fs::remove_all(dir_);
    }
    // Logs as callers do (stream in the slot, closed afterwards); returns what reached stdout.
    std::string log(const char *msg, FILE *stream = nullptr) {
        testing::internal::CaptureStdout();
        result_ = obs_debug_log_to_file(msg, &stream, log_.c_str());
        if ((slot_ = stream)) fclose(stream);
        return testing::internal::GetCapturedStdout();
    }
    const std::string dir_ = "/tmp/obs_debug_log_" + std::to_string(getpid()),
                      log_ = dir_ + "/default.log";  // the callers' default path
    int result_ = 0;
    FILE *slot_ = nullptr;
};

TEST_F(DebugLogTest, CallbackTakesEveryMessageAndLeavesSlotsFilesAndOutputAlone) {
    obs_log_callback_set([](int first, const char *msg) { return first + 40 + int(strlen(msg)); });
    EXPECT_EQ(log("to the host", fopen(log_.c_str(), "w")), "");
    EXPECT_EQ(result_, 51);
    EXPECT_EQ(log(nullptr), "");
    EXPECT_EQ(result_, 40);
    obs_log_callback_set(nullptr);
    EXPECT_EQ(read_file(log_), "");
}

TEST_F(DebugLogTest, LinesCarryStampAndCallersThreadIdToTheSlotsStreamOrFileAndStandardOutput) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);  // a line that went elsewhere must not block the read
    log("through a pipe", fdopen(fds[1], "w"));
    char piped[256] = {};
    ASSERT_GT(read(fds[0], piped, sizeof piped - 1), 0);
    close(fds[0]);
    EXPECT_TRUE(is_line(piped, "through a pipe"));
    testing::internal::CaptureStdout();
    obs_debug_log_to_file("no slot", nullptr, log_.c_str());
    EXPECT_TRUE(is_line(testing::internal::GetCapturedStdout(), "no slot", false));
    EXPECT_FALSE(fs::exists(log_));  // neither an unseekable stream nor no slot opens the file
    std::string out, tid;
    std::thread([&] {
        tid = std::to_string(gettid());
        out = log("hello [world] %s");
    }).join();
    const std::string file = read_file(log_), stamp = file.substr(0, 20);
    EXPECT_EQ(file, stamp + "[" + tid + "] hello [world] %s\n");
    EXPECT_EQ(out, stamp + "hello [world] %s\n");
    EXPECT_EQ(result_, static_cast<int>(out.size()));
}

TEST_F(DebugLogTest, OnlyFilesOfUpTo511CharactersInRealOwnDirectoriesAreOpenedAndRotated) {
    std::string path = dir_;
    while (511 - path.size() > 200) fs::create_directory(path += "/" + std::string(150, 'd'));
    path += "/" + std::string(511 - path.size() - 1, 'f');
    obs_log_file_set(path.c_str());
    // Sizes before the line; the last with a stream at the end in the slot and a backup to replace.
    const std::pair<size_t, bool> sizes[] = {{kLimit - 1, false}, {kLimit, false}, {kLimit, true}};
    char fill = 'a';
    for (const auto &[size, held] : sizes) {
        SCOPED_TRACE(fill);
        const std::string old(size, fill++), kept = size < kLimit ? old : "";
        std::ofstream(path) << old;
        FILE *stream = held ? fopen(path.c_str(), "a") : nullptr;
        if (stream) fseek(stream, 0, SEEK_END);
        log("next", stream);
        const std::string file = read_file(path);
        EXPECT_EQ(file.substr(0, kept.size()), kept);
        EXPECT_TRUE(is_line(file.substr(kept.size()), "next"));
        EXPECT_EQ(read_file(path + ".1"), kept.empty() ? old : "");
    }
    obs_log_file_set(nullptr);  // back to the callers' default path
    log("default");
    EXPECT_TRUE(is_line(read_file(log_), "default"));
    const std::string d = dir_ + "/";
    fs::create_symlink(d + "target", d + "link");
    fs::create_directory_symlink(dir_, d + "linked");
    fs::create_directory(d + "foreign");
    std::vector<std::string> refused = {path + "g", d + "link", d + "linked/x", d + "missing/x"};
    if (chown((d + "foreign").c_str(), 65534, 65534) == 0) refused.push_back(d + "foreign/x");
    for (const std::string &file : refused) {
        obs_log_file_set(file.c_str());
        EXPECT_TRUE(is_line(log("refused"), "refused", false)) << file;
        EXPECT_EQ(slot_, nullptr) << file;
    }
}

TEST_F(DebugLogTest, SettingsMayChangeWhileAnotherThreadLogs) {
    std::thread writer([this] {
        for (int i = 0; i < 100; ++i) log("racing");
    });
    for (int i = 0; i < 100; ++i) {
        obs_log_file_set(i % 2 ? nullptr : log_.c_str());
        obs_log_callback_set(i % 3 ? nullptr : +[](int, const char *) { return 0; });
    }
    writer.join();
    obs_log_callback_set(nullptr);
}

}  // namespace
