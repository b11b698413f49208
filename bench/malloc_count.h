// Allocations made by the calling thread, counted by a malloc, calloc and realloc of the
// benchmark binary that stand in front of the C library's own.
#ifndef OBS_BENCH_MALLOC_COUNT_H
#define OBS_BENCH_MALLOC_COUNT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint64_t obs_bench_mallocs_here(void);

#ifdef __cplusplus
}
#endif

#endif
