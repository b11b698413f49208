// The service directory the agent reads from the registration indexes, and the reports services
// send back. Index listings and report events come from other processes: a listing that claims
// members without an array, a null member or a report of no bytes is taken as nothing.
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "observability/policy_channel.h"
#include "policy/ipc_calls.h"
#include "policy/key_path.h"
#include "support/list.h"
#include "support/log.h"

namespace {

// Every report of the process takes the next number; the first one carries 1.
uint64_t report_sequence = 0;

// Members handed over by a successful list: the array is released here, the texts belong to
// whoever takes them out.
struct listed_members {
    char **names = nullptr;
    uint32_t count = 0;

    listed_members() = default;
    listed_members(const listed_members &) = delete;
    listed_members &operator=(const listed_members &) = delete;
    ~listed_members() { free(names); }
};

// The members of one service's index as a new array of the present texts, each logged with
// line_format. A failed listing leaves the array empty; so does a failed allocation, which releases
// the texts.
void take_members(obs_policy_ctx *ctx, const char *index_key, const char *line_format, char ***out,
                  uint32_t *out_count) {
    listed_members listed;
    if (ctx->ipc->list(ctx->ipc_ctx, index_key, &listed.names, &listed.count) != 0 ||
        !listed.names || listed.count == 0)
        return;
    auto *taken = static_cast<char **>(malloc(listed.count * sizeof(char *)));
    uint32_t kept = 0;
    for (uint32_t i = 0; i < listed.count; ++i) {
        char *name = listed.names[i];
        if (!name) continue;
        if (!taken) {
            free(name);
            continue;
        }
        taken[kept++] = name;
        obs::log_line(line_format, name);
    }
    if (kept == 0) {
        free(taken);
        return;
    }
    *out = taken;
    *out_count = kept;
}

// A directory entry for the service name (taken over), or null (the name released).
obs_policy_service *load_one_service(obs_policy_ctx *ctx, char *name) {
    auto *service = static_cast<obs_policy_service *>(calloc(1, sizeof(obs_policy_service)));
    if (!service) {
        free(name);
        return nullptr;
    }
    service->name = name;
    obs::log_line("detect service: %s", name);
    take_members(ctx, obs::sdk_index_key(name).text, "\tpolicy: %s", &service->sdks,
                 &service->sdk_count);
    take_members(ctx, obs::scope_index_key(name).text, "\tscope: %s", &service->scopes,
                 &service->scope_count);
    return service;
}

void free_names(char **names, uint32_t count) {
    for (uint32_t i = 0; names && i < count; ++i) free(names[i]);
    free(names);
}

void print_names(FILE *stream, const char *format, char *const *names, uint32_t count) {
    for (uint32_t i = 0; names && i < count; ++i) {
        if (names[i]) fprintf(stream, format, names[i]);
    }
}

// The report in data, or null when there is none or it does not decode. The decoder reads no
// further than len.
obs_policy *decode_report(const void *data, int len) {
    obs_policy *report = nullptr;
    if (data && len > 0) obs_policy_internal_decode(data, static_cast<uint32_t>(len), &report);
    return report;
}

// A report that names no service, or "*", is renamed after the service whose key it came from.
void name_reporting_service(obs_policy *report, const char *service) {
    char named[256] = {}, scope[256] = {}, rest[256] = {};
    obs_parser_service_scope(report->path, named, scope, rest, sizeof named);
    if (named[0] != '\0' && named[0] != '*') return;
    obs::key_path prefix;
    prefix.format("%.*s", static_cast<int>(strcspn(report->path, "{")), report->path);
    char *renamed = strdup(obs::record_path_from_prefix(prefix.text, service, scope, rest).text);
    if (!renamed) return;
    free(report->path);
    report->path = renamed;
}

}  // namespace

extern "C" {

obs_policy_service *obs_policy_load_service(obs_policy_ctx *ctx) {
    if (!ctx || !ctx->ipc || !ctx->ipc->list) return nullptr;
    listed_members services;
    int ret = ctx->ipc->list(ctx->ipc_ctx, obs::service_index_key().text, &services.names,
                             &services.count);
    if (ret != 0) {
        OBS_LOG("detect registered services fail: %d", ret);
        return nullptr;
    }
    OBS_LOG("detect registered services count: %d", static_cast<int>(services.count));
    if (services.count == 0 || !services.names) return nullptr;
    obs_policy_service *directory = nullptr;
    for (uint32_t i = 0; i < services.count; ++i) {
        if (!services.names[i]) continue;
        if (obs_policy_service *service = load_one_service(ctx, services.names[i]))
            obs::list_append(&directory, service);
    }
    return directory;
}

void obs_policy_print_service(FILE *stream, const obs_policy_service *list) {
    if (!stream) return;
    for (; list; list = list->next) {
        if (list->name) fprintf(stream, "service: %s\n", list->name);
        print_names(stream, "  scope : %s\n", list->scopes, list->scope_count);
        print_names(stream, "  sdk : %s\n", list->sdks, list->sdk_count);
    }
}

void obs_policy_free_service(obs_policy_service *list) {
    obs::list_release(list, [](obs_policy_service *service) {
        free(service->name);
        free_names(service->scopes, service->scope_count);
        free_names(service->sdks, service->sdk_count);
        free(service);
    });
}

int obs_policy_send_report(obs_policy_ctx *ctx, obs_policy *rec) {
    if (!ctx || !ctx->ipc || !ctx->ipc->set || !rec || !ctx->service_name) return OBS_ERR_FAILED;
    obs::key_path key = obs::report_key(ctx->service_name);
    rec->seq_id = __atomic_add_fetch(&report_sequence, 1, __ATOMIC_RELAXED);
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(rec, &text, &len);
    if (!text) return OBS_ERR_FAILED;
    int ret = obs::send_or_store(ctx, key.text, text, len);
    OBS_LOG("path=%s vlen=%d seq=%" PRIu64 ", ret=%d", obs::text_or_na(rec->path),
            static_cast<int>(len), rec->seq_id, ret);
    free(text);
    return ret;
}

void obs_policy_set_service_report(obs_policy_ctx *ctx, const char *service_name,
                                   obs_policy_service_report_fn fn) {
    if (!ctx || !ctx->provider) return;
    ctx->provider->service_report_handler = fn;
    if (fn && ctx->ipc && ctx->ipc->subscribe)
        obs::subscribe_service_key(ctx, service_name, obs::report_key,
                                   sdk_policy_service_report_handler, "report", __func__);
}

void sdk_policy_service_report_handler(void *context, int op, const char *path, const char *,
                                       const void *data, int len) {
    auto *ctx = static_cast<obs_policy_ctx *>(context);
    if (!ctx || op == OBS_IPC_EVENT_DELETE || !ctx->provider) return;
    OBS_LOG("path=%s len=%d", obs::text_or_na(path), len);
    obs::name_field service;
    if (!obs::service_of(path, &service)) return;
    obs_policy *report = decode_report(data, len);
    if (report && report->path) name_reporting_service(report, service.text);
    if (obs_policy_service_report_fn handler = ctx->provider->service_report_handler)
        handler(ctx, service.text, report);
    obs_policy_free(report);
}

}  // extern "C"
