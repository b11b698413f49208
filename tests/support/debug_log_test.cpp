#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "observability_api.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kRotateSize = OBS_DEBUG_LOG_ROTATE_SIZE;
const char *const kStamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})";

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

bool is_file_line(const std::string &text, const std::string &plain_msg) {
    return std::regex_match(
        text, std::regex(std::string("^") + kStamp + R"( \[\d+\] )" + plain_msg + "\n"));
}

struct logged {
    int result;
    bool stream_left;  // the slot held a stream afterwards
    std::string out;   // what reached standard output
};

// Logs one message the way every caller does: a fresh slot, closed afterwards.
logged log_once(const char *msg, const char *default_path = OBS_DEBUG_LOG_DEFAULT_PATH) {
    FILE *slot = nullptr;
    testing::internal::CaptureStdout();
    int result = obs_debug_log_to_file(msg, &slot, default_path);
    logged l{result, slot != nullptr, testing::internal::GetCapturedStdout()};
    if (slot) fclose(slot);
    return l;
}

std::atomic<int> callback_calls;
int callback_first_arg = -1;
std::string callback_text;

int record_callback(int first, const char *text) {
    callback_first_arg = first;
    callback_text = text;
    return ++callback_calls + 100;
}

int count_callback(int, const char *) {
    return ++callback_calls;
}

class DebugLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/obs_debug_log_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        log_ = dir_ + "/test.log";
        obs_log_file_set(log_.c_str());
        callback_calls = 0;
    }
    void TearDown() override {
        obs_log_file_set(nullptr);
        obs_log_callback_set(nullptr);
        fs::remove_all(dir_);
    }
    std::string dir_, log_;
};

TEST_F(DebugLogTest, CallbackDivertsEverythingAndLeavesTheSlotAlone) {
    obs_log_callback_set(record_callback);
    FILE *caller_stream = tmpfile();
    FILE *slot = caller_stream;
    testing::internal::CaptureStdout();
    EXPECT_EQ(obs_debug_log_to_file("to the host", &slot, log_.c_str()), 101);
    FILE *empty = nullptr;
    EXPECT_EQ(obs_debug_log_to_file(nullptr, &empty, log_.c_str()), 102);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(callback_calls, 2);
    EXPECT_EQ(callback_first_arg, 0);
    EXPECT_EQ(callback_text, "");
    EXPECT_EQ(slot, caller_stream);
    EXPECT_EQ(ftell(caller_stream), 0);
    EXPECT_EQ(empty, nullptr);
    EXPECT_FALSE(fs::exists(log_));
    fclose(caller_stream);

    obs_log_callback_set(nullptr);
    EXPECT_TRUE(log_once("back to the file").stream_left);
    EXPECT_EQ(callback_calls, 2);
}

TEST_F(DebugLogTest, FileSettingOverridesTheDefaultPathUntilCleared) {
    std::string fallback = dir_ + "/default.log";
    log_once("first", fallback.c_str());
    EXPECT_TRUE(is_file_line(read_file(log_), "first"));
    EXPECT_FALSE(fs::exists(fallback));

    obs_log_file_set(nullptr);
    log_once("second", fallback.c_str());
    EXPECT_TRUE(is_file_line(read_file(fallback), "second"));
    EXPECT_TRUE(is_file_line(read_file(log_), "first"));
}

TEST_F(DebugLogTest, LinesCarryStampThreadIdAndMessage) {
    int tid = 0;
    long kernel_tid = 0;
    logged l{};
    std::thread writer([&] {
        tid = obs_gettid();
        kernel_tid = syscall(SYS_gettid);
        l = log_once("hello [world] %s");
    });
    writer.join();
    EXPECT_EQ(tid, kernel_tid);
    EXPECT_NE(tid, obs_gettid());

    std::smatch m;
    std::string file = read_file(log_);
    ASSERT_TRUE(std::regex_match(
        file, m, std::regex(std::string("^(") + kStamp + R"() \[(\d+)\] hello \[world\] %s\n$)")));
    EXPECT_EQ(m[1].length(), 19);
    EXPECT_EQ(std::stoi(m[2]), tid);
    EXPECT_EQ(l.out, m[1].str() + " hello [world] %s\n");
    EXPECT_EQ(l.result, static_cast<int>(l.out.size()));
}

TEST_F(DebugLogTest, NullMessageAndNullSlotAreTolerated) {
    logged l = log_once(nullptr);
    EXPECT_TRUE(is_file_line(read_file(log_), ""));
    EXPECT_TRUE(std::regex_match(l.out, std::regex(std::string("^") + kStamp + " \n")));

    testing::internal::CaptureStdout();
    int result = obs_debug_log_to_file("no slot", nullptr, log_.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, static_cast<int>(out.size()));
    EXPECT_TRUE(std::regex_match(out, std::regex(std::string("^") + kStamp + " no slot\n")));
    EXPECT_TRUE(is_file_line(read_file(log_), ""));
}

TEST_F(DebugLogTest, FileOneByteShortOfTheLimitIsNotRotated) {
    std::string old(kRotateSize - 1, 'a');
    write_file(log_, old);
    log_once("next");
    EXPECT_FALSE(fs::exists(log_ + ".1"));
    std::string file = read_file(log_);
    EXPECT_EQ(file.substr(0, old.size()), old);
    EXPECT_TRUE(is_file_line(file.substr(old.size()), "next"));
}

TEST_F(DebugLogTest, EachRotationAtTheLimitReplacesTheBackup) {
    for (char fill : {'a', 'b'}) {
        std::string old(kRotateSize, fill);
        write_file(log_, old);
        EXPECT_TRUE(log_once("fresh").stream_left);
        EXPECT_EQ(read_file(log_ + ".1"), old);
        EXPECT_TRUE(is_file_line(read_file(log_), "fresh"));
    }
}

TEST_F(DebugLogTest, StreamInTheSlotIsWrittenToAndReplacedWhenRotated) {
    FILE *slot = nullptr;
    obs_debug_log_to_file("opened", &slot, log_.c_str());
    ASSERT_NE(slot, nullptr);
    FILE *opened = slot;
    EXPECT_TRUE(is_file_line(read_file(log_), "opened"));  // line-buffered: no fclose needed
    obs_debug_log_to_file("reused", &slot, log_.c_str());
    EXPECT_EQ(slot, opened);
    fclose(slot);
    std::string both = read_file(log_);
    EXPECT_TRUE(is_file_line(both.substr(both.find('\n') + 1), "reused"));

    std::string old(kRotateSize, 'c');
    write_file(log_, old);
    slot = fopen(log_.c_str(), "a");
    fseek(slot, 0, SEEK_END);
    obs_debug_log_to_file("after rotation", &slot, log_.c_str());
    ASSERT_NE(slot, nullptr);
    fclose(slot);
    EXPECT_EQ(read_file(log_ + ".1"), old);
    EXPECT_TRUE(is_file_line(read_file(log_), "after rotation"));
}

TEST_F(DebugLogTest, UnseekableCallerStreamIsNeverRotated) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE *pipe_stream = fdopen(fds[1], "w");
    FILE *slot = pipe_stream;
    obs_debug_log_to_file("through a pipe", &slot, log_.c_str());
    EXPECT_EQ(slot, pipe_stream);
    fclose(slot);
    char buffer[256] = {};
    ASSERT_GT(read(fds[0], buffer, sizeof buffer - 1), 0);
    close(fds[0]);
    EXPECT_TRUE(is_file_line(buffer, "through a pipe"));
}

TEST_F(DebugLogTest, SymbolicLinksAreNotFollowed) {
    std::string target = dir_ + "/target";
    write_file(target, "keep");
    ASSERT_EQ(symlink(target.c_str(), log_.c_str()), 0);
    logged l = log_once("not through the link");
    EXPECT_FALSE(l.stream_left);
    EXPECT_EQ(read_file(target), "keep");
    EXPECT_FALSE(l.out.empty());

    std::string real_dir = dir_ + "/real", linked_dir = dir_ + "/linked";
    fs::create_directory(real_dir);
    ASSERT_EQ(symlink(real_dir.c_str(), linked_dir.c_str()), 0);
    std::string through_link = linked_dir + "/x.log";
    obs_log_file_set(through_link.c_str());
    EXPECT_FALSE(log_once("not into the linked directory").stream_left);
    EXPECT_TRUE(fs::is_empty(real_dir));
}

TEST_F(DebugLogTest, DirectoryOwnedByAnotherUserIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hand a directory to another user";
    std::string foreign = dir_ + "/foreign";
    fs::create_directory(foreign);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    std::string path = foreign + "/x.log";
    obs_log_file_set(path.c_str());
    EXPECT_FALSE(log_once("refused").stream_left);
    EXPECT_TRUE(fs::is_empty(foreign));
}

TEST_F(DebugLogTest, MissingDirectoryLeavesOnlyStandardOutput) {
    std::string path = dir_ + "/missing/x.log";
    obs_log_file_set(path.c_str());
    logged l = log_once("only here");
    EXPECT_FALSE(l.stream_left);
    EXPECT_TRUE(std::regex_match(l.out, std::regex(std::string("^") + kStamp + " only here\n")));
    EXPECT_EQ(l.result, static_cast<int>(l.out.size()));
    EXPECT_FALSE(fs::exists(dir_ + "/missing"));
}

TEST_F(DebugLogTest, PathsUpTo511CharactersAreHandledInFull) {
    std::string path = dir_;
    while (511 - path.size() > 200) {
        path += "/" + std::string(150, 'd');
        fs::create_directory(path);
    }
    path += "/" + std::string(511 - path.size() - 1, 'f');
    ASSERT_EQ(path.size(), 511u);
    std::string old(kRotateSize, 'x');
    write_file(path, old);
    obs_log_file_set(path.c_str());
    EXPECT_TRUE(log_once("long path").stream_left);
    EXPECT_EQ(read_file(path + ".1"), old);
    EXPECT_TRUE(is_file_line(read_file(path), "long path"));

    std::string too_long = path + "g";
    obs_log_file_set(too_long.c_str());
    EXPECT_FALSE(log_once("too long").stream_left);
    EXPECT_FALSE(fs::exists(too_long));
}

TEST_F(DebugLogTest, ConcurrentCallersLoseNoLineWhileSettingsChange) {
    constexpr int kThreads = 4, kMessages = 100;
    std::string other = dir_ + "/other.log";
    std::atomic<bool> done{false};
    testing::internal::CaptureStdout();
    std::thread toggler([&] {
        for (int i = 0; !done; ++i) {
            obs_log_file_set(i % 2 ? other.c_str() : log_.c_str());
            obs_log_callback_set(i % 3 ? nullptr : count_callback);
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([] {
            for (int i = 0; i < kMessages; ++i) {
                FILE *slot = nullptr;
                obs_debug_log_to_file("concurrent", &slot, OBS_DEBUG_LOG_DEFAULT_PATH);
                if (slot) fclose(slot);
            }
        });
    }
    for (auto &w : writers) w.join();
    done = true;
    toggler.join();
    std::string out = testing::internal::GetCapturedStdout();

    auto lines = [](const std::string &s) { return std::count(s.begin(), s.end(), '\n'); };
    EXPECT_EQ(lines(out) + callback_calls, kThreads * kMessages);
    EXPECT_EQ(lines(read_file(log_)) + lines(read_file(other)), lines(out));
}

}  // namespace
