// The probes and the tracepoint definitions of api_tracepoint.h, built into the benchmark.
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "api_tracepoint.h"
