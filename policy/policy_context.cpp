// A service's policy context: announcing the service, its policy SDK and its scopes to the agent
// through the host's IPC provider, and following services as their instances come online.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "observability/debug_log.h"
#include "observability/policy_channel.h"
#include "policy/intake.h"
#include "policy/ipc_calls.h"
#include "policy/key_path.h"
#include "support/log.h"

namespace {

constexpr char default_scope[] = "default";

bool has_name_and_version(const obs_sdk_policy_provider *provider) {
    return provider && provider->name && provider->name[0] && provider->version &&
           provider->version[0];
}

// Which instance of the service runs: the creating thread and the moment of creation. time_t
// is 64 bits on 32-bit ARM too, so the numbers are printed as long long.
struct instance_uid {
    char text[64];
};

instance_uid make_instance_uid(int tid) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    instance_uid uid;
    snprintf(uid.text, sizeof uid.text, "%d-%lld-%lld", tid, static_cast<long long>(now.tv_sec),
             static_cast<long long>(now.tv_nsec));
    return uid;
}

// Stores value under key and adds member to the index under index_key; texts go without their
// terminator.
int set_indexed(obs_policy_ctx *ctx, const char *key, const char *value, const char *index_key,
                const char *member) {
    return ctx->ipc->set(ctx->ipc_ctx, key, value, static_cast<uint32_t>(strlen(value)), index_key,
                         member, static_cast<uint32_t>(strlen(member)));
}

void attach(obs_policy_ctx *ctx, void *user_ctx, const char *service_name,
            obs_policy_handler_fn handler, obs_ipc_provider *ipc,
            obs_sdk_policy_provider *provider) {
    ctx->provider = provider;
    ctx->user_ctx = user_ctx;
    ctx->handler = handler;
    ctx->ipc = ipc;
    if (ipc->init) ctx->ipc_ctx = ipc->init(ctx, service_name, ipc->evloop);
}

int register_sdk(obs_policy_ctx *ctx, const char *service_name) {
    const obs_sdk_policy_provider *provider = ctx->provider;
    return set_indexed(ctx, obs::sdk_version_key(service_name, provider->name).text,
                       provider->version, obs::sdk_index_key(service_name).text, provider->name);
}

// Policies of every scope of the service, the ones created later included.
int subscribe_policies(obs_policy_ctx *ctx, const char *service_name) {
    return ctx->ipc->subscribe(ctx->ipc_ctx,
                               obs::policy_key(service_name, "*", ctx->provider->name).text,
                               sdk_policy_subscribe_handler);
}

}  // namespace

extern "C" {

obs_policy_ctx *obs_policy_ctx_init(void *user_ctx, const char *service_name,
                                    obs_policy_handler_fn handler, obs_ipc_provider *ipc,
                                    obs_sdk_policy_provider *provider) {
    const int tid = obs_gettid();
    if (!obs_valid_name(service_name)) {
        OBS_LOG("not valid service name");
        return nullptr;
    }
    if (!ipc) {
        OBS_LOG("fail, ipc provider not found");
        return nullptr;
    }
    if (!has_name_and_version(provider)) {
        OBS_LOG("fail, policy provider not found, or name/version is empty, service=%s",
                service_name);
        return nullptr;
    }
    obs_policy_ctx *ctx = provider->init ? provider->init(user_ctx, service_name) : nullptr;
    if (!ctx) {
        OBS_LOG("fail to run init, ctx=%p, name=%s", user_ctx, service_name);
        return nullptr;
    }
    attach(ctx, user_ctx, service_name, handler, ipc, provider);
    OBS_LOG("provider ipc=%s/%s(evloop=%p) policy=%s/%s handler=%p init=%p",
            obs::text_or_na(ipc->name), obs::text_or_na(ipc->version), ipc->evloop, provider->name,
            provider->version, reinterpret_cast<void *>(handler), ctx->ipc_ctx);
    if (handler && ipc->subscribe && ipc->set) {
        int ret = register_sdk(ctx, service_name);
        int ret2 = subscribe_policies(ctx, service_name);
        OBS_LOG("register and subscribe sdk=%s ret=%d ret2=%d", provider->name, ret, ret2);
    }
    if (ipc->set) {
        instance_uid uid = make_instance_uid(tid);
        obs::key_path key = obs::service_uid_key(service_name);
        int ret = set_indexed(ctx, key.text, uid.text, obs::service_index_key().text, service_name);
        int scope_ret = obs_policy_register_scope(ctx, service_name, default_scope);
        OBS_LOG("register path=%s ret=%d default scope ret=%d uid=%s", key.text, ret, scope_ret,
                uid.text);
    }
    obs_policy_set_service_online(ctx, nullptr, provider->service_online_handler);
    // Last, because applying the stored policy may already use everything set up above.
    if (handler && ipc->subscribe && ipc->get)
        obs::load_default_policy(ctx, service_name, __func__);
    return ctx;
}

void obs_policy_ctx_free(obs_policy_ctx *ctx) {
    if (!ctx) return;
    if (ctx->ipc_ctx && ctx->ipc && ctx->ipc->free) ctx->ipc->free(ctx->ipc_ctx);
    free(ctx->service_name);
    // A provider's ctx_free that releases the name as well must find nothing left to release.
    ctx->service_name = nullptr;
    if (ctx->provider && ctx->provider->ctx_free) {
        ctx->provider->ctx_free(ctx);
    } else {
        free(ctx);
    }
}

int obs_policy_register_scope(obs_policy_ctx *ctx, const char *service_name,
                              const char *scope_name) {
    if (!obs_valid_name(service_name)) return OBS_ERR_FAILED;
    if (!obs_valid_name(scope_name) || !ctx) return OBS_ERR_FAILED;
    if (!ctx->ipc || !ctx->ipc->set) return OBS_ERR_FAILED;
    return set_indexed(ctx, obs::scope_name_key(service_name, scope_name).text, scope_name,
                       obs::scope_index_key<obs::scope_index_path>(service_name).text, scope_name);
}

void obs_policy_set_service_online(obs_policy_ctx *ctx, const char *service_name,
                                   obs_policy_service_online_fn fn) {
    if (!ctx || !ctx->provider) return;
    ctx->provider->service_online_handler = fn;
    if (fn && ctx->ipc && ctx->ipc->subscribe)
        obs::subscribe_service_key(ctx, service_name, obs::service_uid_key,
                                   sdk_policy_service_online_handler, "online", __func__);
}

// The uid value travels on without its length: a negative length is no value either.
void sdk_policy_service_online_handler(void *context, int, const char *path, const char *,
                                       const void *data, int len) {
    auto *ctx = static_cast<obs_policy_ctx *>(context);
    if (!ctx || !data || len <= 0 || !ctx->provider) return;
    OBS_LOG("path=%s len=%d", obs::text_or_na(path), len);
    obs::name_field service;
    if (!obs::service_of(path, &service)) return;
    if (obs_policy_service_online_fn online = ctx->provider->service_online_handler)
        online(ctx, service.text, data);
}

}  // extern "C"
