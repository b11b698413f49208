// Test double for the debug log: diverts every line to a list for the length of a test.
#ifndef OBS_TESTS_SUPPORT_LOG_CAPTURE_H
#define OBS_TESTS_SUPPORT_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "observability_api.h"

namespace obs_test {

inline std::vector<std::string> &captured_lines() {
    static std::vector<std::string> lines;
    return lines;
}

inline int capture_line(int, const char *line) {
    captured_lines().emplace_back(line);
    return 0;
}

// Fixture whose tests see the lines logged since SetUp in captured_lines().
class LogCaptureTest : public testing::Test {
  protected:
    void SetUp() override {
        captured_lines().clear();
        obs_log_callback_set(capture_line);
    }
    void TearDown() override { obs_log_callback_set(nullptr); }
    static const std::vector<std::string> &lines() { return captured_lines(); }
};

}  // namespace obs_test

#endif
