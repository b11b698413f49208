// One delivery thread for the whole process. The queue has its own lock, taken after the store's
// when events are queued and never held while a handler runs, so handlers may call back into the
// provider. The thread blocks every signal: the host's signal handlers run on the host's threads.
#include "ipc/mem_delivery.h"

#include <pthread.h>
#include <signal.h>
#include <cstdlib>
#include <cstring>

#include "support/background_thread.h"
#include "support/list.h"

namespace obs {
namespace {

pthread_mutex_t queue_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t queue_filled = PTHREAD_COND_INITIALIZER;
// Broadcast after every event: flush and release_handle wait on it.
pthread_cond_t queue_progress = PTHREAD_COND_INITIALIZER;
mem_event *queue_head;
mem_event **queue_tail = &queue_head;
bool thread_running;
pthread_t delivery_thread;
mem_handle *handle_in_handler;  // the handle whose handler runs right now, if any

// The caller holds queue_lock.
bool on_delivery_thread() {
    return thread_running && pthread_equal(pthread_self(), delivery_thread);
}

// The caller holds queue_lock and the queue is not empty.
mem_event *queue_pop() {
    mem_event *event = queue_head;
    queue_head = event->next;
    if (!queue_head) queue_tail = &queue_head;
    return event;
}

// Unlinks and releases the queued events of handle; the caller holds queue_lock.
void queue_drop(const mem_handle *handle) {
    mem_event **link = &queue_head;
    queue_tail = &queue_head;
    while (mem_event *event = *link) {
        if (event->handle == handle) {
            *link = event->next;
            free(event);
        } else {
            link = &event->next;
            queue_tail = link;
        }
    }
}

// Runs the event's handler with queue_lock released; the lock is held again on return.
void deliver(mem_event *event) {
    mem_handle *handle = event->handle;
    handle_in_handler = handle;
    pthread_mutex_unlock(&queue_lock);
    event->handler(handle->policy_ctx, event->op, event->path, event->path, event->data,
                   event->len);
    free(event);
    pthread_mutex_lock(&queue_lock);
    handle_in_handler = nullptr;
    if (handle->release_after_handler) free(handle);
}

void *delivery_main(void *) {
    pthread_mutex_lock(&queue_lock);
    for (;;) {
        while (!queue_head) pthread_cond_wait(&queue_filled, &queue_lock);
        deliver(queue_pop());
        pthread_cond_broadcast(&queue_progress);
    }
}

// The caller holds queue_lock.
bool start_thread() {
    thread_running = obs::start_background_thread(delivery_main, &delivery_thread);
    return thread_running;
}

}  // namespace

mem_event *event_make(mem_handle *handle, obs_ipc_handler handler, int op, const char *path,
                      const void *data, int len) {
    size_t path_size = strlen(path) + 1;
    auto *event = static_cast<mem_event *>(malloc(sizeof(mem_event) + len + path_size));
    if (!event) return nullptr;
    char *data_copy = reinterpret_cast<char *>(event + 1);
    char *path_copy = data_copy + len;
    if (len) memcpy(data_copy, data, len);
    memcpy(path_copy, path, path_size);
    *event = mem_event{nullptr, handle, handler, op, len, path_copy, data_copy};
    return event;
}

void batch_append(mem_event_batch *batch, mem_event *event) {
    *batch->tail = event;
    batch->tail = &event->next;
}

int delivery_enqueue(mem_event_batch *batch) {
    if (!batch->head) return OBS_OK;
    pthread_mutex_lock(&queue_lock);
    bool started = thread_running || start_thread();
    if (started) {
        *queue_tail = batch->head;
        queue_tail = batch->tail;
        pthread_cond_signal(&queue_filled);
    }
    pthread_mutex_unlock(&queue_lock);
    if (!started) list_release(batch->head, [](mem_event *event) { free(event); });
    *batch = mem_event_batch();
    return started ? OBS_OK : OBS_ERR_FAILED;
}

void delivery_release_handle(mem_handle *handle) {
    pthread_mutex_lock(&queue_lock);
    queue_drop(handle);
    bool deferred = handle_in_handler == handle && on_delivery_thread();
    if (deferred) handle->release_after_handler = true;
    while (!deferred && handle_in_handler == handle)
        pthread_cond_wait(&queue_progress, &queue_lock);
    pthread_mutex_unlock(&queue_lock);
    if (!deferred) free(handle);
}

// A running handler counts as work left: what it queues before returning is waited for too.
void delivery_flush() {
    pthread_mutex_lock(&queue_lock);
    if (!on_delivery_thread()) {
        while (queue_head || handle_in_handler) pthread_cond_wait(&queue_progress, &queue_lock);
    }
    pthread_mutex_unlock(&queue_lock);
}

}  // namespace obs
