// The built-in provider suites start from the recording stand-in (its directory first on
// LD_LIBRARY_PATH) and an SDK context "svc" with a scope "lib" 1.2, calls and log cleared.
#ifndef OBS_TESTS_SDK_OT_SDK_OT_TEST_H
#define OBS_TESTS_SDK_OT_SDK_OT_TEST_H

#include <dlfcn.h>

#include <cstring>
#include <sstream>

#include "support/log_capture.h"
#include "support/otelc_standin/otelc_standin.h"

namespace sdk_ot_test {

using Lines = std::vector<std::string>;

// A control function of the stand-in, looked up in the library the provider loads.
#define STANDIN(f) \
    reinterpret_cast<decltype(f) *>(dlsym(dlopen("libopentelemetry-c.so", RTLD_LAZY), #f))

class SdkOtTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ASSERT_TRUE(STANDIN(otelc_standin_reset)) << "no stand-in first on LD_LIBRARY_PATH";
        STANDIN(otelc_standin_reset)();
        ctx_ = sdk_ot_init(nullptr, "svc");
        scope_ = sdk_ot_scope_create(ctx_, "lib", "1.2", OBS_SAMPLING_ALL_ON);
        obs_key_value_add_int(&attrs_, "n", 7);
        obs_test::clear_captured_lines();
    }
    // In the order obs_ctx_destroy uses; nothing the library made may outlive its holders.
    void TearDown() override {
        sdk_ot_free(ctx_);
        sdk_ot_scope_free(scope_);
        obs_key_value_free(attrs_);
        for (const char *kind : {"map", "tp", "lp", "mp", "inst", "span"})
            EXPECT_EQ(STANDIN(otelc_standin_live)(kind), 0) << kind;
        LogCaptureTest::TearDown();
    }
    // The calls since the last reset or forgetting read whose names begin with prefix.
    static Lines recorded(const std::string &prefix, bool forget = false) {
        char *text = STANDIN(otelc_standin_calls)(forget);
        std::istringstream all(text);
        free(text);
        Lines found;
        for (std::string line; std::getline(all, line);)
            if (!line.rfind(prefix, 0)) found.push_back(line);
        return found;
    }
    // All of them, each ended by '\n', forgotten.
    static std::string take() {
        std::string text;
        for (const std::string &line : recorded("", true)) text += line + '\n';
        return text;
    }
    static std::string last(const std::string &p = "") {
        const Lines found = recorded(p);
        return found.empty() ? "" : found.back();
    }
    static void fail(const char *function, int calls = 1, int result = 0) {
        STANDIN(otelc_standin_fail)(function, calls, result);
    }
    void span(scope_ctx *scope) {
        sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope, "s"), -1, nullptr);
    }

    sdk_ot_ctx *ctx_ = nullptr;
    scope_ctx *scope_ = nullptr;
    obs_key_value *attrs_ = nullptr;  // n=7
};

}  // namespace sdk_ot_test

#endif
