// The handler every context gives its policy context: it keeps the policy in force, applies it to
// the scopes of every context of the service, resets it, answers "debug" queries with the dump,
// and traces each request as the span "opa.request" in the context's scope "opa". It runs on the
// IPC provider's delivery thread (or inside obs_ctx_init) and holds the API lock throughout.
#include <cstdlib>
#include <cstring>

#include "api/api_lock.h"
#include "observability/instrumentation.h"
#include "observability/policy_channel.h"
#include "observability/sds.h"
#include "policy_ot/translated_record.h"
#include "support/log.h"
#include "support/owned_copy.h"

namespace {

constexpr char kRequestScope[] = "opa";
constexpr char kRequestScopeVersion[] = "1.1.0";
constexpr int kRequestScopeLogLevel = 2;
constexpr char kRequestSpan[] = "opa.request";
constexpr char kDebugMark[] = "debug";
constexpr char kNoDebugInfo[] = "there is no debug infor";

// The record's translated "ot" entries, or null when it holds none.
obs_policy_ot *entries_of(const obs_policy *policy) {
    return policy && obs::is_translated_record(policy)
               ? static_cast<obs_policy_ot *>(policy->codec_val)
               : nullptr;
}

void reset(obs_ctx *ctx, const char *service_name, const obs_policy *request) {
    sdk_policy_ot_free(ctx->policy);
    ctx->policy = nullptr;
    obs_scope_set_policy_by_name(service_name, nullptr, OBS_POLICY_OP_REMOVE, entries_of(request));
}

// Undoes the policy held so far, then holds and applies a copy of the new one. A copy that cannot
// be made leaves the context without policy. The copy is the sampling SDK's, so its free releases
// it: the owner link the copy keeps may outlive the policy context it names.
void apply(obs_ctx *ctx, const char *service_name, const obs_policy *request) {
    if (ctx->policy) {
        obs_scope_set_policy_by_name(service_name, nullptr, OBS_POLICY_OP_REMOVE,
                                     entries_of(ctx->policy));
        sdk_policy_ot_free(ctx->policy);
    }
    ctx->policy = sdk_policy_ot_clone(request, 0);
    if (ctx->policy)
        obs_scope_set_policy_by_name(service_name, nullptr, request->op, entries_of(ctx->policy));
}

bool asks_for_debug(const obs_policy *query) {
    return query->raw_val && query->raw_vlen >= sizeof kDebugMark - 1 &&
           memcmp(query->raw_val, kDebugMark, sizeof kDebugMark - 1) == 0;
}

// The dump goes back as the query's raw value, without its terminator in the length.
void answer_debug_query(obs_policy_ctx *policy_ctx, obs_policy *query) {
    free(query->raw_val);
    query->raw_val = nullptr;
    query->raw_vlen = 0;
    obs_sds dump = obs_dump(obs_sdsempty());
    if (dump) {
        query->raw_val = obs::copy_block(dump, obs_sdslen(dump) + 1);
        if (query->raw_val) query->raw_vlen = obs_sdslen(dump);
        obs_sdsfree(dump);
    }
    if (!query->raw_val) {
        query->raw_val = obs::copy_block(kNoDebugInfo, sizeof kNoDebugInfo);
        query->raw_vlen = query->raw_val ? sizeof kNoDebugInfo : 0;
    }
    query->format |= OBS_POLICY_FORMAT_RAW;
    obs_policy_send_report(policy_ctx, query);
}

void trace_request(obs_ctx *ctx, const obs_policy *request) {
    obs_key_value *attrs = nullptr;
    if (request->reqid) obs_key_value_add_str(&attrs, "opa.request.id", request->reqid, 0);
    obs_key_value_add_int(&attrs, "opa.request.action", request->op);
    obs_span *span = obs_span_start_from_context(ctx->opa_scope, request->traceid, kRequestSpan);
    obs_span_attrs_set(span, attrs);
    obs_span_end(span);
    obs_key_value_free(attrs);
}

}  // namespace

extern "C" {

void obs_policy_handler(obs_policy_ctx *policy_ctx, const char *service_name, obs_policy *policy,
                        void *user_ctx) {
    auto *ctx = static_cast<obs_ctx *>(user_ctx);
    if (!policy_ctx || !policy || !ctx) return;
    obs::api_guard guard;
    if (ctx->closing) return;
    obs::log_line(">>>>>>>>>>>>ot policy handler, service=%s policy=%s type=%d op=%d format=0x%02x",
                  obs::text_or_na(service_name), obs::text_or_na(policy->name), policy->type,
                  policy->op, policy->format);
    // A policy stored for "default" arrives while obs_ctx_init is still creating the policy
    // context; registering the "opa" scope needs it.
    if (!ctx->policy_ctx) ctx->policy_ctx = policy_ctx;
    if (!ctx->opa_scope)
        ctx->opa_scope = obs_scope_create(ctx, kRequestScope, kRequestScopeVersion,
                                          OBS_SAMPLING_ALL_ON, kRequestScopeLogLevel);
    if (policy->op == OBS_POLICY_OP_REMOVE) {
        reset(ctx, service_name, policy);
    } else if (policy->op == OBS_POLICY_OP_QUERY) {
        if (asks_for_debug(policy)) answer_debug_query(policy_ctx, policy);
    } else if (OBS_POLICY_OP_IS_APPLY(policy->op)) {
        apply(ctx, service_name, policy);
    }
    trace_request(ctx, policy);
}

}  // extern "C"
