// The delivery side of the in-process provider: one thread, started on first use, calls the
// subscribed handlers in the order their events were queued, holding no lock while a handler
// runs. Every event carries private copies of its path and data.
#ifndef OBS_IPC_MEM_DELIVERY_H
#define OBS_IPC_MEM_DELIVERY_H

#include "observability/ipc.h"

namespace obs {

// What init hands out: one per context, all sharing the one store.
struct mem_handle {
    void *policy_ctx;            // first argument of every handler called for this handle
    bool release_after_handler;  // set by free from inside this handle's own handler
};

struct mem_event {
    mem_event *next;
    mem_handle *handle;
    obs_ipc_handler handler;
    int op;
    int len;
    const char *path;  // both point into the event's own block
    const void *data;
};

// Events collected under the store's lock, queued together so they keep their order.
struct mem_event_batch {
    mem_event *head = nullptr;
    mem_event **tail = &head;
};

// A new event for handler with copies of path and len bytes of data, in one malloc'd block;
// null when memory runs out.
mem_event *event_make(mem_handle *handle, obs_ipc_handler handler, int op, const char *path,
                      const void *data, int len);

void batch_append(mem_event_batch *batch, mem_event *event);

// Queues the batch behind everything queued so far and starts the delivery thread when it is
// not running yet. -1 (the events released) when the thread cannot be started.
int delivery_enqueue(mem_event_batch *batch);

// Drops the events queued for handle and releases it once none of its handlers runs. Called
// from inside one of the handle's own handlers, it only marks the handle, which the delivery
// thread releases when that handler returns.
void delivery_release_handle(mem_handle *handle);

// Returns once nothing is queued and no handler runs, so the events handlers queue meanwhile are
// delivered too; it waits as long as events keep coming. Returns at once on the delivery
// thread, where waiting would never end.
void delivery_flush();

}  // namespace obs

#endif
