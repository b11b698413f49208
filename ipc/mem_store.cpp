// Values, indexes and subscriptions of the in-process provider, in plain linked lists: the store
// of one process holds a few dozen keys, so a walk is as good as a hash and much simpler.
#include "ipc/mem_store.h"

#include <pthread.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/list.h"

namespace obs {
namespace {

struct stored_value {
    stored_value *next;
    char *key;
    void *bytes;
    uint32_t len;
};

struct index_member {
    index_member *next;
    char *name;
};

struct index_entry {
    index_entry *next;
    char *key;
    index_member *members;
};

struct subscription {
    subscription *next;
    char *path;
    obs_ipc_handler handler;
    mem_handle *handle;
};

pthread_mutex_t store_lock = PTHREAD_MUTEX_INITIALIZER;
stored_value *values;
index_entry *indexes;
subscription *subscriptions;

// The link that points at the element whose key equals key, or at the list's null end.
template <typename Node>
Node **find_link(Node **head, const char *key) {
    Node **link = head;
    while (*link && strcmp((*link)->key, key) != 0) link = &(*link)->next;
    return link;
}

// A malloc'd block holding bytes; never null for a successful copy of zero bytes.
void *copy_bytes(const void *bytes, uint32_t len) {
    void *copy = malloc(len ? len : 1);
    if (copy && len) memcpy(copy, bytes, len);
    return copy;
}

stored_value *new_value(const char *key, void *bytes, uint32_t len) {
    auto *value = static_cast<stored_value *>(calloc(1, sizeof(stored_value)));
    if (value) value->key = strdup(key);
    if (!value || !value->key) {
        free(value);
        return nullptr;
    }
    value->bytes = bytes;
    value->len = len;
    return value;
}

index_entry *find_or_add_index(const char *key) {
    index_entry **link = find_link(&indexes, key);
    if (*link) return *link;
    auto *entry = static_cast<index_entry *>(calloc(1, sizeof(index_entry)));
    if (entry) entry->key = strdup(key);
    if (!entry || !entry->key) {
        free(entry);
        return nullptr;
    }
    *link = entry;
    return entry;
}

bool has_member(const index_entry *entry, const char *name) {
    for (const index_member *member = entry->members; member; member = member->next) {
        if (strcmp(member->name, name) == 0) return true;
    }
    return false;
}

void release_members(char **members, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) free(members[i]);
    free(members);
}

// Appends one formatted line at out + used (out may be null to measure) and returns the new
// length; the text is measured the same way it is written, so the two passes agree.
size_t append_line(char *out, size_t size, size_t used, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

size_t append_line(char *out, size_t size, size_t used, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int written = vsnprintf(out ? out + used : nullptr, out ? size - used : 0, format, args);
    va_end(args);
    return written > 0 ? used + written : used;
}

size_t describe_into(char *out, size_t size) {
    size_t used = 0;
    for (const stored_value *value = values; value; value = value->next)
        used = append_line(out, size, used, "key %s size %lu\n", value->key,
                           static_cast<unsigned long>(value->len));
    for (const index_entry *entry = indexes; entry; entry = entry->next)
        used = append_line(out, size, used, "index %s members %lu\n", entry->key,
                           static_cast<unsigned long>(list_length(entry->members)));
    for (const subscription *sub = subscriptions; sub; sub = sub->next)
        used = append_line(out, size, used, "subscription %s\n", sub->path);
    return used;
}

}  // namespace

store_guard::store_guard() {
    pthread_mutex_lock(&store_lock);
}
store_guard::~store_guard() {
    pthread_mutex_unlock(&store_lock);
}

bool path_matches(const char *pattern, const char *key) {
    static constexpr char any_name[] = "{*}";
    while (*pattern) {
        if (strncmp(pattern, any_name, sizeof any_name - 1) == 0) {
            if (*key != '{') return false;
            size_t name_len = strcspn(key + 1, "{}");
            if (name_len == 0 || key[1 + name_len] != '}') return false;
            key += name_len + 2;
            pattern += sizeof any_name - 1;
        } else if (*pattern++ != *key++) {
            return false;
        }
    }
    return *key == '\0';
}

int store_put(const char *key, const void *value, uint32_t len) {
    void *bytes = copy_bytes(value, len);
    if (!bytes) return OBS_ERR_FAILED;
    stored_value **link = find_link(&values, key);
    if (*link) {
        free((*link)->bytes);
        (*link)->bytes = bytes;
        (*link)->len = len;
        return OBS_OK;
    }
    *link = new_value(key, bytes, len);
    if (*link) return OBS_OK;
    free(bytes);
    return OBS_ERR_FAILED;
}

bool store_copy_value(const char *key, void **copy, uint32_t *len) {
    const stored_value *found = *find_link(&values, key);
    void *bytes = found ? copy_bytes(found->bytes, found->len) : nullptr;
    if (!bytes) return false;
    *copy = bytes;
    *len = found->len;
    return true;
}

bool store_remove(const char *key) {
    stored_value **link = find_link(&values, key);
    stored_value *found = *link;
    if (!found) return false;
    *link = found->next;
    free(found->key);
    free(found->bytes);
    free(found);
    return true;
}

int store_add_member(const char *index_key, const char *member, size_t member_len) {
    index_entry *entry = find_or_add_index(index_key);
    char *name = strndup(member, member_len);
    if (!entry || !name) {
        free(name);
        return OBS_ERR_FAILED;
    }
    if (has_member(entry, name)) {
        free(name);
        return OBS_OK;
    }
    auto *added = static_cast<index_member *>(calloc(1, sizeof(index_member)));
    if (!added) {
        free(name);
        return OBS_ERR_FAILED;
    }
    added->name = name;
    list_append(&entry->members, added);
    return OBS_OK;
}

int store_list_members(const char *index_key, char ***members, uint32_t *count) {
    *members = nullptr;
    *count = 0;
    const index_entry *entry = *find_link(&indexes, index_key);
    const uint32_t listed = entry ? list_length(entry->members) : 0;
    if (listed == 0) return OBS_OK;
    auto *names = static_cast<char **>(calloc(listed, sizeof(char *)));
    if (!names) return OBS_ERR_FAILED;
    uint32_t copied = 0;
    for (const index_member *member = entry->members; member; member = member->next) {
        names[copied] = strdup(member->name);
        if (!names[copied]) {
            release_members(names, copied);
            return OBS_ERR_FAILED;
        }
        ++copied;
    }
    *members = names;
    *count = copied;
    return OBS_OK;
}

int store_subscribe(mem_handle *handle, const char *path, obs_ipc_handler handler) {
    auto *sub = static_cast<subscription *>(calloc(1, sizeof(subscription)));
    if (sub) sub->path = strdup(path);
    if (!sub || !sub->path) {
        free(sub);
        return OBS_ERR_FAILED;
    }
    sub->handler = handler;
    sub->handle = handle;
    list_append(&subscriptions, sub);
    return OBS_OK;
}

void store_unsubscribe_all(const mem_handle *handle) {
    subscription **link = &subscriptions;
    while (subscription *sub = *link) {
        if (sub->handle != handle) {
            link = &sub->next;
            continue;
        }
        *link = sub->next;
        free(sub->path);
        free(sub);
    }
}

int store_collect_events(const char *key, int op, const void *data, int len,
                         mem_event_batch *batch) {
    int result = 0;
    for (const subscription *sub = subscriptions; sub; sub = sub->next) {
        if (!path_matches(sub->path, key)) continue;
        mem_event *event = event_make(sub->handle, sub->handler, op, key, data, len);
        if (event)
            batch_append(batch, event);
        else
            result = -1;
    }
    return result;
}

char *store_describe() {
    size_t size = describe_into(nullptr, 0) + 1;
    auto *text = static_cast<char *>(malloc(size));
    if (!text) return nullptr;
    text[0] = '\0';
    describe_into(text, size);
    return text;
}

}  // namespace obs
