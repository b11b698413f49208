/* The instrumentation API: contexts bound to a telemetry SDK provider and an IPC provider, scopes
 * with their sampling and log level, spans, log records, up-down counters, the policy handler that
 * steers them, and the diagnostic dump.
 *
 * Threads: telemetry calls (span start/end, logs, counter adds, obs_scope_enabled) take no lock
 * and allocate nothing while a gate is closed; they read a scope's gate and log level atomically
 * and raise its counters atomically, so policies may change under them from the IPC thread.
 * Contexts, scope creation, policy application and the dump serialise on one internal lock. */
#ifndef OBSERVABILITY_INSTRUMENTATION_H
#define OBSERVABILITY_INSTRUMENTATION_H

#include "observability/common.h"
#include "observability/ipc.h"
#include "observability/policy.h"
#include "observability/policy_ot.h"
#include "observability/value.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct obs_ctx obs_ctx;
typedef struct obs_scope obs_scope;
typedef struct obs_span obs_span;
typedef struct obs_updown_counter obs_updown_counter;

/* Instrument kinds and value types handed to metrics_inst_create. */
#define OBS_INST_UPDOWN_COUNTER 2
#define OBS_VALUE_TYPE_INT64 1
#define OBS_VALUE_TYPE_DOUBLE 2

/* Span status handed to span_end: -1 leaves it unset; other values are the provider's. */
#define OBS_SPAN_STATUS_UNSET (-1)

/* A telemetry back end: two texts and sixteen operations, borrowed (never copied) for the life of
 * every context that uses it. Every operation may be null; the declaration of each API operation
 * says what a null slot makes of it. Handles (SDK context, scope, span, instrument) are opaque to
 * the library. Texts handed to the provider are the caller's own: a provider copies what it keeps.
 * Attribute lists stay the caller's. Signal masks: 1 traces, 2 logs, 4 metrics, 0 all three. */
typedef struct obs_sdk_provider {
    const char *name;    /* printed by the dump */
    const char *version; /* printed by the dump */
    /* The SDK context of a new context; null fails the context. */
    void *(*init)(obs_ctx *ctx, const char *service_name);
    void (*free)(void *sdk_ctx);
    void (*resource_attrs_set)(void *sdk_ctx, unsigned signal, obs_key_value *attrs);
    /* The SDK scope (null fails the scope); sampling is the scope's initial sampling value. */
    void *(*scope_create)(void *sdk_ctx, const char *name, const char *version,
                          obs_sampling sampling);
    /* Called after free of the SDK context the scope belongs to; null: released with free(). */
    void (*scope_free)(void *sdk_scope);
    void (*scope_attrs_set)(void *sdk_ctx, void *sdk_scope, unsigned signal, obs_key_value *attrs);
    /* The SDK span, or null for no span. */
    void *(*span_start)(void *sdk_ctx, void *parent_sdk_span, void *sdk_scope, const char *name);
    void *(*span_start_from_context)(void *sdk_ctx, const char *parent_context, void *sdk_scope,
                                     const char *name);
    void (*span_attrs_set)(void *sdk_span, obs_key_value *attrs);
    /* Ends the span and releases the SDK span; status OBS_SPAN_STATUS_UNSET leaves it unset. */
    void (*span_end)(void *sdk_span, int status, const char *description);
    /* The span's context text, owned by the SDK span; arg1 and arg2 are the caller's, unchanged. */
    const char *(*span_to_context)(void *sdk_span, void *arg1, void *arg2);
    /* One log record, inside sdk_span when it is not null; the result goes back to the caller. */
    int (*span_log)(void *sdk_ctx, void *sdk_span, void *sdk_scope, int level, const char *message);
    /* An instrument handle (null fails the counter). inst_type OBS_INST_UPDOWN_COUNTER, val_type
     * OBS_VALUE_TYPE_INT64 or _DOUBLE; description is the caller's second text, unchanged. */
    void *(*metrics_inst_create)(int inst_type, int val_type, void *sdk_ctx, void *sdk_scope,
                                 const char *name, const char *description);
    void (*metrics_inst_destroy)(void *instrument);
    /* 0 when added; anything else fails the add. */
    int (*metrics_inst_add_int64)(void *instrument, int64_t value, obs_key_value *attrs);
    int (*metrics_inst_add_double)(void *instrument, double value, obs_key_value *attrs);
} obs_sdk_provider;

/* A named, versioned source of telemetry in one context. Read the fields, never write them: the
 * setters below keep the gate that telemetry reads in step with the sampling. */
struct obs_scope {
    char *name;
    char *version; /* or null */
    obs_sampling sampling;
    obs_sampling default_sampling; /* restored by a reset */
    int log_level;                 /* records of a level up to this one pass */
    int default_log_level;
    void *sdk_scope;
    obs_ctx *ctx;
    int span_count;      /* spans started */
    int open_span_count; /* spans started and not yet ended */
    int log_count;       /* records that passed the gate */
    int metric_count;    /* successful counter additions */
    obs_scope *next;
    uint32_t gate; /* private: the OBS_SIGNAL_* bits that sampling lets through */
};

/* One service's binding to a telemetry SDK provider and an IPC provider. */
struct obs_ctx {
    char *name;
    int tid; /* thread that created the context */
    obs_ipc_provider *ipc_provider;
    obs_sdk_provider *sdk_provider;
    void *sdk_ctx;
    obs_policy_ctx *policy_ctx;
    obs_scope *scopes; /* in creation order */
    obs_scope *default_scope;
    obs_scope *opa_scope; /* where policy requests are traced; made by the first request */
    obs_policy *policy;   /* copy of the policy in force, or null */
    int closing;          /* private: set when destruction begins */
};

/* A span, the host's from a successful start until it is ended. */
struct obs_span {
    char *name;
    obs_scope *scope;
    obs_span *parent; /* null for a span started from a context text */
    void *sdk_span;
};

/* An up-down counter, the host's from creation to destruction. */
struct obs_updown_counter {
    obs_scope *scope;
    char *name; /* the first 256 characters of the name given */
    void *sdk_priv_data;
};

typedef struct obs_info_node {
    obs_ctx *ctx;
    struct obs_info_node *next;
} obs_info_node;

/* Every live context, in the order created. Read it under no assumption of stability: contexts
 * come and go with obs_ctx_init and obs_ctx_destroy. */
OBS_EXPORT extern obs_info_node *obs_info_list;

/* Create a context for service_name: the provider's init, registration in obs_info_list (the
 * first one installs the dump signal SIGRTMAX-4), the policy context over ipc with the "obs"
 * policy SDK (the policy stored for "default" is applied there), and the scope "default"
 * (version "1.0", all signals on, log level 2). Null for a null or empty name, a null provider,
 * a provider whose init is null or fails, or a policy context that cannot be made; what was built
 * is then undone. Create and destroy contexts on one thread. */
OBS_EXPORT obs_ctx *obs_ctx_init(const char *service_name, obs_sdk_provider *sdk_provider,
                                 obs_ipc_provider *ipc_provider);
/* Release the context: the provider's free, the policy context, the registration, every scope
 * (the provider's scope_free, or free), the policy in force. End its spans and destroy its
 * counters first. */
OBS_EXPORT void obs_ctx_destroy(obs_ctx *ctx);
OBS_EXPORT obs_scope *obs_scope_default(obs_ctx *ctx);

/* The scope name (and version, when one is given) of ctx, created when missing through the
 * provider's scope_create (null without one or when it fails). A found scope takes the sampling
 * given as its new current and default sampling. Every scope but "default" is registered with the
 * agent, and the policy in force is applied to it. */
OBS_EXPORT obs_scope *obs_scope_create(obs_ctx *ctx, const char *name, const char *version,
                                       obs_sampling sampling, int log_level);
/* 0 restores the default, 1 all off, 2 all on; a sampler replaces a setting, or is merged into
 * the current sampler (its non-zero settings win). */
OBS_EXPORT void obs_scope_set_sampling(obs_scope *scope, obs_sampling sampling);
/* -1 restores the default. */
OBS_EXPORT void obs_scope_set_log_level(obs_scope *scope, int log_level);
/* Apply "ot" entries to the scopes named scope_name (every scope when null) of every context of
 * service_name (every context when it begins with "*"): entries whose scope_name is "*" or the
 * scope's set log level and sampling, or reset the scope when op is OBS_POLICY_OP_REMOVE; no
 * entries resets every matched scope. One "---ot policy applied-->" or "---ot policy reset-->"
 * line per change. An entry without scope_name matches no scope. */
OBS_EXPORT void obs_scope_set_policy_by_name(const char *service_name, const char *scope_name,
                                             int op, obs_policy_ot *entries);
OBS_EXPORT void obs_scope_attrs_set(obs_scope *scope, obs_key_value *attrs, unsigned signal);
OBS_EXPORT void obs_resource_attrs_set(obs_ctx *ctx, obs_key_value *attrs, unsigned signal);

/* Whether scope lets the signal (OBS_SIGNAL_TRACES, _LOGS or _METRICS) through now: one load and
 * a branch, so a caller can skip building attributes or a message. Log records follow the traces
 * setting and must also pass the log level. */
static inline bool obs_scope_enabled(const obs_scope *scope, unsigned signal) {
    return scope && (__atomic_load_n(&scope->gate, __ATOMIC_RELAXED) & signal) != 0;
}

/* A span in scope under parent (or none), or null: traces off in the scope or the parent's scope,
 * no provider span_start, or a provider span of null. */
OBS_EXPORT obs_span *obs_span_start(obs_scope *scope, obs_span *parent, const char *name);
/* The same under a parent given as a context text (handed to the provider unchanged). */
OBS_EXPORT obs_span *obs_span_start_from_context(obs_scope *scope, const char *parent_context,
                                                 const char *name);
/* End and release the span: status unset, or the caller's status and description. */
OBS_EXPORT void obs_span_end(obs_span *span);
OBS_EXPORT void obs_span_end_with_status(obs_span *span, int status, const char *description);
/* The span's context text (the span's, valid until it ends), "" when there is none. */
OBS_EXPORT const char *obs_span_to_context(obs_span *span, void *arg1, void *arg2);
OBS_EXPORT void obs_span_attrs_set(obs_span *span, obs_key_value *attrs);
/* A log record of level (passing when traces are on and level <= the scope's log level): -1 when
 * it does not pass, -2 without the provider's span_log, else the provider's result. */
OBS_EXPORT int obs_span_log(obs_span *span, int level, const char *message);
OBS_EXPORT int obs_scope_log(obs_scope *scope, int level, const char *message);

/* Up-down counters. description is handed to the provider unchanged. Failures are logged
 * "[OBS_API <operation>:<line>] Error: ...". */
OBS_EXPORT obs_updown_counter *obs_int64_updown_counter_create(obs_scope *scope, const char *name,
                                                               const char *description);
OBS_EXPORT obs_updown_counter *obs_double_updown_counter_create(obs_scope *scope, const char *name,
                                                                const char *description);
/* 0 when added, and when the scope's metrics are off (the value is dropped); -1 on failure. */
OBS_EXPORT int obs_int64_updown_counter_add(obs_updown_counter *counter, int64_t value,
                                            obs_key_value *attrs);
OBS_EXPORT int obs_double_updown_counter_add(obs_updown_counter *counter, double value,
                                             obs_key_value *attrs);
OBS_EXPORT void obs_int64_updown_counter_destroy(obs_updown_counter *counter);
OBS_EXPORT void obs_double_updown_counter_destroy(obs_updown_counter *counter);

/* The handler every context gives its policy context: applies (OBS_POLICY_OP_APPLY, _REAPPLY,
 * _APPLY_TRANSIENT), resets (OBS_POLICY_OP_REMOVE) or answers a "debug" query with the dump
 * (OBS_POLICY_OP_QUERY), and traces the request as the span "opa.request" in the scope "opa". */
OBS_EXPORT void obs_policy_handler(obs_policy_ctx *policy_ctx, const char *service_name,
                                   obs_policy *policy, void *user_ctx);

/* The dump: one line per context, two per scope, the IPC provider's text, a closing count. Each
 * returns the string, which may have moved (null when s is null). */
OBS_EXPORT obs_sds obs_dump_one(obs_sds s, obs_ctx *ctx);
OBS_EXPORT obs_sds obs_dump(obs_sds s);
/* Write the dump to "/tmp/<pid>/obs_info" (replaced each time): the directory must be a real
 * directory of this user, the file is never opened through a symbolic link. */
OBS_EXPORT void obs_dump_info_to_file(void);

#ifdef __cplusplus
}
#endif

#endif
