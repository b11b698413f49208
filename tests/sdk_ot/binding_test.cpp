// Loading and binding the library, the provider table, and the SDK context's life. The loading
// failures run in processes of their own (sdk_ot_load_tests), each with the library it needs (or
// none) first on the loader's path; OBS_TEST_LACKING names the function that library lacks.
#include <cstdlib>

#include "observability_ipc_mem.h"
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using BindingTest = SdkOtTest;
using LoadFailureTest = obs_test::LogCaptureTest;

obs_ctx *service() {
    return obs_ctx_init("svc", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider());
}

TEST_F(BindingTest, EveryInitLogsTwoLinesAndBindsWhatTheProviderUses) {
    sdk_ot_free(sdk_ot_init(nullptr, "svc"));
    void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
    char loaded[64];
    snprintf(loaded, sizeof loaded, "ot libopentelemetry-c.so loaded: %p", library);
    EXPECT_EQ(obs_test::captured_lines(), (Lines{loaded, "ot all api detected"}));
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(reinterpret_cast<void *>(_otelc_destroy_metrics_inst),
              dlsym(library, "otelc_destroy_metrics_inst"));
    EXPECT_EQ(_otelc_set_uint64_t_attr, nullptr);  // the provider does not use it
    dlclose(library);
}

TEST_F(BindingTest, FreeCleansUpWhatFirstUsesMadeThenDestroysTheResourceMaps) {
    Attrs attrs;
    sdk_ot_resource_attrs_set(ctx_, 0, attrs.list);
    span(scope_);
    sdk_ot_span_log(ctx_, nullptr, scope_, 1, "m");
    inst_ctx *inst = sdk_ot_inst_create(2, 1, ctx_, scope_, "c", nullptr);
    sdk_ot_inst_add_int64(inst, 1, nullptr);
    sdk_ot_inst_destroy(inst);
    take();
    sdk_ot_free(ctx_);
    ctx_ = nullptr;
    EXPECT_EQ(calls(),
              "cleanup_tracer_provider_ctx(tp#1)\ncleanup_logger_provider_ctx(lp#1)\n"
              "cleanup_metrics_provider_ctx(mp#1)\ndestroy_attr_map(map#1)\n"
              "destroy_attr_map(map#2)\ndestroy_attr_map(map#3)\n");
}

TEST_F(LoadFailureTest, MissingLibraryFailsTheContextWithOneLine) {
    EXPECT_EQ(service(), nullptr);
    ASSERT_EQ(dlopen("libopentelemetry-c.so", RTLD_LAZY), nullptr);
    EXPECT_EQ(obs_test::captured_lines(),
              Lines{std::string("Error loading ot library: ") + dlerror()});
}

TEST_F(LoadFailureTest, LibraryLackingAFunctionIsClosedAgainAndBindsNothing) {
    const char *lacking = getenv("OBS_TEST_LACKING");
    ASSERT_NE(lacking, nullptr);
    for (int attempt = 0; attempt < 2; ++attempt) {  // each init tries again
        obs_test::clear_captured_lines();
        EXPECT_EQ(service(), nullptr);
        EXPECT_EQ(dlopen("libopentelemetry-c.so", RTLD_LAZY | RTLD_NOLOAD), nullptr);
        EXPECT_EQ(_otelc_init_tracer_provider_ctx, nullptr);  // bound before the missing one
        void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
        ASSERT_EQ(dlsym(library, lacking), nullptr);
        const std::string error =
            std::string("ot lib api load error: ") + lacking + " " + dlerror();
        EXPECT_TRUE(obs_test::captured_lines().size() == 2 &&
                    obs_test::captured_lines()[1] == error)
            << testing::PrintToString(obs_test::captured_lines());
        dlclose(library);
    }
}

}  // namespace sdk_ot_test
