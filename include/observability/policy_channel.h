/* The live policy channel: a service's policy context over the host's IPC provider, the intake of
 * policies and queries, the service directory and reports, and the agent's publishing. */
#ifndef OBSERVABILITY_POLICY_CHANNEL_H
#define OBSERVABILITY_POLICY_CHANNEL_H

#include <stdio.h>

#include "observability/common.h"
#include "observability/ipc.h"
#include "observability/policy.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Create a policy context for service_name over ipc with provider's init: announces the policy
 * SDK and its version, the instance id and the scope "default", subscribes to the policy keys of
 * every scope of the service (when handler is set), and hands the stored "default" policy to
 * intake last. Null (after one log line) for an invalid name, a missing IPC provider, or a
 * provider without name, version or a working init. */
OBS_EXPORT obs_policy_ctx *obs_policy_ctx_init(void *user_ctx, const char *service_name,
                                               obs_policy_handler_fn handler,
                                               obs_ipc_provider *ipc,
                                               obs_sdk_policy_provider *provider);
/* Releases the context (the IPC provider's free first); nothing is unsubscribed or removed. */
OBS_EXPORT void obs_policy_ctx_free(obs_policy_ctx *ctx);
/* Registers scope_name under service_name; -1 on refusal, else the IPC set result. */
OBS_EXPORT int obs_policy_register_scope(obs_policy_ctx *ctx, const char *service_name,
                                         const char *scope_name);
/* Installs fn as the provider's service_online_handler and subscribes to the uid key of
 * service_name (every service when null or "*"). */
OBS_EXPORT void obs_policy_set_service_online(obs_policy_ctx *ctx, const char *service_name,
                                              obs_policy_service_online_fn fn);
OBS_EXPORT void sdk_policy_service_online_handler(void *ctx, int op, const char *path,
                                                  const char *key, const void *data, int len);

/* Intake. The IPC handler for the policy keys: decodes, translates, calls the context's handler
 * and answers queries (op 4) with a report. */
OBS_EXPORT void sdk_policy_subscribe_handler(void *ctx, int op, const char *path, const char *key,
                                             const void *data, int len);
/* The translated record list of a received value (caller releases it with obs_policy_free), a
 * deletion record for an op-2 event whose data does not decode, or null. */
OBS_EXPORT obs_policy *sdk_policy_decode(obs_policy_ctx *ctx, int op, const char *path,
                                         const char *service_name, const void *data, int len);
/* Loads the stored "default" policy and runs it through intake. */
OBS_EXPORT void obs_policy_pull(obs_policy_ctx *ctx);
/* The stored "default" policy decoded and translated (release with obs_policy_free), or null. */
OBS_EXPORT obs_policy *obs_policy_fetch(obs_policy_ctx *ctx);
/* The IPC provider's debugging text (release with free), or null. */
OBS_EXPORT char *obs_policy_dump_debuginfor(obs_policy_ctx *ctx);

/* One entry of the service directory. */
typedef struct obs_policy_service {
    char *name;
    char **scopes;
    uint32_t scope_count;
    char **sdks;
    uint32_t sdk_count;
    struct obs_policy_service *next;
} obs_policy_service;

/* The registered services with their scopes and policy SDKs, in index order (release with
 * obs_policy_free_service), or null. */
OBS_EXPORT obs_policy_service *obs_policy_load_service(obs_policy_ctx *ctx);
OBS_EXPORT void obs_policy_print_service(FILE *stream, const obs_policy_service *list);
OBS_EXPORT void obs_policy_free_service(obs_policy_service *list);
/* Stamps rec with the next process-wide report number and sends it to the context's report key;
 * -1 on refusal, else the IPC result. */
OBS_EXPORT int obs_policy_send_report(obs_policy_ctx *ctx, obs_policy *rec);
/* Installs fn as the provider's service_report_handler and subscribes to the report key of
 * service_name (every service when null or "*"). */
OBS_EXPORT void obs_policy_set_service_report(obs_policy_ctx *ctx, const char *service_name,
                                              obs_policy_service_report_fn fn);
OBS_EXPORT void sdk_policy_service_report_handler(void *ctx, int op, const char *path,
                                                  const char *key, const void *data, int len);

/* Publishing. Filters list by the context's provider class, translates each record through the
 * provider's dispatch_translator and publishes it; 0, or -1 for a null list, context or
 * provider. The translator is handed a shallow copy of the record with next null; every record
 * of the list it returns is published in order, and the list is then released with
 * obs_policy_free unless it is the copy it was handed. A claimed record is marked 0x20 in its
 * dispatch_flags, so the same list dispatched later through a default-class context skips it. */
OBS_EXPORT int obs_policy_dispatch(obs_policy_ctx *ctx, obs_policy *list, const char *target,
                                   obs_policy_service *services);
/* Writes rec to the policy key of every matching service and scope of the directory. 0; -1
 * without a usable IPC provider; -2 without record, directory or provider name; -3 when target
 * names another SDK. */
OBS_EXPORT int obs_policy_publish(obs_policy_ctx *ctx, obs_policy *rec, const char *target,
                                  obs_policy_service *services);
/* Writes rec, its path rewritten for service, scope and sdk, to key. */
OBS_EXPORT void obs_policy_ipc_send(obs_policy_ctx *ctx, obs_policy *rec, const char *key,
                                    const char *service, const char *scope, const char *sdk);

#ifdef __cplusplus
}
#endif

#endif
