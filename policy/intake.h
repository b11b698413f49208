// What other operations of the channel hand to intake.
#ifndef OBS_POLICY_INTAKE_H
#define OBS_POLICY_INTAKE_H

#include "observability/policy.h"

namespace obs {

// Reads the policy stored for the scope "default" of service_name and runs it through intake as
// if it had just arrived; the "try load policy" line is logged as operation's. The caller has
// checked that the IPC provider has get and that ctx has a handler and a provider name.
void load_default_policy(obs_policy_ctx *ctx, const char *service_name, const char *operation);

}  // namespace obs

#endif
