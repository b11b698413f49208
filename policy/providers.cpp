// The channel's own policy SDK provider records (the default template and the plain monitor) and
// the operations every provider shares. The records are process-wide and writable: the setters
// write hooks into them for every context at once. Providers of a policy SDK live with that SDK.
#include <cstdlib>
#include <cstring>

#include "policy/builtin_provider.h"

namespace {

obs_sdk_policy_provider default_template =
    obs::builtin_provider(OBS_POLICY_PROVIDER_DEFAULT, "", nullptr, obs_policy_free);
obs_sdk_policy_provider monitor_provider =
    obs::builtin_provider(OBS_POLICY_PROVIDER_MONITOR, "monitor", nullptr, obs_policy_free);

obs_sdk_policy_provider *provider_of(obs_policy_ctx *ctx) {
    return ctx ? ctx->provider : nullptr;
}

}  // namespace

extern "C" {

obs_sdk_policy_provider *obs_get_monitor_sdk_policy_provider(void) {
    return &monitor_provider;
}

obs_sdk_policy_provider *obs_create_default_sdk_policy_provider(const char *name) {
    if (!obs_valid_name(name)) return nullptr;
    auto *provider =
        static_cast<obs_sdk_policy_provider *>(malloc(sizeof(obs_sdk_policy_provider)));
    char *own_name = strdup(name);
    if (!provider || !own_name) {
        free(provider);
        free(own_name);
        return nullptr;
    }
    *provider = default_template;
    provider->name = own_name;
    return provider;
}

obs_policy_ctx *obs_policy_init(void *user_ctx, const char *service_name) {
    if (!obs_valid_name(service_name)) return nullptr;
    auto *ctx = static_cast<obs_policy_ctx *>(calloc(1, sizeof(obs_policy_ctx)));
    char *own_name = strdup(service_name);
    if (!ctx || !own_name) {
        free(ctx);
        free(own_name);
        return nullptr;
    }
    ctx->user_ctx = user_ctx;
    ctx->service_name = own_name;
    return ctx;
}

void obs_policy_set_policy_translator(obs_policy_ctx *ctx, obs_policy_translator_fn fn) {
    if (obs_sdk_policy_provider *provider = provider_of(ctx)) provider->policy_translator = fn;
}

void obs_policy_set_dispatch_translator(obs_policy_ctx *ctx, obs_policy_dispatch_translator_fn fn) {
    if (obs_sdk_policy_provider *provider = provider_of(ctx)) provider->dispatch_translator = fn;
}

void obs_policy_set_free(obs_policy_ctx *ctx, obs_policy_free_fn fn) {
    if (obs_sdk_policy_provider *provider = provider_of(ctx)) provider->free = fn;
}

void obs_set_lock_api(void *) {}

void obs_set_tls_api(void *) {}

}  // extern "C"
