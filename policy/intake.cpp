// Intake of the values that arrive on a service's policy keys: decoding and translating them for
// the context's handler, and answering queries with a report. Values come from other processes:
// a length that is not positive is no value, and no payload is read past the bytes received.
#include <cstdlib>
#include <cstring>

#include "observability/policy_channel.h"
#include "policy/intake.h"
#include "policy/key_path.h"
#include "support/list.h"
#include "support/log.h"
#include "support/owned_copy.h"

namespace {

constexpr char deletion_reqid[] = "test-manualy-delete";
constexpr char no_policy[] = "there is no policy";
constexpr char debug_mark[] = "debug";
constexpr size_t debug_mark_length = sizeof debug_mark - 1;

// A value read with the IPC provider's get: the provider's result and, when something is stored,
// the malloc'd buffer it handed over, released with the holder. The caller has checked that the
// provider has get.
struct stored_value {
    void *data = nullptr;
    int len = 0;
    int result;

    stored_value(obs_policy_ctx *ctx, const char *key)
        : result(ctx->ipc->get(ctx->ipc_ctx, key, &data, &len)) {}
    stored_value(const stored_value &) = delete;
    stored_value &operator=(const stored_value &) = delete;
    ~stored_value() { free(data); }
};

bool can_load_default_policy(const obs_policy_ctx *ctx) {
    return ctx && ctx->ipc && ctx->ipc->get && ctx->provider && ctx->provider->name &&
           ctx->service_name;
}

obs::key_path default_policy_key(const obs_policy_ctx *ctx, const char *service_name) {
    return obs::policy_key(service_name, "default", ctx->provider->name);
}

// What the handler gets for a deleted key whose event carries nothing decodable.
obs_policy *deletion_record(const obs_policy_ctx *ctx, const char *path) {
    auto *record = static_cast<obs_policy *>(calloc(1, sizeof(obs_policy)));
    if (!record) return nullptr;
    record->op = OBS_POLICY_OP_REMOVE;
    record->reqid = const_cast<char *>(deletion_reqid);
    record->path = const_cast<char *>(path);
    record->name = const_cast<char *>(ctx->provider->name);
    bool copied = obs::copy_text_in_place(&record->reqid) & obs::copy_text_in_place(&record->path) &
                  obs::copy_text_in_place(&record->name);
    if (!copied) {
        obs_policy_free(record);
        return nullptr;
    }
    return record;
}

// Each record of decoded, owned by ctx, through the translator; the lists it makes, in order.
obs_policy *translate_each(obs_policy_ctx *ctx, const char *service_name, obs_policy *decoded,
                           obs_policy_translator_fn translator) {
    obs_policy *translated = nullptr;
    for (obs_policy *record = decoded; record; record = record->next) {
        record->owner = ctx;
        obs_policy copy = *record;
        copy.next = nullptr;
        obs_policy *made = translator(ctx->user_ctx, service_name, &copy);
        // A translator that hands back what it was given keeps the record as it is; the copy
        // lives on this stack only.
        if (made == &copy) made = obs_policy_clone_one(&copy, 1);
        if (made) obs::list_append(&translated, made);
    }
    return translated;
}

// Lists made for the context's provider go back through its free. For a provider without one,
// obs_policy_free takes the plain path (the owner's provider has no free to call), so the list
// is released once and never leaks.
void release_received(obs_policy_ctx *ctx, obs_policy *list) {
    if (ctx->provider->free) {
        ctx->provider->free(list);
    } else {
        obs_policy_free(list);
    }
}

// The event a query came with, and the operation that logs on its behalf.
struct query_event {
    int op;
    const char *path;
    const char *service;
    const char *operation;
};

// The payload that answers a query: a text, or bytes when the stored answer says so.
struct query_answer {
    char *payload = nullptr;
    uint32_t length = 0;
    uint8_t bytes_format = 0;
};

query_answer text_answer(char *text) {
    query_answer answer;
    answer.payload = text;
    if (text) answer.length = static_cast<uint32_t>(strlen(text) + 1);
    return answer;
}

// A text that does not end within its length (a record may cut a longer text) goes out as bytes,
// so that encoding the answer reads no further than the length.
bool ends_within(const void *payload, uint32_t length) {
    return memchr(payload, '\0', length) != nullptr;
}

// The raw payload of the policy stored for the event's key, taken over from its decoded record.
query_answer stored_policy_answer(obs_policy_ctx *ctx, const query_event &event) {
    stored_value stored(ctx, event.path);
    OBS_LOG_AS(event.operation, "read policy=%s len=%d ret=%d", event.path, stored.len,
               stored.result);
    query_answer answer;
    if (!stored.data) return answer;
    obs_policy *policy =
        sdk_policy_decode(ctx, event.op, event.path, event.service, stored.data, stored.len);
    if (policy && policy->raw_val) {
        answer.payload = static_cast<char *>(policy->raw_val);
        answer.length = policy->raw_vlen;
        const bool bytes = (policy->format & OBS_POLICY_FORMAT_RAW_BYTES) ||
                           !ends_within(policy->raw_val, policy->raw_vlen);
        answer.bytes_format = bytes ? OBS_POLICY_FORMAT_RAW_BYTES : 0;
        policy->raw_val = nullptr;
    }
    obs_policy_free(policy);
    return answer;
}

bool asks_for_debug(const obs_policy *query) {
    return query->raw_vlen >= debug_mark_length &&
           memcmp(query->raw_val, debug_mark, debug_mark_length) == 0;
}

// A query without raw_val asks for the stored policy, one with "debug" (or an empty raw_val) for
// the IPC's state; any other raw_val has been answered already, by the handler.
void answer_query(obs_policy_ctx *ctx, const query_event &event, obs_policy *query) {
    if (!ctx->ipc || !ctx->ipc->get) return;
    if (query->raw_val && query->raw_vlen != 0 && !asks_for_debug(query)) return;
    query_answer answer = query->raw_val ? text_answer(obs_policy_dump_debuginfor(ctx))
                                         : stored_policy_answer(ctx, event);
    if (!answer.payload) answer = text_answer(strdup(no_policy));
    if (!answer.payload) return;
    free(query->raw_val);
    query->raw_val = answer.payload;
    query->raw_vlen = answer.length;
    query->format |= OBS_POLICY_FORMAT_RAW | answer.bytes_format;
    obs_policy_send_report(ctx, query);
}

}  // namespace

void obs::load_default_policy(obs_policy_ctx *ctx, const char *service_name,
                              const char *operation) {
    obs::key_path key = default_policy_key(ctx, service_name);
    stored_value stored(ctx, key.text);
    OBS_LOG_AS(operation, "try load policy=%s len=%d ret=%d", key.text, stored.len, stored.result);
    if (stored.data)
        sdk_policy_subscribe_handler(ctx, OBS_IPC_EVENT_SET, key.text, key.text, stored.data,
                                     stored.len);
}

extern "C" {

obs_policy *sdk_policy_decode(obs_policy_ctx *ctx, int op, const char *path,
                              const char *service_name, const void *data, int len) {
    if (!ctx || !data || len <= 0 || !ctx->handler || !ctx->provider) return nullptr;
    OBS_LOG("path=%s op=%d len=%d", obs::text_or_na(path), op, len);
    obs_policy *decoded = nullptr;
    obs_policy_internal_decode(data, static_cast<uint32_t>(len), &decoded);
    if (!decoded && op == OBS_IPC_EVENT_DELETE) decoded = deletion_record(ctx, path);
    if (!decoded) return nullptr;
    OBS_LOG("reqid=%s path=%s op=%d codec len=%d raw len=%d", obs::text_or_na(decoded->reqid),
            obs::text_or_na(decoded->path), decoded->op, static_cast<int>(decoded->codec_vlen),
            static_cast<int>(decoded->raw_vlen));
    obs_policy_translator_fn translator = ctx->provider->policy_translator;
    if (!translator) return decoded;
    OBS_LOG("policy_apply_translate found, run it");
    obs_policy *translated = translate_each(ctx, service_name, decoded, translator);
    obs_policy_free(decoded);
    return translated;
}

void sdk_policy_subscribe_handler(void *context, int op, const char *path, const char *,
                                  const void *data, int len) {
    auto *ctx = static_cast<obs_policy_ctx *>(context);
    obs::name_field service;
    if (!obs::service_of(path, &service)) {
        OBS_LOG("policy path is not valid, %s", obs::text_or_na(path));
        return;
    }
    obs_policy *list = sdk_policy_decode(ctx, op, path, service.text, data, len);
    if (!list) return;
    OBS_LOG("policy handler found, run it");
    ctx->handler(ctx, service.text, list, ctx->user_ctx);
    if (list->op == OBS_POLICY_OP_QUERY)
        answer_query(ctx, {op, path, service.text, __func__}, list);
    release_received(ctx, list);
}

void obs_policy_pull(obs_policy_ctx *ctx) {
    if (can_load_default_policy(ctx) && ctx->handler)
        obs::load_default_policy(ctx, ctx->service_name, __func__);
}

obs_policy *obs_policy_fetch(obs_policy_ctx *ctx) {
    if (!can_load_default_policy(ctx)) return nullptr;
    obs::key_path key = default_policy_key(ctx, ctx->service_name);
    stored_value stored(ctx, key.text);
    OBS_LOG("try load policy=%s len=%d ret=%d", key.text, stored.len, stored.result);
    if (!stored.data) return nullptr;
    return sdk_policy_decode(ctx, OBS_IPC_EVENT_FETCH, key.text, ctx->service_name, stored.data,
                             stored.len);
}

char *obs_policy_dump_debuginfor(obs_policy_ctx *ctx) {
    if (!ctx || !ctx->ipc || !ctx->ipc->dump_debuginfo || !ctx->ipc_ctx) return nullptr;
    return ctx->ipc->dump_debuginfo(ctx->ipc_ctx);
}

}  // extern "C"
