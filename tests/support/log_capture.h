// Test double for the debug log: diverts every line to a list for the length of a test.
#ifndef OBS_TESTS_SUPPORT_LOG_CAPTURE_H
#define OBS_TESTS_SUPPORT_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "observability_api.h"

namespace obs_test {

// Lines may come from the IPC delivery thread while a test reads them.
inline std::mutex capture_lock;
inline std::vector<std::string> capture_list;

inline std::vector<std::string> captured_lines() {
    std::lock_guard hold(capture_lock);
    return capture_list;
}

inline void clear_captured_lines() {
    std::lock_guard hold(capture_lock);
    capture_list.clear();
}

// Fixture whose tests see the lines logged since SetUp in captured_lines().
class LogCaptureTest : public testing::Test {
  protected:
    void SetUp() override {
        clear_captured_lines();
        obs_log_callback_set([](int, const char *line) {
            std::lock_guard hold(capture_lock);
            capture_list.emplace_back(line);
            return 0;
        });
    }
    void TearDown() override { obs_log_callback_set(nullptr); }
    // The lines (of operation only, if named) with the number of an "operation:line " or
    // "[OBS_API operation:line]" (or another tag's) prefix written as "N".
    static std::vector<std::string> unnumbered_lines(const std::string &operation = "") {
        static const std::regex location("^(\\[[A-Z_]+ )?([A-Za-z_]\\w*):[0-9]+([ \\]])");
        std::vector<std::string> unnumbered;
        for (const std::string &line : captured_lines())
            if (operation.empty() || line.rfind(operation + ":", 0) == 0)
                unnumbered.push_back(std::regex_replace(line, location, "$1$2:N$3",
                                                        std::regex_constants::format_first_only));
        return unnumbered;
    }
};

}  // namespace obs_test

#endif
