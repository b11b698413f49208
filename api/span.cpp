// Spans and log records. These run on the host's telemetry threads: they take no lock, read the
// scope's gate and log level atomically, allocate nothing while the gate is closed, and raise the
// scope's counters atomically.
#include <cstdlib>
#include <cstring>

#include "api/scope_gate.h"

namespace {

const obs_sdk_provider *provider_of(const obs_scope *scope) {
    return scope->ctx->sdk_provider;
}

// A span named name in scope, its name copied into the same block so that a span costs one
// allocation; null when memory runs out.
obs_span *new_span(obs_scope *scope, obs_span *parent, const char *name) {
    const size_t name_size = strlen(name) + 1;
    auto *span = static_cast<obs_span *>(malloc(sizeof(obs_span) + name_size));
    if (!span) return nullptr;
    span->name = static_cast<char *>(memcpy(span + 1, name, name_size));
    span->scope = scope;
    span->parent = parent;
    span->sdk_span = nullptr;
    return span;
}

void release_span(obs_span *span) {
    free(span);
}

// Counts a span the provider started, or releases the record when it started none.
obs_span *started(obs_span *span) {
    if (!span->sdk_span) {
        release_span(span);
        return nullptr;
    }
    obs::count_up(&span->scope->span_count);
    obs::count_up(&span->scope->open_span_count);
    return span;
}

// The gate first: with traces off the name is never read. Every failed check means no span, so
// the order changes nothing else.
bool can_start(const obs_scope *scope, const char *name) {
    return scope && obs::lets_through(scope, OBS_SIGNAL_TRACES) && name && *name;
}

int log_in(obs_scope *scope, void *sdk_span, int level, const char *message) {
    if (!obs::lets_through(scope, OBS_SIGNAL_LOGS) || level > obs::log_level_of(scope))
        return OBS_ERR_FAILED;
    obs::count_up(&scope->log_count);
    const obs_sdk_provider *provider = provider_of(scope);
    if (!provider->span_log) return OBS_ERR_INVALID;
    return provider->span_log(scope->ctx->sdk_ctx, sdk_span, scope->sdk_scope, level, message);
}

void end_span(obs_span *span, int status, const char *description) {
    if (!span) return;
    const obs_sdk_provider *provider = provider_of(span->scope);
    if (span->sdk_span && provider->span_end)
        provider->span_end(span->sdk_span, status, description);
    obs::count_down(&span->scope->open_span_count);
    release_span(span);
}

// The open-gate halves of the span starts. Kept out of line so that a closed gate returns before
// any register of the open path is saved.
__attribute__((noinline)) obs_span *start_under(obs_scope *scope, obs_span *parent,
                                                const char *name) {
    const obs_sdk_provider *provider = provider_of(scope);
    if (!provider->span_start) return nullptr;
    obs_span *span = new_span(scope, parent, name);
    if (!span) return nullptr;
    span->sdk_span = provider->span_start(scope->ctx->sdk_ctx, parent ? parent->sdk_span : nullptr,
                                          scope->sdk_scope, name);
    return started(span);
}

__attribute__((noinline)) obs_span *start_from_context(obs_scope *scope, const char *parent_context,
                                                       const char *name) {
    const obs_sdk_provider *provider = provider_of(scope);
    if (!provider->span_start_from_context) return nullptr;
    obs_span *span = new_span(scope, nullptr, name);
    if (!span) return nullptr;
    span->sdk_span = provider->span_start_from_context(scope->ctx->sdk_ctx, parent_context,
                                                       scope->sdk_scope, name);
    return started(span);
}

}  // namespace

extern "C" {

obs_span *obs_span_start(obs_scope *scope, obs_span *parent, const char *name) {
    if (!can_start(scope, name)) return nullptr;
    if (parent && !obs::lets_through(parent->scope, OBS_SIGNAL_TRACES)) return nullptr;
    return start_under(scope, parent, name);
}

obs_span *obs_span_start_from_context(obs_scope *scope, const char *parent_context,
                                      const char *name) {
    if (!can_start(scope, name)) return nullptr;
    return start_from_context(scope, parent_context, name);
}

void obs_span_end(obs_span *span) {
    end_span(span, OBS_SPAN_STATUS_UNSET, nullptr);
}

void obs_span_end_with_status(obs_span *span, int status, const char *description) {
    end_span(span, status, description);
}

const char *obs_span_to_context(obs_span *span, void *arg1, void *arg2) {
    if (!span || !span->sdk_span) return "";
    const obs_sdk_provider *provider = provider_of(span->scope);
    if (!provider->span_to_context) return "";
    return provider->span_to_context(span->sdk_span, arg1, arg2);
}

void obs_span_attrs_set(obs_span *span, obs_key_value *attrs) {
    if (!span || !attrs || !span->sdk_span) return;
    const obs_sdk_provider *provider = provider_of(span->scope);
    if (provider->span_attrs_set) provider->span_attrs_set(span->sdk_span, attrs);
}

int obs_span_log(obs_span *span, int level, const char *message) {
    if (!span) return OBS_ERR_FAILED;
    return log_in(span->scope, span->sdk_span, level, message);
}

int obs_scope_log(obs_scope *scope, int level, const char *message) {
    if (!scope) return OBS_ERR_FAILED;
    return log_in(scope, nullptr, level, message);
}

}  // extern "C"
