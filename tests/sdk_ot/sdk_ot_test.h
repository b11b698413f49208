// Where the built-in provider suites start: the recording stand-in that the provider loads (its
// directory is first on LD_LIBRARY_PATH), driven through its control functions, and an SDK
// context "svc" with a scope "lib" 1.2, the stand-in's calls and the log cleared.
#ifndef OBS_TESTS_SDK_OT_SDK_OT_TEST_H
#define OBS_TESTS_SDK_OT_SDK_OT_TEST_H

#include <dlfcn.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/otelc_standin/otelc_standin.h"

namespace sdk_ot_test {

using Lines = std::vector<std::string>;

// The stand-in's control functions, looked up in the library the provider loads.
class Standin {
  public:
    Standin() : library_(dlopen("libopentelemetry-c.so", RTLD_LAZY)) {
        if (!library_) return;
        calls_ = reinterpret_cast<otelc_standin_calls_fn>(dlsym(library_, "otelc_standin_calls"));
        reset_ = reinterpret_cast<otelc_standin_reset_fn>(dlsym(library_, "otelc_standin_reset"));
        fail_ = reinterpret_cast<otelc_standin_fail_fn>(dlsym(library_, "otelc_standin_fail"));
        live_ = reinterpret_cast<otelc_standin_live_fn>(dlsym(library_, "otelc_standin_live"));
    }
    bool loaded() const { return calls_ && reset_ && fail_ && live_; }
    void *library() const { return library_; }

    // The calls recorded since the last reset or take.
    Lines calls() const { return read(false); }
    // The same, forgotten after this read.
    Lines take_calls() const { return read(true); }
    // The calls of the functions whose names begin with prefix.
    Lines calls(const std::string &prefix) const {
        Lines found;
        for (const std::string &call : calls())
            if (call.rfind(prefix, 0) == 0) found.push_back(call);
        return found;
    }
    void reset() const { reset_(); }
    void fail(const char *function, int calls = -1, int result = 0) const {
        fail_(function, calls, result);
    }
    int live(const char *kind) const { return live_(kind); }

  private:
    Lines read(bool forget) const {
        char *text = calls_(forget);
        Lines lines;
        std::istringstream in(text ? text : "");
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        free(text);
        return lines;
    }

    void *library_;
    otelc_standin_calls_fn calls_ = nullptr;
    otelc_standin_reset_fn reset_ = nullptr;
    otelc_standin_fail_fn fail_ = nullptr;
    otelc_standin_live_fn live_ = nullptr;
};

inline const Standin &standin() {
    static const Standin instance;
    return instance;
}

// Every exported binding pointer, in the order sdk_ot_init binds the first 27.
struct Global {
    const char *function;
    void **pointer;
};
#define SDK_OT_TEST_GLOBAL(function) \
    { #function, reinterpret_cast < void **>(&_##function) }
inline const std::vector<Global> &globals() {
    static const std::vector<Global> all = {
        SDK_OT_TEST_GLOBAL(otelc_init_tracer_provider_ctx),
        SDK_OT_TEST_GLOBAL(otelc_cleanup_tracer_provider_ctx),
        SDK_OT_TEST_GLOBAL(otelc_init_logger_provider_ctx),
        SDK_OT_TEST_GLOBAL(otelc_cleanup_logger_provider_ctx),
        SDK_OT_TEST_GLOBAL(otelc_init_metrics_provider_ctx),
        SDK_OT_TEST_GLOBAL(otelc_cleanup_metrics_provider_ctx),
        SDK_OT_TEST_GLOBAL(otelc_get_tracer),
        SDK_OT_TEST_GLOBAL(otelc_get_logger),
        SDK_OT_TEST_GLOBAL(otelc_get_meter),
        SDK_OT_TEST_GLOBAL(otelc_set_trace_instrumentationscope_attrs),
        SDK_OT_TEST_GLOBAL(otelc_set_logger_instrumentationscope_attrs),
        SDK_OT_TEST_GLOBAL(otelc_set_metrics_instrumentationscope_attrs),
        SDK_OT_TEST_GLOBAL(otelc_log_with_ctx),
        SDK_OT_TEST_GLOBAL(otelc_start_span_with_tracer),
        SDK_OT_TEST_GLOBAL(otelc_create_attr_map),
        SDK_OT_TEST_GLOBAL(otelc_set_bool_attr),
        SDK_OT_TEST_GLOBAL(otelc_set_int64_t_attr),
        SDK_OT_TEST_GLOBAL(otelc_set_double_attr),
        SDK_OT_TEST_GLOBAL(otelc_set_str_attr),
        SDK_OT_TEST_GLOBAL(otelc_destroy_attr_map),
        SDK_OT_TEST_GLOBAL(otelc_set_span_attrs),
        SDK_OT_TEST_GLOBAL(otelc_end_span),
        SDK_OT_TEST_GLOBAL(otelc_set_span_status),
        SDK_OT_TEST_GLOBAL(otelc_create_metrics_inst_from_meter),
        SDK_OT_TEST_GLOBAL(otelc_metrics_inst_add_int64_attrs),
        SDK_OT_TEST_GLOBAL(otelc_metrics_inst_add_double_attrs),
        SDK_OT_TEST_GLOBAL(otelc_destroy_metrics_inst),
        SDK_OT_TEST_GLOBAL(otelc_add_span_event),
        SDK_OT_TEST_GLOBAL(otelc_create_int64_up_down_counter),
        SDK_OT_TEST_GLOBAL(otelc_destroy_up_down_counter),
        SDK_OT_TEST_GLOBAL(otelc_get_trace_from_ctx),
        SDK_OT_TEST_GLOBAL(otelc_set_int32_t_attr),
        SDK_OT_TEST_GLOBAL(otelc_set_trace_to_ctx),
        SDK_OT_TEST_GLOBAL(otelc_set_uint64_t_attr)};
    return all;
}
constexpr size_t kBoundGlobals = 27;

// The "ot libopentelemetry-c.so loaded: %p" line of a library handle.
inline std::string loaded_line(void *handle) {
    char line[64];
    snprintf(line, sizeof line, "ot libopentelemetry-c.so loaded: %p", handle);
    return line;
}

// Log lines with the line number of "[SDK_OT_CPP operation:line]" written as "N".
inline Lines unnumbered(const Lines &lines) {
    static const std::regex number("^(\\[SDK_OT_CPP \\w+):[0-9]+\\]");
    Lines out;
    for (const std::string &line : lines) out.push_back(std::regex_replace(line, number, "$1:N]"));
    return out;
}

// Owns an attribute list for one test.
struct Attrs {
    obs_key_value *list = nullptr;
    ~Attrs() { obs_key_value_free(list); }
};

class SdkOtTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ASSERT_TRUE(standin().loaded()) << "the stand-in is not first on LD_LIBRARY_PATH";
        standin().reset();
        ctx_ = sdk_ot_init(nullptr, "svc");
        scope_ = sdk_ot_scope_create(ctx_, "lib", "1.2", OBS_SAMPLING_ALL_ON);
        ASSERT_TRUE(ctx_ && scope_);
        obs_test::clear_captured_lines();
    }
    // In the order obs_ctx_destroy uses; no map may outlive its holders.
    void TearDown() override {
        sdk_ot_free(ctx_);
        sdk_ot_scope_free(scope_);
        EXPECT_EQ(standin().live("map"), 0);
        LogCaptureTest::TearDown();
    }
    static Lines calls() { return standin().calls(); }
    static Lines calls(const std::string &prefix) { return standin().calls(prefix); }
    // Forgets the calls so far; handles keep their names.
    static void clear() { standin().take_calls(); }

    sdk_ot_ctx *ctx_ = nullptr;
    scope_ctx *scope_ = nullptr;
};

}  // namespace sdk_ot_test

#endif
