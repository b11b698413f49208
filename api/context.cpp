// Observability contexts: creation binds a service to its telemetry SDK provider and IPC provider,
// registers the context in obs_info_list and creates its policy context and default scope;
// destruction undoes it all in the same order everywhere.
#include <cstdlib>
#include <cstring>

#include "api/api_lock.h"
#include "api/dump_signal.h"
#include "observability/debug_log.h"
#include "observability/instrumentation.h"
#include "observability/policy_channel.h"
#include "support/list.h"

obs_info_node *obs_info_list;

namespace {

constexpr char kDefaultScope[] = "default";
constexpr char kDefaultScopeVersion[] = "1.0";
constexpr int kDefaultLogLevel = 2;

// The first registration in an empty list installs the dump signal. The caller holds the lock.
bool register_context(obs_ctx *ctx) {
    auto *node = static_cast<obs_info_node *>(calloc(1, sizeof(obs_info_node)));
    if (!node) return false;
    node->ctx = ctx;
    if (!obs_info_list) obs::install_dump_signal();
    obs::list_append(&obs_info_list, node);
    return true;
}

// The caller holds the lock; a context that is not in the list is skipped.
void unregister_context(const obs_ctx *ctx) {
    for (obs_info_node **link = &obs_info_list; *link; link = &(*link)->next) {
        if ((*link)->ctx != ctx) continue;
        obs_info_node *node = *link;
        *link = node->next;
        free(node);
        return;
    }
}

void release_scopes(obs_ctx *ctx) {
    const obs_sdk_provider *provider = ctx->sdk_provider;
    obs::list_release(ctx->scopes, [ctx, provider](obs_scope *scope) {
        free(scope->name);
        free(scope->version);
        if (ctx->sdk_ctx && provider->scope_free) {
            provider->scope_free(scope->sdk_scope);
        } else {
            free(scope->sdk_scope);
        }
        obs_policy_ot_sampler_free(scope->default_sampling);
        obs_policy_ot_sampler_free(scope->sampling);
        free(scope);
    });
}

obs_ctx *new_context(const char *service_name, obs_sdk_provider *sdk_provider,
                     obs_ipc_provider *ipc_provider) {
    auto *ctx = static_cast<obs_ctx *>(calloc(1, sizeof(obs_ctx)));
    if (!ctx) return nullptr;
    ctx->name = strdup(service_name);
    if (!ctx->name) {
        free(ctx);
        return nullptr;
    }
    ctx->tid = obs_gettid();
    ctx->ipc_provider = ipc_provider;
    ctx->sdk_provider = sdk_provider;
    return ctx;
}

}  // namespace

extern "C" {

obs_ctx *obs_ctx_init(const char *service_name, obs_sdk_provider *sdk_provider,
                      obs_ipc_provider *ipc_provider) {
    if (!service_name || !*service_name || !sdk_provider || !ipc_provider) return nullptr;
    obs_ctx *ctx = new_context(service_name, sdk_provider, ipc_provider);
    if (!ctx) return nullptr;
    if (sdk_provider->init) ctx->sdk_ctx = sdk_provider->init(ctx, service_name);
    bool registered = false;
    if (ctx->sdk_ctx) {
        obs::api_guard guard;
        registered = register_context(ctx);
    }
    if (!registered) {
        obs_ctx_destroy(ctx);
        return nullptr;
    }
    // Not under the lock: the policy context's IPC calls must never wait behind a delivery
    // thread that waits for the lock in the handler. A policy that arrives meanwhile finds the
    // context registered and sets policy_ctx itself.
    obs_policy_ctx *policy_ctx = obs_policy_ctx_init(
        ctx, service_name, obs_policy_handler, ipc_provider, obs_get_ot_sdk_policy_provider());
    {
        obs::api_guard guard;
        ctx->policy_ctx = policy_ctx;
    }
    if (!policy_ctx) {
        obs_ctx_destroy(ctx);
        return nullptr;
    }
    ctx->default_scope = obs_scope_create(ctx, kDefaultScope, kDefaultScopeVersion,
                                          OBS_SAMPLING_ALL_ON, kDefaultLogLevel);
    return ctx;
}

void obs_ctx_destroy(obs_ctx *ctx) {
    if (!ctx) return;
    obs_policy_ctx *policy_ctx;
    {
        obs::api_guard guard;
        // From here on the policy handler leaves this context alone, and a dump no longer
        // reaches the policy context released below.
        ctx->closing = 1;
        policy_ctx = ctx->policy_ctx;
        ctx->policy_ctx = nullptr;
    }
    // Neither call is made under the lock: a provider may flush its data, and releasing the
    // policy context waits for a running handler, which may be waiting for the lock.
    if (ctx->sdk_ctx && ctx->sdk_provider->free) ctx->sdk_provider->free(ctx->sdk_ctx);
    obs_policy_ctx_free(policy_ctx);
    {
        obs::api_guard guard;
        free(ctx->name);
        ctx->name = nullptr;
        unregister_context(ctx);
        release_scopes(ctx);
        // Not obs_policy_free: the copy's owner is the policy context released above.
        sdk_policy_ot_free(ctx->policy);
    }
    free(ctx);
}

obs_scope *obs_scope_default(obs_ctx *ctx) {
    return ctx ? ctx->default_scope : nullptr;
}

}  // extern "C"
