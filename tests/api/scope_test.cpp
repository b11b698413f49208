// Scopes: lookup by name and version, and policies applied by service and scope name.
#include "api/api_test.h"

namespace api_test {

using ScopeTest = ApiTest;

TEST_F(ScopeTest, ALookupMatchesTheVersionOnlyWhenAskedAndTakesTheNewSampling) {
    obs_scope *a = obs_scope_create(ctx_, "a", "1", OBS_SAMPLING_ALL_ON, 3);
    EXPECT_EQ(obs_scope_create(ctx_, "a", "1", OBS_SAMPLING_ALL_ON, 3), a);
    EXPECT_EQ(obs_scope_create(ctx_, "a", nullptr, OBS_SAMPLING_ALL_OFF, 4), a);
    EXPECT_EQ(a->default_sampling, obs_sampling{OBS_SAMPLING_ALL_OFF});
    obs_scope *b = obs_scope_create(ctx_, "b", nullptr, OBS_SAMPLING_ALL_ON, 2);
    EXPECT_NE(obs_scope_create(ctx_, "b", "1", OBS_SAMPLING_ALL_ON, 2), b);
    EXPECT_EQ(sdk_.calls(),
              (Lines{"scope_create a 1 2", "scope_create b - 2", "scope_create b 1 2"}));
}

TEST_F(ScopeTest, PoliciesReachTheNamedScopesOfTheMatchingContexts) {
    obs_ctx *other = obs_ctx_init("svc2", sdk_.table(), ipc_.table());
    obs_scope_create(ctx_, "net", nullptr, OBS_SAMPLING_ALL_ON, 3);
    obs_policy_ot net4 = entry("net", 2, 4), unnamed = entry(nullptr, 1, 0), all = entry("*", 1, 0);
    all.next = &unnamed;
    unnamed.next = &net4;
    obs_test::clear_captured_lines();
    obs_scope_set_policy_by_name("svc", nullptr, 3, &all);  // the last matching entry decides
    obs_scope_set_policy_by_name("svc", "net", 2, &net4);   // op 2 resets
    obs_scope_set_policy_by_name("*", nullptr, 0, nullptr);
    const std::string applied = "---ot policy applied-->service=svc",
                      reset = "---ot policy reset-->";
    EXPECT_EQ(obs_test::captured_lines(),
              (Lines{applied + " scope=default sampling=[all:off] log_level=0 op=3",
                     applied + " scope=net sampling=[all:off] log_level=0 op=3",
                     applied + " scope=net sampling=[all:on] log_level=4 op=3",
                     applied + " scope=net sampling=[all:on] log_level=3 op=2",
                     reset + "service=svc scope=default sampling=[all:on] log_level=2 op=0",
                     reset + "service=svc scope=net sampling=[all:on] log_level=3 op=0",
                     reset + "service=svc2 scope=default sampling=[all:on] log_level=2 op=0"}));
    obs_ctx_destroy(other);
}

}  // namespace api_test
