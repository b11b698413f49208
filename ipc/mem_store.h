// The process-wide store of the in-process provider: values by key, index keys with their
// members in the order first added, and subscriptions whose paths may hold "{*}". Every function
// but the guard expects the caller to hold the store's lock (through a store_guard).
#ifndef OBS_IPC_MEM_STORE_H
#define OBS_IPC_MEM_STORE_H

#include <cstddef>
#include <cstdint>

#include "ipc/mem_delivery.h"

namespace obs {

class store_guard {
  public:
    store_guard();
    ~store_guard();
    store_guard(const store_guard &) = delete;
    store_guard &operator=(const store_guard &) = delete;
};

// True when key matches pattern: "{*}" in pattern matches a brace, any one non-empty name
// without braces and the closing brace; every other character matches itself.
bool path_matches(const char *pattern, const char *key);

// Stores a copy of len bytes under key, replacing what was there; -1 when memory runs out (the
// old value then stays).
int store_put(const char *key, const void *value, uint32_t len);
// A malloc'd copy of the bytes stored under key, and their length; false when nothing is stored
// there or memory runs out (the outputs are then untouched).
bool store_copy_value(const char *key, void **copy, uint32_t *len);
// False when nothing was stored under key.
bool store_remove(const char *key);

// Adds member (member_len bytes) to the index under index_key unless it is already there.
int store_add_member(const char *index_key, const char *member, size_t member_len);
// The members of the index as malloc'd copies in a malloc'd array; an unknown index gives a
// null array and a count of 0. -1 when memory runs out.
int store_list_members(const char *index_key, char ***members, uint32_t *count);

int store_subscribe(mem_handle *handle, const char *path, obs_ipc_handler handler);
void store_unsubscribe_all(const mem_handle *handle);
// Appends an event to batch for every subscription that matches key; -1 when memory runs out
// for one of them (the others are still appended).
int store_collect_events(const char *key, int op, const void *data, int len,
                         mem_event_batch *batch);

// A malloc'd text with one line per stored key, index and subscription, or null when memory
// runs out.
char *store_describe();

}  // namespace obs

#endif
