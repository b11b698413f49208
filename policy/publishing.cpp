// The agent's side of the channel: choosing which records a context's provider publishes, and
// writing each one to the policy key of every service and scope it is meant for.
#include <cstdlib>
#include <cstring>

#include "observability/policy_channel.h"
#include "policy/ipc_calls.h"
#include "policy/key_path.h"
#include "support/log.h"

namespace {

constexpr char default_root[] = "/kuv/opa";
constexpr char default_scope[] = "default";

// Service, scope and SDK name taken out of a path; empty where the path gave nothing.
struct path_names {
    obs::name_field service, scope, sdk;

    void split(const char *path) {
        obs_parser_service_scope(path, service.text, scope.text, sdk.text, sizeof service.text);
    }
};

bool is_empty(const char *text) {
    return text[0] == '\0';
}

bool is_any(const char *text) {
    return text[0] == '*';
}

bool differ(const char *a, const char *b) {
    return !b || strcmp(a, b) != 0;
}

// Whether the provider publishes rec; a named SDK marks what it takes, and a default provider
// leaves alone what a named SDK has taken before.
bool provider_takes(const obs_sdk_policy_provider *provider, obs_policy *rec) {
    const uint32_t type = provider->type;
    if (type & OBS_POLICY_PROVIDER_MONITOR) return true;
    if (!rec->name) return false;
    if (type & OBS_POLICY_PROVIDER_SDK) {
        if (!provider->name || strcmp(rec->name, provider->name) != 0) return false;
        rec->dispatch_flags |= OBS_POLICY_FLAG_CLAIMED;
    }
    return !((type & OBS_POLICY_PROVIDER_DEFAULT) &&
             (rec->dispatch_flags & OBS_POLICY_FLAG_CLAIMED));
}

// Publishes every record the translator makes of rec, then releases them unless the translator
// handed back rec or the copy it was given.
void publish_translated(obs_policy_ctx *ctx, obs_policy *rec, const char *target,
                        obs_policy_service *services,
                        obs_policy_dispatch_translator_fn translator) {
    obs_policy single = *rec;
    single.next = nullptr;
    obs_policy *translated = translator(ctx, &single);
    if (!translated) return;
    for (obs_policy *each = translated; each; each = each->next)
        obs_policy_publish(ctx, each, target, services);
    if (translated != rec && translated != &single) obs_policy_free(translated);
}

bool lists(char *const *names, uint32_t count, const char *name) {
    for (uint32_t i = 0; names && i < count; ++i) {
        if (names[i] && strcmp(names[i], name) == 0) return true;
    }
    return false;
}

// The part of path in front of "/service{" (the first 511 characters searched), else the
// default root.
obs::path_text<256> root_of(const char *path) {
    obs::path_text<256> root;
    obs::key_path whole;
    whole.format("%s", path ? path : "");
    const char *mark = strstr(whole.text, "/service{");
    if (mark) {
        root.format("%.*s", static_cast<int>(mark - whole.text), whole.text);
    } else {
        root.format("%s", default_root);
    }
    return root;
}

// A monitor publishes under its own SDK name; any other provider under the record's name, else
// the SDK its path names, else its own. The record's path also narrows the services and scopes.
const char *choose_sdk(const obs_sdk_policy_provider *provider, const obs_policy *rec,
                       path_names *from_record) {
    if (provider->type & OBS_POLICY_PROVIDER_MONITOR) return provider->name;
    if (rec->path) from_record->split(rec->path);
    if (is_any(from_record->service.text)) from_record->service.text[0] = '\0';
    if (is_any(from_record->scope.text)) strcpy(from_record->scope.text, default_scope);
    if (is_any(from_record->sdk.text)) from_record->sdk.text[0] = '\0';
    if (rec->name) return rec->name;
    return is_empty(from_record->sdk.text) ? provider->name : from_record->sdk.text;
}

// No target scope, or "*", means "default"; "*" as service or SDK means any.
void widen_target(path_names *target) {
    if (is_any(target->service.text)) target->service.text[0] = '\0';
    if (is_empty(target->scope.text) || is_any(target->scope.text))
        strcpy(target->scope.text, default_scope);
    if (is_any(target->sdk.text)) target->sdk.text[0] = '\0';
}

void send_to_scope(obs_policy_ctx *ctx, obs_policy *rec, const char *service, const char *scope,
                   const char *sdk) {
    obs_policy_ipc_send(ctx, rec, obs::policy_key(service, scope, sdk).text, service, scope, sdk);
}

// Sends rec to the scopes of one directory entry that both the target and the record's path
// accept.
void send_to_matching_scopes(obs_policy_ctx *ctx, obs_policy *rec,
                             const obs_policy_service *service, const path_names &from_record,
                             const path_names &target, const char *sdk) {
    if (!is_empty(from_record.service.text) && differ(from_record.service.text, service->name))
        return;
    if (!is_empty(target.sdk.text) && !is_empty(from_record.sdk.text) &&
        strcmp(target.sdk.text, from_record.sdk.text) != 0)
        return;
    for (uint32_t i = 0; service->scopes && i < service->scope_count; ++i) {
        const char *scope = service->scopes[i];
        if (differ(target.scope.text, scope)) continue;
        if (!is_empty(from_record.scope.text) && differ(from_record.scope.text, scope)) continue;
        send_to_scope(ctx, rec, service->name, scope, sdk);
    }
}

bool has_usable_ipc(const obs_policy_ctx *ctx) {
    return ctx && ctx->ipc && ctx->ipc->list && ctx->ipc->set && ctx->ipc_ctx;
}

}  // namespace

extern "C" {

int obs_policy_dispatch(obs_policy_ctx *ctx, obs_policy *list, const char *target,
                        obs_policy_service *services) {
    if (!list) return OBS_ERR_FAILED;
    if (!ctx || !ctx->provider) {
        OBS_LOG("no any policy provider found");
        return OBS_ERR_FAILED;
    }
    const obs_sdk_policy_provider *provider = ctx->provider;
    for (obs_policy *rec = list; rec; rec = rec->next) {
        if (!provider_takes(provider, rec)) continue;
        obs_policy_dispatch_translator_fn translator = provider->dispatch_translator;
        OBS_LOG("sdk(%s) translator=%p, path=%s name=%s len=%d", obs::text_or_na(provider->name),
                reinterpret_cast<void *>(translator), obs::text_or_na(rec->path),
                obs::text_or_na(rec->name), static_cast<int>(rec->raw_vlen));
        if (translator) {
            publish_translated(ctx, rec, target, services, translator);
        } else {
            obs_policy_publish(ctx, rec, target, services);
        }
    }
    return OBS_OK;
}

int obs_policy_publish(obs_policy_ctx *ctx, obs_policy *rec, const char *target,
                       obs_policy_service *services) {
    if (!has_usable_ipc(ctx)) {
        OBS_LOG("no any ipc provider found");
        return OBS_ERR_FAILED;
    }
    const obs_sdk_policy_provider *provider = ctx->provider;
    if (!rec || !services || !provider || !provider->name) return OBS_ERR_INVALID;
    path_names from_record, to;
    if (target) to.split(target);
    const char *sdk = choose_sdk(provider, rec, &from_record);
    widen_target(&to);
    OBS_LOG("policy=%s sdk=%s target=%s", obs::text_or_na(rec->name), provider->name,
            target ? target : obs::text_or_na(rec->path));
    if (!is_empty(to.sdk.text) && strcmp(to.sdk.text, sdk) != 0) return OBS_ERR_TARGET_MISMATCH;
    for (const obs_policy_service *service = services; service; service = service->next) {
        if (!service->name || !lists(service->sdks, service->sdk_count, sdk)) continue;
        if (!is_empty(to.service.text) && strcmp(to.service.text, service->name) != 0) continue;
        if (provider->type & OBS_POLICY_PROVIDER_MONITOR) {
            send_to_scope(ctx, rec, service->name, to.scope.text, sdk);
        } else {
            send_to_matching_scopes(ctx, rec, service, from_record, to, sdk);
        }
    }
    return OBS_OK;
}

void obs_policy_ipc_send(obs_policy_ctx *ctx, obs_policy *rec, const char *key, const char *service,
                         const char *scope, const char *sdk) {
    if (!ctx || !ctx->ipc || !ctx->ipc->set || !rec || !key || !service || !scope || !sdk) return;
    obs::key_path path = obs::record_path(root_of(rec->path).text, service, scope, sdk);
    obs_policy readdressed = *rec;
    readdressed.path = path.text;
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&readdressed, &text, &len);
    if (!text) return;
    // Queries and other transient records need not stay in the store.
    int ret = rec->op > OBS_POLICY_OP_REAPPLY
                  ? obs::send_or_store(ctx, key, text, len)
                  : ctx->ipc->set(ctx->ipc_ctx, key, text, len, nullptr, nullptr, 0);
    free(text);
    OBS_LOG("to=%s path=%s vlen=%d ret=%d", key, path.text, static_cast<int>(len), ret);
}

}  // extern "C"
