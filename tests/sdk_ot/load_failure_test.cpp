// What the provider does when the library is missing or lacks a function. Each case runs in a
// process of its own, with the library the case needs (or none) on the loader's path; the
// function the library lacks is named by OBS_TEST_LACKING.
#include <cstdlib>

#include "observability_ipc_mem.h"
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using LoadFailureTest = obs_test::LogCaptureTest;

TEST_F(LoadFailureTest, MissingLibraryFailsTheContextWithOneLine) {
    obs_ctx *ctx =
        obs_ctx_init("svc", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider());
    EXPECT_EQ(ctx, nullptr);
    ASSERT_EQ(dlopen("libopentelemetry-c.so", RTLD_LAZY), nullptr);
    EXPECT_EQ(lines(), Lines{std::string("Error loading ot library: ") + dlerror()});
    EXPECT_EQ(obs_info_list, nullptr);
}

TEST_F(LoadFailureTest, LibraryLackingAFunctionIsClosedAgainAndBindsNothing) {
    const char *lacking = getenv("OBS_TEST_LACKING");
    ASSERT_NE(lacking, nullptr);
    for (int attempt = 0; attempt < 2; ++attempt) {
        obs_test::clear_captured_lines();
        EXPECT_EQ(sdk_ot_init(nullptr, "svc"), nullptr);
        // Closed again: the loader no longer holds it.
        EXPECT_EQ(dlopen("libopentelemetry-c.so", RTLD_LAZY | RTLD_NOLOAD), nullptr);
        for (const Global &global : globals())
            EXPECT_EQ(*global.pointer, nullptr) << global.function;
        const Lines logged = lines();
        ASSERT_EQ(logged.size(), 2u);
        EXPECT_TRUE(
            std::regex_match(logged[0], std::regex("ot libopentelemetry-c.so loaded: 0x[0-9a-f]+")))
            << logged[0];
        void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
        ASSERT_NE(library, nullptr);
        EXPECT_EQ(dlsym(library, lacking), nullptr);
        EXPECT_EQ(logged[1], std::string("ot lib api load error: ") + lacking + " " + dlerror());
        dlclose(library);
    }
    EXPECT_EQ(
        obs_ctx_init("svc", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider()),
        nullptr);
}

}  // namespace sdk_ot_test
