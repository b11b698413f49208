// Loading and binding the library. The load failures run in processes of their own, each with
// its library (or none) first on the loader's path; OBS_TEST_LACKING names what it lacks.
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
    EXPECT_EQ(_otelc_set_uint64_t_attr, nullptr);  // the provider does not use it
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
        EXPECT_EQ(
            obs_ctx_init("svc", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider()),
            nullptr);
        EXPECT_EQ(dlopen("libopentelemetry-c.so", RTLD_LAZY | RTLD_NOLOAD), nullptr);
        EXPECT_EQ(_otelc_init_tracer_provider_ctx, nullptr);  // bound before the missing one
        void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
        ASSERT_EQ(dlsym(library, lacking), nullptr);
        EXPECT_EQ(obs_test::captured_lines().size(), 2u);
        EXPECT_EQ(obs_test::captured_lines().back(),
                  std::string("ot lib api load error: ") + lacking + " " + dlerror());
        dlclose(library);
    }
}

}  // namespace sdk_ot_test
