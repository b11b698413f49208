/* Policy SDK providers, the policy record (also the wire message) and its codec. */
#ifndef OBSERVABILITY_POLICY_H
#define OBSERVABILITY_POLICY_H

#include "observability/common.h"
#include "observability/ipc.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct obs_policy obs_policy;
typedef struct obs_policy_ctx obs_policy_ctx;
typedef struct obs_sdk_policy_provider obs_sdk_policy_provider;

/* One policy (or report) for one SDK; records chain through next. Every pointer but owner is
 * owned by the record. */
struct obs_policy {
    uint8_t type;            /* policy type code, carried */
    uint8_t op;              /* OBS_POLICY_OP_* */
    uint8_t format;          /* OBS_POLICY_FORMAT_* bits */
    uint32_t codec_vlen;     /* bytes in codec_val */
    uint32_t raw_vlen;       /* bytes in raw_val (texts: with the terminator) */
    uint64_t seq_id;         /* stamped on reports */
    uint32_t dispatch_flags; /* OBS_POLICY_FLAG_* local marks, never transmitted */
    char *path;              /* root/service{S}/scope{C}/SDK */
    char *name;              /* SDK the record is for */
    void *codec_val;         /* the policy in the SDK's encoding */
    void *raw_val;           /* raw payload or answer text */
    obs_policy_ctx *owner;   /* not owned: whose provider's free releases the record, or null */
    char *reqid;
    char *traceid;
    obs_policy *next;
};

/* Hooks of a policy SDK provider. */
typedef obs_policy_ctx *(*obs_policy_init_fn)(void *user_ctx, const char *service_name);
typedef void (*obs_policy_ctx_free_fn)(obs_policy_ctx *ctx);
typedef void (*obs_policy_service_online_fn)(obs_policy_ctx *ctx, const char *service_name,
                                             const void *uid);
typedef void (*obs_policy_service_report_fn)(obs_policy_ctx *ctx, const char *service_name,
                                             obs_policy *report);
/* Translate one received record (a shallow copy whose next is null) into a new record list. */
typedef obs_policy *(*obs_policy_translator_fn)(void *user_ctx, const char *service_name,
                                                obs_policy *record);
/* Translate one outgoing record (a shallow copy whose next is null) into a new record list. */
typedef obs_policy *(*obs_policy_dispatch_translator_fn)(obs_policy_ctx *ctx, obs_policy *record);
typedef void (*obs_policy_free_fn)(obs_policy *list);
/* Receives every received policy list; the list is released after the call. */
typedef void (*obs_policy_handler_fn)(obs_policy_ctx *ctx, const char *service_name,
                                      obs_policy *list, void *user_ctx);

/* A policy SDK: ten pointer-sized words. Contexts keep a pointer to the table, never a copy, so
 * the setters change it for every context that shares it. */
struct obs_sdk_policy_provider {
    uint32_t type;       /* OBS_POLICY_PROVIDER_* class (low byte) */
    const char *name;    /* SDK name: last component of policy keys */
    const char *version; /* SDK version registered with the agent */
    obs_policy_init_fn init;
    obs_policy_ctx_free_fn ctx_free; /* optional; null: the context is released with free */
    obs_policy_service_online_fn service_online_handler;
    obs_policy_service_report_fn service_report_handler;
    obs_policy_translator_fn policy_translator;
    obs_policy_dispatch_translator_fn dispatch_translator;
    obs_policy_free_fn free; /* releases record lists made for this provider */
};

/* Binds one service to one policy SDK and one IPC provider. */
struct obs_policy_ctx {
    void *user_ctx;     /* not owned; handed to handler and policy_translator */
    char *service_name; /* owned */
    obs_sdk_policy_provider *provider;
    obs_ipc_provider *ipc;
    void *ipc_ctx; /* from the IPC provider's init, or null */
    obs_policy_handler_fn handler;
};

/* The built-in monitor record (class OBS_POLICY_PROVIDER_MONITOR, name "monitor"); process-wide,
 * writable, the same table on every call. The sampling SDK's records are in policy_ot.h. */
OBS_EXPORT obs_sdk_policy_provider *obs_get_monitor_sdk_policy_provider(void);

/* A malloc'd copy of the default template (class OBS_POLICY_PROVIDER_DEFAULT, version "1.0")
 * named by a malloc'd copy of name; the caller frees the name and the table. Null for an
 * invalid name or when memory runs out. */
OBS_EXPORT obs_sdk_policy_provider *obs_create_default_sdk_policy_provider(const char *name);

/* init of the built-in providers: a zeroed context holding user_ctx and a copy of
 * service_name, or null for an invalid name or when memory runs out. */
OBS_EXPORT obs_policy_ctx *obs_policy_init(void *user_ctx, const char *service_name);

/* Write a hook into the provider table of ctx (seen by every context sharing the table). */
OBS_EXPORT void obs_policy_set_policy_translator(obs_policy_ctx *ctx, obs_policy_translator_fn fn);
OBS_EXPORT void obs_policy_set_dispatch_translator(obs_policy_ctx *ctx,
                                                   obs_policy_dispatch_translator_fn fn);
OBS_EXPORT void obs_policy_set_free(obs_policy_ctx *ctx, obs_policy_free_fn fn);

/* Copy one record (next null): texts and raw_val copied; codec_val copied only when
 * with_codec is non-zero and the source is not marked OBS_POLICY_FLAG_TRANSLATED (otherwise null
 * with codec_vlen 0). The copy never carries the mark. Null for null or out of memory. */
OBS_EXPORT obs_policy *obs_policy_clone_one(const obs_policy *src, int with_codec);

/* Release a record list. When the first record's owner has a provider free, that is called
 * with the list instead (the owner link cleared first). */
OBS_EXPORT void obs_policy_free(obs_policy *list);

/* Kept for hosts that call them; the library takes no locks and keeps no thread state. */
OBS_EXPORT void obs_set_lock_api(void *api);
OBS_EXPORT void obs_set_tls_api(void *api);

/* Encode the first record of policy as a message. On success *text receives a malloc'd
 * NUL-terminated copy (the caller frees it) and *len its length with the terminator; on
 * failure neither is touched. A byte payload of length 0 is left out (its length entry stays).
 * The codec value of a record marked OBS_POLICY_FLAG_TRANSLATED is left out with its length. */
OBS_EXPORT void obs_policy_internal_encode(const obs_policy *policy, char **text, uint32_t *len);

/* Decode a message into a new record in *out; *out is untouched when the message does not parse
 * or is not a kvlist (and null when memory runs out). Nothing past len is read. Entries of another
 * type than the message format gives are ignored; a payload is taken only with a length entry it
 * backs (bytes: exactly that many; text: at least that many with its terminator), and a length
 * without its payload reads 0. dispatch_flags, owner and next are always 0. */
OBS_EXPORT void obs_policy_internal_decode(const void *data, uint32_t len, obs_policy **out);

#ifdef __cplusplus
}
#endif

#endif
