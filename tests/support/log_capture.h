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
struct line_capture {
    std::mutex lock;
    std::vector<std::string> lines;
};

inline line_capture &capture() {
    static line_capture instance;
    return instance;
}

inline std::vector<std::string> captured_lines() {
    std::lock_guard<std::mutex> hold(capture().lock);
    return capture().lines;
}

inline void clear_captured_lines() {
    std::lock_guard<std::mutex> hold(capture().lock);
    capture().lines.clear();
}

inline int capture_line(int, const char *line) {
    std::lock_guard<std::mutex> hold(capture().lock);
    capture().lines.emplace_back(line);
    return 0;
}

// Fixture whose tests see the lines logged since SetUp in lines().
class LogCaptureTest : public testing::Test {
  protected:
    void SetUp() override {
        clear_captured_lines();
        obs_log_callback_set(capture_line);
    }
    void TearDown() override { obs_log_callback_set(nullptr); }
    static std::vector<std::string> lines() { return captured_lines(); }
    // The lines with the source line number of an "operation:line " or "[OBS_API operation:line]"
    // prefix written as "N", so a test can state them whole without depending on where the code
    // stands; only the lines that begin with operation when one is named.
    static std::vector<std::string> unnumbered_lines(const std::string &operation = "") {
        static const std::regex location("^(\\[OBS_API )?([A-Za-z_][A-Za-z0-9_]*):[0-9]+([ \\]])");
        std::vector<std::string> unnumbered;
        for (const std::string &line : captured_lines()) {
            if (!operation.empty() && line.compare(0, operation.size() + 1, operation + ":") != 0)
                continue;
            unnumbered.push_back(std::regex_replace(line, location, "$1$2:N$3",
                                                    std::regex_constants::format_first_only));
        }
        return unnumbered;
    }
};

}  // namespace obs_test

#endif
