/* An in-process IPC provider for hosts that have no IPC of their own, and for tests: every
 * context made through its init shares one process-wide store, so an agent context and service
 * contexts in one process see each other. Events are delivered on one thread owned by the
 * provider, in the order they happened, never on the caller's thread and never while the store
 * is locked. Plain C; needs only libc and pthreads. */
#ifndef OBSERVABILITY_IPC_MEM_H
#define OBSERVABILITY_IPC_MEM_H

#include "observability/ipc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The provider table (name "mem"). */
OBS_EXPORT obs_ipc_provider *obs_ipc_mem_provider(void);
/* Removes the value under key and notifies its subscribers with op 2 and one NUL byte (length
 * 1). 0, or -1 when nothing was stored under key or an argument is null. */
OBS_EXPORT int obs_ipc_mem_delete(void *ipc_ctx, const char *key);
/* Returns once the provider is idle: nothing queued and no handler running. Events that
 * handlers queue while it waits (a report sent in answer to a query) are delivered before it
 * returns, so it waits as long as events keep being queued: a handler that answers every event
 * with another makes it wait forever. Called from a handler, it returns at once. */
OBS_EXPORT void obs_ipc_mem_flush(void);

#ifdef __cplusplus
}
#endif

#endif
