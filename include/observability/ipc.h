/* The host's IPC provider table and the key scheme under which the library and the policy agent
 * exchange policies, registrations and reports. */
#ifndef OBSERVABILITY_IPC_H
#define OBSERVABILITY_IPC_H

#include "observability/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Root of every key path. */
#define OBS_IPC_KEY_ROOT "/op/observability-policy-agent/"

/* Kinds of event an obs_ipc_handler receives as its op. */
#define OBS_IPC_EVENT_SET 0    /* a value stored or sent; also a stored value the library reads */
#define OBS_IPC_EVENT_DELETE 2 /* the key was deleted; the data carries nothing */
#define OBS_IPC_EVENT_FETCH 3  /* a stored value read by obs_policy_fetch */

/* A table of twelve pointer-sized slots, owned by the host and borrowed by every policy context
 * that uses it. Optional slots may be null; the library checks before calling. */
typedef struct obs_ipc_provider {
    const char *name;    /* printed when a policy context starts */
    const char *version; /* printed likewise */
    void *evloop;        /* host event loop, handed unchanged to init */
    /* Optional. Returns the handle stored as the context's ipc_ctx; every handler the provider
     * calls later gets policy_ctx as its first argument. */
    void *(*init)(void *policy_ctx, const char *service_name, void *evloop);
    /* Optional. Called once when a policy context with a non-null ipc_ctx is released. */
    void (*free)(void *ipc_ctx);
    /* Optional. path may hold "*" between braces, matching any one name. */
    int (*subscribe)(void *ipc_ctx, const char *path, obs_ipc_handler handler);
    void *reserved;
    /* Store value under key; when index_key is not null also add member to its index. */
    int (*set)(void *ipc_ctx, const char *key, const void *value, uint32_t len,
               const char *index_key, const void *member, uint32_t member_len);
    /* 0 on success: *members receives *count malloc'd NUL-terminated strings in a malloc'd
     * array, all the caller's. */
    int (*list)(void *ipc_ctx, const char *index_key, char ***members, uint32_t *count);
    /* Optional. When a value is stored, *buf receives a malloc'd copy (the caller frees it) and
     * *len its size; otherwise *buf stays null. */
    int (*get)(void *ipc_ctx, const char *key, void **buf, int *len);
    /* Optional. Deliver data to the key's subscribers without storing it. */
    int (*send)(void *ipc_ctx, const char *key, const void *data, uint32_t len);
    /* Optional. A malloc'd text describing the IPC's state (the caller frees it), or null. */
    char *(*dump_debuginfo)(void *ipc_ctx);
} obs_ipc_provider;

/* 1 when name is not null, not empty and holds neither "{" nor "}"; otherwise logs
 * "invalid name, '{', '}' not allowed" and returns 0. */
OBS_EXPORT int obs_valid_name(const char *name);

/* Take the text between the first "{" and the next "}" of path into field (at most size - 1
 * characters) and, when rest is not null, the text starting two characters after that "}" into
 * rest (likewise cut). Only the first 511 characters of path are considered. Returns 0, or -1
 * (outputs untouched) for a null path or field or when the braces are missing. */
OBS_EXPORT int obs_path_to_channel_field_str(const char *path, char *field, char *rest,
                                             unsigned size);

/* Take service, scope and (when rest is not null) the remainder out of a path of the form
 * ".../service{S}/scope{C}/R", each cut at size - 1 characters. Returns 0 or -1; callers zero
 * the outputs first and use them only as far as the function got. With a null scope output only
 * the service is taken (the path then needs no scope) and rest is left alone. */
OBS_EXPORT int obs_parser_service_scope(const char *path, char *service, char *scope, char *rest,
                                        unsigned size);

#ifdef __cplusplus
}
#endif

#endif
