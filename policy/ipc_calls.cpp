#include "policy/ipc_calls.h"

#include "support/log.h"

namespace obs {

int send_or_store(obs_policy_ctx *ctx, const char *key, const void *data, uint32_t len) {
    const obs_ipc_provider *ipc = ctx->ipc;
    if (ipc->send) return ipc->send(ctx->ipc_ctx, key, data, len);
    return ipc->set(ctx->ipc_ctx, key, data, len, nullptr, nullptr, 0);
}

void subscribe_service_key(obs_policy_ctx *ctx, const char *service_name,
                           key_path (*key_of)(const char *service), obs_ipc_handler handler,
                           const char *what, const char *operation) {
    const bool any_service = !service_name || service_name[0] == '*';
    if (!any_service && !obs_valid_name(service_name)) return;
    key_path key = key_of(service_name ? service_name : "*");
    int ret = ctx->ipc->subscribe(ctx->ipc_ctx, key.text, handler);
    OBS_LOG_AS(operation, "subscribe service %s=%s ret=%d", what, key.text, ret);
}

}  // namespace obs
