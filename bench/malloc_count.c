#include "malloc_count.h"

#include <stddef.h>

// glibc's allocator under the names it exports for wrappers like this one.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

// Per thread, so the IPC delivery thread and LTTng's threads do not show up in a benchmark.
static __thread uint64_t mallocs;

uint64_t obs_bench_mallocs_here(void) {
    return mallocs;
}

void *malloc(size_t size) {
    ++mallocs;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
    ++mallocs;
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
    ++mallocs;
    return __libc_realloc(block, size);
}
