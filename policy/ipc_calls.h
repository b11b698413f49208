// Calls into the host's IPC provider that several operations make the same way.
#ifndef OBS_POLICY_IPC_CALLS_H
#define OBS_POLICY_IPC_CALLS_H

#include <cstdint>

#include "observability/policy.h"
#include "policy/key_path.h"

namespace obs {

// Delivers len bytes to the key's subscribers without storing them when the provider can, else
// stores them with no index. The caller has checked that the provider has set.
int send_or_store(obs_policy_ctx *ctx, const char *key, const void *data, uint32_t len);

// Subscribes handler to the key that key_of builds for service_name, or for every service when
// the name is null or begins with "*"; any other name that is not valid subscribes nothing. The
// line "subscribe service <what>=<key> ret=<result>" is logged as operation's. The caller has
// checked that the provider has subscribe.
void subscribe_service_key(obs_policy_ctx *ctx, const char *service_name,
                           key_path (*key_of)(const char *service), obs_ipc_handler handler,
                           const char *what, const char *operation);

}  // namespace obs

#endif
