/* observability-api: telemetry (traces, logs, up-down counters) switched per scope at run time
 * by a policy agent over the device's IPC. The one header a user includes. */
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

#endif
