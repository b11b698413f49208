// An LTTng-UST tracepoint for the API benchmarks to stand beside: the cost of a disabled
// tracepoint is the best known figure for instrumentation that is switched off.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER obs_api_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "api_tracepoint.h"

#if !defined(OBS_BENCH_API_TRACEPOINT_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define OBS_BENCH_API_TRACEPOINT_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(obs_api_bench, call, LTTNG_UST_TP_ARGS(int, value),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, value, value)))

#endif

#include <lttng/tracepoint-event.h>
