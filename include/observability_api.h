/* observability-api: telemetry (traces, logs, up-down counters) switched per scope at run time
 * by a policy agent over the device's IPC. The one header a user includes.
 *
 * How every operation reports failure (declarations say only what is particular to them):
 * - Every operation accepts null handles and null texts; it then does nothing, and returns what
 *   a failure returns.
 * - A creation that fails returns null. An int result is OBS_OK (0) on success, OBS_ERR_FAILED
 *   (-1) for a failure or refusal, OBS_ERR_INVALID (-2) when a provider lacks the operation or an
 *   argument is bad, and OBS_ERR_TARGET_MISMATCH (-3) when publishing is aimed at another policy
 *   SDK. Results of the host's IPC provider are passed on as they came, or only logged.
 * - Failures are logged as one line through the debug log (observability/debug_log.h), never
 *   raised: there are no exceptions, no global error variable and no abort.
 * - Nothing that arrives from another process (IPC values, policy texts) is trusted; malformed
 *   input is refused or ignored, never read past its length, and never crashes the host.
 * - Addresses of this process never leave it: a translated policy is sent as its text or not at
 *   all. */
#ifndef OBSERVABILITY_API_H
#define OBSERVABILITY_API_H

#include "observability/common.h"
#include "observability/debug_log.h"
#include "observability/sds.h"
#include "observability/value.h"
#include "observability/ipc.h"
#include "observability/policy.h"
#include "observability/policy_ot.h"
#include "observability/policy_channel.h"
#include "observability/instrumentation.h"
#include "observability/sdk_ot.h"

#endif
