// Scopes: creation and lookup, the sampling and log-level setters, applying an "ot" policy to the
// scopes of every context of a service, and the attribute setters. Every change of a scope's
// sampling goes through set_sampling, which keeps the scope's gate in step.
#include <cstdlib>
#include <cstring>

#include "api/api_lock.h"
#include "api/scope_gate.h"
#include "observability/policy_channel.h"
#include "policy_ot/sampler_list.h"
#include "policy_ot/translated_record.h"
#include "support/list.h"
#include "support/log.h"

namespace {

constexpr char kDefaultScope[] = "default";

bool same_text(const char *a, const char *b) {
    return a && b && strcmp(a, b) == 0;
}

// A lookup with a version finds only a scope of that version; one without finds any.
obs_scope *find_scope(obs_ctx *ctx, const char *name, const char *version) {
    for (obs_scope *scope = ctx->scopes; scope; scope = scope->next) {
        if (same_text(scope->name, name) && (!version || same_text(scope->version, version)))
            return scope;
    }
    return nullptr;
}

void publish_gate(obs_scope *scope) {
    __atomic_store_n(&scope->gate, obs::gate_of(scope->sampling), __ATOMIC_RELAXED);
}

// A sampler's non-zero settings overwrite the current sampler's; its name and further samplers
// are left alone.
void merge_sampler(obs_policy_ot_sampler *into, const obs_policy_ot_sampler *from) {
    if (from->traces_config) into->traces_config = from->traces_config;
    if (from->metrics_config) into->metrics_config = from->metrics_config;
    if (from->logs_config) into->logs_config = from->logs_config;
}

// The caller holds the lock.
void set_sampling(obs_scope *scope, obs_sampling sampling) {
    if (obs::is_sampler_list(scope->sampling) && obs::is_sampler_list(sampling)) {
        merge_sampler(obs::sampler_list(scope->sampling), obs::sampler_list(sampling));
    } else {
        obs_policy_ot_sampler_free(scope->sampling);
        const obs_sampling wanted =
            sampling == OBS_SAMPLING_NONE ? scope->default_sampling : sampling;
        scope->sampling = obs_policy_ot_sampler_clone(wanted, 0);
    }
    publish_gate(scope);
}

void set_log_level(obs_scope *scope, int log_level) {
    const int level = log_level == -1 ? scope->default_log_level : log_level;
    __atomic_store_n(&scope->log_level, level, __ATOMIC_RELAXED);
}

void log_change(const char *what, const obs_ctx *ctx, const obs_scope *scope, int op) {
    char sampling[128];
    obs::log_line("---ot policy %s-->service=%s scope=%s sampling=%s log_level=%d op=%d", what,
                  ctx->name, scope->name,
                  obs_policy_ot_sampler_dump_config(scope->sampling, sampling, sizeof sampling),
                  scope->log_level, op);
}

void reset_scope(obs_scope *scope) {
    set_log_level(scope, -1);
    set_sampling(scope, OBS_SAMPLING_NONE);
}

bool entry_matches(const obs_policy_ot *entry, const obs_scope *scope) {
    return entry->scope_name &&
           (entry->scope_name[0] == '*' || same_text(entry->scope_name, scope->name));
}

void apply_entries(const obs_ctx *ctx, obs_scope *scope, int op, const obs_policy_ot *entries) {
    if (!entries) {
        reset_scope(scope);
        log_change("reset", ctx, scope, op);
        return;
    }
    for (const obs_policy_ot *entry = entries; entry; entry = entry->next) {
        if (!entry_matches(entry, scope)) continue;
        if (op == OBS_POLICY_OP_REMOVE) {
            reset_scope(scope);
        } else {
            set_log_level(scope, entry->log_level);
            set_sampling(scope, entry->sampler);
        }
        log_change("applied", ctx, scope, op);
    }
}

// A new scope holding copies of its texts, or null (nothing kept) when memory runs out.
obs_scope *new_scope(const char *name, const char *version, int log_level) {
    auto *scope = static_cast<obs_scope *>(calloc(1, sizeof(obs_scope)));
    if (!scope) return nullptr;
    scope->name = strdup(name);
    scope->version = version ? strdup(version) : nullptr;
    if (!scope->name || (version && !scope->version)) {
        free(scope->name);
        free(scope->version);
        free(scope);
        return nullptr;
    }
    scope->log_level = log_level;
    scope->default_log_level = log_level;
    return scope;
}

// The scope with its SDK scope, appended to the context; null when either cannot be made.
obs_scope *add_scope(obs_ctx *ctx, const char *name, const char *version, obs_sampling sampling,
                     int log_level) {
    const obs_sdk_provider *provider = ctx->sdk_provider;
    if (!provider->scope_create) return nullptr;
    obs_scope *scope = new_scope(name, version, log_level);
    if (!scope) return nullptr;
    scope->sdk_scope = provider->scope_create(ctx->sdk_ctx, name, version, sampling);
    if (!scope->sdk_scope) {
        free(scope->name);
        free(scope->version);
        free(scope);
        return nullptr;
    }
    obs::list_append(&ctx->scopes, scope);
    return scope;
}

}  // namespace

uint32_t obs::gate_of(obs_sampling sampling) {
    uint32_t gate = 0;
    if (obs_policy_ot_sampler_get_config(sampling, OBS_SIGNAL_TRACES) != OBS_SAMPLING_OFF)
        gate |= OBS_SIGNAL_TRACES | OBS_SIGNAL_LOGS;
    if (obs_policy_ot_sampler_get_config(sampling, OBS_SIGNAL_METRICS) != OBS_SAMPLING_OFF)
        gate |= OBS_SIGNAL_METRICS;
    return gate;
}

extern "C" {

obs_scope *obs_scope_create(obs_ctx *ctx, const char *name, const char *version,
                            obs_sampling sampling, int log_level) {
    if (!ctx || !name || !*name) return nullptr;
    obs::api_guard guard;
    obs_scope *scope = find_scope(ctx, name, version);
    if (!scope) scope = add_scope(ctx, name, version, sampling, log_level);
    if (!scope) return nullptr;
    obs_policy_ot_sampler_free(scope->sampling);
    obs_policy_ot_sampler_free(scope->default_sampling);
    scope->sampling = obs_policy_ot_sampler_clone(sampling, 0);
    scope->default_sampling = obs_policy_ot_sampler_clone(sampling, 0);
    scope->ctx = ctx;
    publish_gate(scope);
    if (strcmp(name, kDefaultScope) != 0)
        obs_policy_register_scope(ctx->policy_ctx, ctx->name, name);
    if (obs_policy *held = ctx->policy) {
        const obs_policy_ot *entries = obs::is_translated_record(held)
                                           ? static_cast<obs_policy_ot *>(held->codec_val)
                                           : nullptr;
        obs_scope_set_policy_by_name(ctx->name, name, held->op,
                                     const_cast<obs_policy_ot *>(entries));
    }
    return scope;
}

void obs_scope_set_sampling(obs_scope *scope, obs_sampling sampling) {
    if (!scope) return;
    obs::api_guard guard;
    set_sampling(scope, sampling);
}

void obs_scope_set_log_level(obs_scope *scope, int log_level) {
    if (!scope) return;
    obs::api_guard guard;
    set_log_level(scope, log_level);
}

void obs_scope_set_policy_by_name(const char *service_name, const char *scope_name, int op,
                                  obs_policy_ot *entries) {
    if (!service_name) return;
    obs::api_guard guard;
    const bool any_service = service_name[0] == '*';
    for (const obs_info_node *node = obs_info_list; node; node = node->next) {
        obs_ctx *ctx = node->ctx;
        if (!any_service && !same_text(ctx->name, service_name)) continue;
        for (obs_scope *scope = ctx->scopes; scope; scope = scope->next) {
            if (scope_name && !same_text(scope->name, scope_name)) continue;
            apply_entries(ctx, scope, op, entries);
        }
    }
}

void obs_scope_attrs_set(obs_scope *scope, obs_key_value *attrs, unsigned signal) {
    if (!scope || !attrs) return;
    obs_ctx *ctx = scope->ctx;
    if (ctx->sdk_provider->scope_attrs_set)
        ctx->sdk_provider->scope_attrs_set(ctx->sdk_ctx, scope->sdk_scope, signal, attrs);
}

void obs_resource_attrs_set(obs_ctx *ctx, obs_key_value *attrs, unsigned signal) {
    if (!ctx || !attrs) return;
    if (ctx->sdk_provider->resource_attrs_set)
        ctx->sdk_provider->resource_attrs_set(ctx->sdk_ctx, signal, attrs);
}

}  // extern "C"
