// The shape every built-in policy SDK provider record shares: contexts made with obs_policy_init,
// version "1.0". Records differ in class, name and the hooks that translate and release received
// records. A constant expression, so the tables are filled at load time.
#ifndef OBS_POLICY_BUILTIN_PROVIDER_H
#define OBS_POLICY_BUILTIN_PROVIDER_H

#include "observability/policy.h"

namespace obs {

constexpr obs_sdk_policy_provider builtin_provider(uint32_t type, const char *name,
                                                   obs_policy_translator_fn translator,
                                                   obs_policy_free_fn release) {
    return {type,    name,    "1.0",      obs_policy_init, nullptr,
            nullptr, nullptr, translator, nullptr,         release};
}

}  // namespace obs

#endif
