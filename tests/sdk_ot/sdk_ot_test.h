// Where the built-in provider suites start: the recording stand-in the provider loads (its
// directory first on LD_LIBRARY_PATH), driven through its control functions, and an SDK context
// "svc" with a scope "lib" 1.2, with the stand-in's calls and the log cleared.
#ifndef OBS_TESTS_SDK_OT_SDK_OT_TEST_H
#define OBS_TESTS_SDK_OT_SDK_OT_TEST_H

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/otelc_standin/otelc_standin.h"

namespace sdk_ot_test {

using Lines = std::vector<std::string>;

// A control function of the stand-in, looked up in the library the provider loads.
template <typename Function>
Function *standin(const char *name) {
    static void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
    return reinterpret_cast<Function *>(library ? dlsym(library, name) : nullptr);
}
#define STANDIN(function) standin<decltype(function)>(#function)

// The calls recorded since the last reset or forgetting read of the functions whose names begin
// with prefix, each ended by '\n'.
inline std::string calls(const std::string &prefix = "", bool forget = false) {
    char *text = STANDIN(otelc_standin_calls)(forget);
    std::string found;
    for (char *line = text, *end; *line; line = end) {
        end = strchr(line, '\n') + 1;
        if (!strncmp(line, prefix.c_str(), prefix.size())) found.append(line, end);
    }
    free(text);
    return found;
}
inline std::string take() {
    return calls("", true);
}
inline size_t count(const std::string &prefix) {
    const std::string found = calls(prefix);
    return static_cast<size_t>(std::count(found.begin(), found.end(), '\n'));
}
// The last of those calls, without its '\n'.
inline std::string last(const std::string &prefix = "") {
    const std::string found = "\n" + calls(prefix);
    const size_t start = found.rfind('\n', found.size() - 2) + 1;
    return found.substr(start, found.size() - start - 1);
}
inline void fail(const char *function, int calls = 1, int result = 0) {
    STANDIN(otelc_standin_fail)(function, calls, result);
}

// Owns an attribute list for one test, n=7 to begin with.
struct Attrs {
    obs_key_value *list = nullptr;
    Attrs() { obs_key_value_add_int(&list, "n", 7); }
    ~Attrs() { obs_key_value_free(list); }
};

class SdkOtTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ASSERT_TRUE(STANDIN(otelc_standin_reset)) << "no stand-in first on LD_LIBRARY_PATH";
        STANDIN(otelc_standin_reset)();
        ctx_ = sdk_ot_init(nullptr, "svc");
        scope_ = sdk_ot_scope_create(ctx_, "lib", "1.2", OBS_SAMPLING_ALL_ON);
        ASSERT_TRUE(ctx_ && scope_);
        obs_test::clear_captured_lines();
    }
    // In the order obs_ctx_destroy uses; no map may outlive its holders.
    void TearDown() override {
        sdk_ot_free(ctx_);
        sdk_ot_scope_free(scope_);
        EXPECT_EQ(STANDIN(otelc_standin_live)("map"), 0);
        LogCaptureTest::TearDown();
    }
    void span(scope_ctx *scope) {
        sdk_ot_span_end(sdk_ot_span_start(ctx_, nullptr, scope, "s"), -1, nullptr);
    }

    sdk_ot_ctx *ctx_ = nullptr;
    scope_ctx *scope_ = nullptr;
};

}  // namespace sdk_ot_test

#endif
