/* The one way every key path and every record's logical path is built: printf into a fixed
 * buffer, cut at its size - 1 characters, never overrun. */
#ifndef OBS_POLICY_KEY_PATH_H
#define OBS_POLICY_KEY_PATH_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "observability/ipc.h"

namespace obs {

template <size_t Size>
struct path_text {
    char text[Size];

    __attribute__((format(printf, 2, 3))) void format(const char *pattern, ...) {
        va_list args;
        va_start(args, pattern);
        vsnprintf(text, Size, pattern, args);
        va_end(args);
    }
};

using key_path = path_text<512>;
/* obs_policy_register_scope keeps the scope index path in half the space: a long service name
 * is cut earlier there than in the scope index path that is listed. */
using scope_index_path = path_text<256>;

/* Index of the names of every registered service. */
key_path service_index_key();
/* Unique id of a service's running instance. */
key_path service_uid_key(const char *service);
/* Version of a policy SDK registered by a service. */
key_path sdk_version_key(const char *service, const char *sdk);
/* Index of the policy SDK names of a service. */
key_path sdk_index_key(const char *service);
/* Name of a scope registered by a service. */
key_path scope_name_key(const char *service, const char *scope);
/* Index of the scope names of a service, in either buffer. */
template <typename Path = key_path>
Path scope_index_key(const char *service) {
    Path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/scope_keys", service);
    return key;
}
/* Encoded policy record of one SDK for one scope of a service. */
key_path policy_key(const char *service, const char *scope, const char *sdk);
/* Reports of a service. */
key_path report_key(const char *service);

/* A service, scope or SDK name taken out of a path, cut at 255 characters. */
struct name_field {
    char text[256] = {};
};
/* The service a key path names (the text between its first braces); false when it names none. */
bool service_of(const char *path, name_field *service);

/* Logical path carried in a published record, under root (no trailing "/"). */
key_path record_path(const char *root, const char *service, const char *scope, const char *sdk);
/* Logical path of a received report renamed after its service: prefix is the old path up to
 * its first "{". */
key_path record_path_from_prefix(const char *prefix, const char *service, const char *scope,
                                 const char *rest);

}  // namespace obs

#endif
