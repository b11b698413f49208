// What any call into a shared library costs at least, for the API benchmarks to be read against:
// an empty function, and a telemetry provider whose slots do nothing. Both live in a shared
// library of their own, so the compiler can neither inline nor drop a call to them.
#ifndef OBS_BENCH_CALL_FLOOR_H
#define OBS_BENCH_CALL_FLOOR_H

#include "observability_api.h"

#ifdef __cplusplus
extern "C" {
#endif

void obs_bench_empty_call(void);

// Handles are one static non-null address; span_log and the adds return 0.
obs_sdk_provider *obs_bench_noop_provider(void);

#ifdef __cplusplus
}
#endif

#endif
