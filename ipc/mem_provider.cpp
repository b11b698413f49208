// The provider table: every call takes the store's lock, and the events a change causes are
// queued before that lock is released, so deliveries keep the order of the changes and none is
// queued for a context after its free has taken it out of the store.
#include <climits>
#include <cstdlib>

#include "ipc/mem_delivery.h"
#include "ipc/mem_store.h"
#include "observability_ipc_mem.h"

namespace {

// A deletion event carries one byte that decodes to nothing, so intake sees a deleted key.
constexpr char deletion_data[] = "";

// Queues the events for every subscriber of key; the caller holds the store's lock.
int notify(const char *key, int op, const void *data, int len) {
    obs::mem_event_batch batch;
    int collected = obs::store_collect_events(key, op, data, len, &batch);
    int queued = obs::delivery_enqueue(&batch);
    return collected == OBS_OK && queued == OBS_OK ? OBS_OK : OBS_ERR_FAILED;
}

void *mem_init(void *policy_ctx, const char *, void *) {
    auto *handle = static_cast<obs::mem_handle *>(calloc(1, sizeof(obs::mem_handle)));
    if (handle) handle->policy_ctx = policy_ctx;
    return handle;
}

void mem_free(void *ipc_ctx) {
    auto *handle = static_cast<obs::mem_handle *>(ipc_ctx);
    if (!handle) return;
    {
        obs::store_guard guard;
        obs::store_unsubscribe_all(handle);
    }
    // Outside the store's lock: a running handler of this context may be waiting for it.
    obs::delivery_release_handle(handle);
}

int mem_subscribe(void *ipc_ctx, const char *path, obs_ipc_handler handler) {
    if (!ipc_ctx || !path || !handler) return OBS_ERR_FAILED;
    obs::store_guard guard;
    return obs::store_subscribe(static_cast<obs::mem_handle *>(ipc_ctx), path, handler);
}

int mem_set(void *ipc_ctx, const char *key, const void *value, uint32_t len, const char *index_key,
            const void *member, uint32_t member_len) {
    if (!ipc_ctx || !key || (!value && len) || len > INT_MAX) return OBS_ERR_FAILED;
    obs::store_guard guard;
    if (obs::store_put(key, value, len) != OBS_OK) return OBS_ERR_FAILED;
    int indexed = OBS_OK;
    if (index_key && member && member_len)
        indexed = obs::store_add_member(index_key, static_cast<const char *>(member), member_len);
    int notified = notify(key, OBS_IPC_EVENT_SET, value, static_cast<int>(len));
    return indexed == OBS_OK && notified == OBS_OK ? OBS_OK : OBS_ERR_FAILED;
}

int mem_list(void *ipc_ctx, const char *index_key, char ***members, uint32_t *count) {
    if (!ipc_ctx || !index_key || !members || !count) return OBS_ERR_FAILED;
    obs::store_guard guard;
    return obs::store_list_members(index_key, members, count);
}

int mem_get(void *ipc_ctx, const char *key, void **buf, int *len) {
    if (!ipc_ctx || !key || !buf || !len) return OBS_ERR_FAILED;
    uint32_t stored_len = 0;
    obs::store_guard guard;
    if (!obs::store_copy_value(key, buf, &stored_len)) return OBS_ERR_FAILED;
    *len = static_cast<int>(stored_len);
    return OBS_OK;
}

int mem_send(void *ipc_ctx, const char *key, const void *data, uint32_t len) {
    if (!ipc_ctx || !key || (!data && len) || len > INT_MAX) return OBS_ERR_FAILED;
    obs::store_guard guard;
    return notify(key, OBS_IPC_EVENT_SET, data, static_cast<int>(len));
}

char *mem_dump_debuginfo(void *ipc_ctx) {
    if (!ipc_ctx) return nullptr;
    obs::store_guard guard;
    return obs::store_describe();
}

obs_ipc_provider mem_provider = {
    "mem",   "1.0",   nullptr,  mem_init, mem_free, mem_subscribe,
    nullptr, mem_set, mem_list, mem_get,  mem_send, mem_dump_debuginfo,
};

}  // namespace

extern "C" {

obs_ipc_provider *obs_ipc_mem_provider(void) {
    return &mem_provider;
}

int obs_ipc_mem_delete(void *ipc_ctx, const char *key) {
    if (!ipc_ctx || !key) return OBS_ERR_FAILED;
    obs::store_guard guard;
    if (!obs::store_remove(key)) return OBS_ERR_FAILED;
    return notify(key, OBS_IPC_EVENT_DELETE, deletion_data, sizeof deletion_data);
}

void obs_ipc_mem_flush(void) {
    obs::delivery_flush();
}

}  // extern "C"
