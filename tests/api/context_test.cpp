// Contexts: a refused creation registers nothing and releases what the provider made.
#include "api/api_test.h"

namespace api_test {

using ContextTest = ApiTest;

static Lines services() {
    Lines names;
    for (const obs_info_node *n = obs_info_list; n; n = n->next) names.push_back(n->ctx->name);
    return names;
}

TEST_F(ContextTest, RefusedCreationsRegisterNothingAndFreeWhatTheProviderMade) {
    const char *names[] = {nullptr, "", "fails", "x{y}"};  // braces: the policy context refuses
    const Lines calls[] = {{}, {}, {"init fails"}, {"init x{y}", "free ctx:x{y}"}};
    for (int i = 0; i < 4; ++i) {
        obs_test::RecordingProvider sdk;
        sdk.fail_init = i == 2;
        EXPECT_EQ(obs_ctx_init(names[i], sdk.table(), ipc_.table()), nullptr);
        EXPECT_EQ(sdk.calls(), calls[i]);
    }
    EXPECT_EQ(obs_ctx_init("x", nullptr, ipc_.table()), nullptr);
    EXPECT_EQ(obs_ctx_init("x", sdk_.table(), nullptr), nullptr);
    EXPECT_EQ(services(), Lines{"svc"});
}

}  // namespace api_test
