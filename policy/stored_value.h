// A value read with the IPC provider's get: the provider's result and, when something is stored,
// the malloc'd buffer it handed over, released with the holder.
#ifndef OBS_POLICY_STORED_VALUE_H
#define OBS_POLICY_STORED_VALUE_H

#include <cstdlib>

#include "observability/policy.h"

namespace obs {

struct stored_value {
    void *data = nullptr;
    int len = 0;
    int result;

    // The caller has checked that ctx has an IPC provider with get.
    stored_value(obs_policy_ctx *ctx, const char *key)
        : result(ctx->ipc->get(ctx->ipc_ctx, key, &data, &len)) {}
    stored_value(const stored_value &) = delete;
    stored_value &operator=(const stored_value &) = delete;
    ~stored_value() { free(data); }
};

}  // namespace obs

#endif
