// The diagnostic dump: every context with its providers, every scope with its sampling, log level
// and counters, the IPC provider's own text, and a closing count; as text for "debug" queries and
// as the file "/tmp/<pid>/obs_info".
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "api/api_lock.h"
#include "observability/instrumentation.h"
#include "observability/policy_channel.h"
#include "observability/sds.h"

namespace {

const char *text_or(const char *text, const char *missing) {
    return text ? text : missing;
}

// Appends at most size - 1 formatted characters; s stays as it was when memory runs out.
template <size_t Size>
__attribute__((format(printf, 2, 3))) obs_sds append_line(obs_sds s, const char *format, ...) {
    char line[Size];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (n < 0) return s;
    if (n >= static_cast<int>(sizeof line)) n = sizeof line - 1;
    obs_sds grown = obs_sdscat(s, line, static_cast<uint32_t>(n));
    return grown ? grown : s;
}

obs_sds dump_scope(obs_sds s, const obs_scope *scope) {
    char sampling[128];
    char default_sampling[128];
    s = append_line<512>(
        s, "scope: %-16s ver: %-6s sampling: %s(%s) log level: %d(%d)\n", scope->name,
        text_or(scope->version, ""),
        obs_policy_ot_sampler_dump_config(scope->sampling, sampling, sizeof sampling),
        obs_policy_ot_sampler_dump_config(scope->default_sampling, default_sampling,
                                          sizeof default_sampling),
        scope->log_level, scope->default_log_level);
    return append_line<512>(s, "\tspan: %d(%d) log: %d metrics: %d\n",
                            __atomic_load_n(&scope->span_count, __ATOMIC_RELAXED),
                            __atomic_load_n(&scope->open_span_count, __ATOMIC_RELAXED),
                            __atomic_load_n(&scope->log_count, __ATOMIC_RELAXED),
                            __atomic_load_n(&scope->metric_count, __ATOMIC_RELAXED));
}

obs_sds dump_ipc(obs_sds s, obs_ctx *ctx) {
    if (!ctx->policy_ctx) return s;
    char *text = obs_policy_dump_debuginfor(ctx->policy_ctx);
    if (!text) return s;
    obs_sds grown = obs_sdscatstr(s, text);
    free(text);
    if (grown) s = grown;
    grown = obs_sdscat(s, "\n", 1);
    return grown ? grown : s;
}

// The dump's directory: a real directory of this user, created when missing. -1 otherwise.
int open_dump_dir(const char *path) {
    if (mkdir(path, 0777) != 0 && errno != EEXIST) return -1;
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
        close(fd);
        return -1;
    }
    return fd;
}

FILE *open_dump_file() {
    char dir[138];
    snprintf(dir, sizeof dir, "/tmp/%d", static_cast<int>(getpid()));
    int dir_fd = open_dump_dir(dir);
    if (dir_fd < 0) return nullptr;
    int fd =
        openat(dir_fd, "obs_info", O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    close(dir_fd);
    if (fd < 0) return nullptr;
    FILE *file = fdopen(fd, "w");
    if (!file) close(fd);
    return file;
}

}  // namespace

extern "C" {

obs_sds obs_dump_one(obs_sds s, obs_ctx *ctx) {
    if (!s || !ctx) return s;
    obs::api_guard guard;
    const obs_sdk_provider *sdk = ctx->sdk_provider;
    const obs_ipc_provider *ipc = ctx->ipc_provider;
    s = append_line<512>(
        s, "service: %s tid: %d sdk(ot): %s-%s sdk(ipc): %s-%s\n", text_or(ctx->name, ""), ctx->tid,
        text_or(sdk ? sdk->name : nullptr, ""), text_or(sdk ? sdk->version : nullptr, "na"),
        text_or(ipc ? ipc->name : nullptr, "na"), text_or(ipc ? ipc->version : nullptr, "na"));
    for (const obs_scope *scope = ctx->scopes; scope; scope = scope->next) s = dump_scope(s, scope);
    return dump_ipc(s, ctx);
}

obs_sds obs_dump(obs_sds s) {
    if (!s) return nullptr;
    obs::api_guard guard;
    int count = 0;
    for (const obs_info_node *node = obs_info_list; node; node = node->next, ++count)
        s = obs_dump_one(s, node->ctx);
    return append_line<128>(s, "obs count: %d pid: %d\n", count, static_cast<int>(getpid()));
}

void obs_dump_info_to_file(void) {
    FILE *file = open_dump_file();
    if (!file) return;
    obs_sds dump = obs_dump(obs_sdsempty());
    if (dump) fputs(dump, file);
    obs_sdsfree(dump);
    fclose(file);
}

}  // extern "C"
