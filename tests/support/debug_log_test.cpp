#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kRotateSize = OBS_DEBUG_LOG_ROTATE_SIZE;

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

// A file line carries the thread id, a line on standard output does not.
bool is_line(const std::string &text, const std::string &msg, bool in_file = true) {
    const std::string tid = in_file ? R"(\[\d+\] )" : "";
    return std::regex_match(text,
                            std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )" + tid + msg + "\n"));
}

struct logged {
    int result;
    FILE *slot;       // what the slot held afterwards (closed by now)
    std::string out;  // what reached standard output
};

// Logs one message the way every caller does: the slot (empty unless a stream is given) is
// closed afterwards.
logged log_once(const char *msg, const char *default_path = OBS_DEBUG_LOG_DEFAULT_PATH,
                FILE *stream = nullptr) {
    FILE *slot = stream;
    testing::internal::CaptureStdout();
    int result = obs_debug_log_to_file(msg, &slot, default_path);
    logged l{result, slot, testing::internal::GetCapturedStdout()};
    if (slot) fclose(slot);
    return l;
}

class DebugLogCallbackTest : public obs_test::LogCaptureTest {};

TEST_F(DebugLogCallbackTest, CallbackTakesEveryMessageAndLeavesSlotsAndOutputAlone) {
    const std::string path = testing::TempDir() + "obs_debug_log_callback.log";
    FILE *caller_stream = tmpfile();
    FILE *slot = caller_stream, *empty = nullptr;
    testing::internal::CaptureStdout();
    obs_debug_log_to_file("to the host", &slot, path.c_str());
    obs_debug_log_to_file(nullptr, &empty, path.c_str());
    obs_log_callback_set([](int first, const char *) { return first + 42; });
    EXPECT_EQ(obs_debug_log_to_file("result", &empty, path.c_str()), 42);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(lines(), (std::vector<std::string>{"to the host", ""}));
    EXPECT_EQ(slot, caller_stream);
    EXPECT_EQ(ftell(caller_stream), 0);
    EXPECT_EQ(empty, nullptr);
    fclose(caller_stream);
}

class DebugLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/obs_debug_log_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        log_ = dir_ + "/test.log";
        obs_log_file_set(log_.c_str());
    }
    void TearDown() override {
        obs_log_file_set(nullptr);
        fs::remove_all(dir_);
    }
    // The line must reach standard output only.
    void expect_refused(const std::string &path) {
        SCOPED_TRACE(path);
        obs_log_file_set(path.c_str());
        logged l = log_once("refused");
        obs_log_file_set(log_.c_str());
        EXPECT_EQ(l.slot, nullptr);
        EXPECT_TRUE(is_line(l.out, "refused", false));
        EXPECT_EQ(l.result, static_cast<int>(l.out.size()));
    }
    std::string dir_, log_;
};

TEST_F(DebugLogTest, LinesCarryStampThreadIdAndMessage) {
    long tid = 0;
    logged l{};
    std::thread([&] {
        tid = syscall(SYS_gettid);
        l = log_once("hello [world] %s");
    }).join();
    const std::string file = read_file(log_), stamp = file.substr(0, 20);
    EXPECT_EQ(file, stamp + "[" + std::to_string(tid) + "] hello [world] %s\n");
    EXPECT_EQ(l.out, stamp + "hello [world] %s\n");
    EXPECT_TRUE(is_line(l.out, R"(hello \[world\] %s)", false));
    EXPECT_EQ(l.result, static_cast<int>(l.out.size()));
}

TEST_F(DebugLogTest, ClearedFileFallsBackToTheDefaultPathAndNullSlotWritesNoFile) {
    const std::string fallback = dir_ + "/default.log";
    obs_log_file_set(nullptr);
    testing::internal::CaptureStdout();
    obs_debug_log_to_file("no slot", nullptr, fallback.c_str());
    EXPECT_TRUE(is_line(testing::internal::GetCapturedStdout(), "no slot", false));
    EXPECT_FALSE(fs::exists(fallback));
    EXPECT_NE(log_once("default", fallback.c_str()).slot, nullptr);
    EXPECT_TRUE(is_line(read_file(fallback), "default"));
}

TEST_F(DebugLogTest, FileIsRotatedOnceItHasReachedTheLimitAndTheBackupReplaced) {
    // File sizes before the line; the last with a stream at the end of the file in the slot.
    const std::pair<size_t, bool> sizes[] = {
        {kRotateSize - 1, false}, {kRotateSize, false}, {kRotateSize, true}};
    char fill = 'a';
    for (const auto &[size, held] : sizes) {
        SCOPED_TRACE(fill);
        const std::string old(size, fill++);
        const bool rotated = size >= kRotateSize;
        write_file(log_, old);
        FILE *stream = held ? fopen(log_.c_str(), "a") : nullptr;
        if (stream) fseek(stream, 0, SEEK_END);
        EXPECT_NE(log_once("next", log_.c_str(), stream).slot, nullptr);
        const std::string kept = rotated ? "" : old, file = read_file(log_);
        EXPECT_EQ(file.substr(0, kept.size()), kept);
        EXPECT_TRUE(is_line(file.substr(kept.size()), "next"));
        EXPECT_EQ(read_file(log_ + ".1"), rotated ? old : "");
    }
}

TEST_F(DebugLogTest, UnseekableStreamInTheSlotIsUsedAndNeverRotated) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);  // a line that went elsewhere must not block the read
    FILE *pipe_stream = fdopen(fds[1], "w");
    EXPECT_EQ(log_once("through a pipe", log_.c_str(), pipe_stream).slot, pipe_stream);
    char buffer[256] = {};
    ASSERT_GT(read(fds[0], buffer, sizeof buffer - 1), 0);
    close(fds[0]);
    EXPECT_TRUE(is_line(buffer, "through a pipe"));
    EXPECT_FALSE(fs::exists(log_));
}

TEST_F(DebugLogTest, LinksMissingAndForeignDirectoriesAreRefused) {
    const std::string target = dir_ + "/target", real_dir = dir_ + "/real";
    write_file(target, "keep");
    fs::create_directory(real_dir);
    ASSERT_EQ(symlink(target.c_str(), log_.c_str()), 0);
    ASSERT_EQ(symlink(real_dir.c_str(), (dir_ + "/linked").c_str()), 0);
    for (const std::string &path : {log_, dir_ + "/linked/x.log", dir_ + "/missing/x.log"})
        expect_refused(path);
    EXPECT_EQ(read_file(target), "keep");
    EXPECT_TRUE(fs::is_empty(real_dir));
    EXPECT_FALSE(fs::exists(dir_ + "/missing"));

    if (geteuid() != 0) GTEST_SKIP() << "needs root to hand a directory to another user";
    const std::string foreign = dir_ + "/foreign";
    fs::create_directory(foreign);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    expect_refused(foreign + "/x.log");
    EXPECT_TRUE(fs::is_empty(foreign));
}

TEST_F(DebugLogTest, PathsUpTo511CharactersAreHandledInFull) {
    std::string path = dir_;
    while (511 - path.size() > 200) {
        path += "/" + std::string(150, 'd');
        fs::create_directory(path);
    }
    path += "/" + std::string(511 - path.size() - 1, 'f');
    ASSERT_EQ(path.size(), 511u);
    write_file(path, std::string(kRotateSize, 'x'));
    obs_log_file_set(path.c_str());
    EXPECT_NE(log_once("long path").slot, nullptr);
    EXPECT_EQ(read_file(path + ".1").size(), kRotateSize);
    EXPECT_TRUE(is_line(read_file(path), "long path"));
    expect_refused(path + "g");
    EXPECT_FALSE(fs::exists(path + "g"));
}

std::atomic<int> callback_calls;

TEST_F(DebugLogTest, ConcurrentCallersLoseNoLineWhileSettingsChange) {
    constexpr int kThreads = 4, kMessages = 100;
    const std::string other = dir_ + "/other.log";
    std::atomic<bool> done{false};
    testing::internal::CaptureStdout();
    std::thread toggler([&] {
        const obs_log_callback count = [](int, const char *) { return ++callback_calls; };
        for (int i = 0; !done; ++i) {
            obs_log_file_set(i % 2 ? other.c_str() : log_.c_str());
            obs_log_callback_set(i % 3 ? nullptr : count);
        }
    });
    std::vector<std::thread> writers(kThreads);
    for (auto &writer : writers) {
        writer = std::thread([] {
            for (int i = 0; i < kMessages; ++i) {
                FILE *slot = nullptr;
                obs_debug_log_to_file("concurrent", &slot, OBS_DEBUG_LOG_DEFAULT_PATH);
                if (slot) fclose(slot);
            }
        });
    }
    for (auto &writer : writers) writer.join();
    done = true;
    toggler.join();
    obs_log_callback_set(nullptr);
    const std::string out = testing::internal::GetCapturedStdout();

    auto lines = [](const std::string &s) { return std::count(s.begin(), s.end(), '\n'); };
    EXPECT_EQ(lines(out) + callback_calls, kThreads * kMessages);
    EXPECT_EQ(lines(read_file(log_)) + lines(read_file(other)), lines(out));
}

}  // namespace
