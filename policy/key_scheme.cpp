// Names that may stand between the braces of a key path, and taking key paths apart again.
#include <cstring>

#include "observability/ipc.h"
#include "support/log.h"

namespace {

constexpr char service_mark[] = "/service{";
constexpr char scope_mark[] = "}/scope{";

// Copies length characters from begin into out, cut at size - 1 and terminated; nothing is
// written when size is 0.
void copy_cut(char *out, size_t size, const char *begin, size_t length) {
    if (size == 0) return;
    if (length > size - 1) length = size - 1;
    memcpy(out, begin, length);
    out[length] = '\0';
}

// The field between the first "{" and the next "}" of path into field, and what follows the
// "}/" into rest when rest is not null; each output cut at its own size.
int split_field(const char *path, char *field, size_t field_size, char *rest, size_t rest_size) {
    if (!path || !field) return OBS_ERR_FAILED;
    char work[512];
    copy_cut(work, sizeof work, path, strnlen(path, sizeof work - 1));
    const char *open = strchr(work, '{');
    if (!open) return OBS_ERR_FAILED;
    const char *close = strchr(open + 1, '}');
    if (!close) return OBS_ERR_FAILED;
    copy_cut(field, field_size, open + 1, close - open - 1);
    if (!rest) return OBS_OK;
    const char *after = close[1] ? close + 2 : close + 1;
    copy_cut(rest, rest_size, after, strlen(after));
    return OBS_OK;
}

}  // namespace

extern "C" {

int obs_valid_name(const char *name) {
    if (name && *name && !strpbrk(name, "{}")) return 1;
    obs::log_line("invalid name, '{', '}' not allowed");
    return OBS_OK;
}

int obs_path_to_channel_field_str(const char *path, char *field, char *rest, unsigned size) {
    return split_field(path, field, size, rest, size);
}

int obs_parser_service_scope(const char *path, char *service, char *scope, char *rest,
                             unsigned size) {
    if (!path || !service) return OBS_ERR_FAILED;
    const char *service_at = strstr(path, service_mark);
    if (!service_at) return OBS_ERR_FAILED;
    const char *scope_at = nullptr;
    if (scope) {
        scope_at = strstr(service_at + sizeof service_mark - 1, scope_mark);
        if (!scope_at) return OBS_ERR_FAILED;
    }
    char after_service[256] = {};
    if (split_field(path, service, size, after_service, sizeof after_service) != OBS_OK)
        return OBS_ERR_FAILED;
    if (!scope) return OBS_OK;
    if (obs_path_to_channel_field_str(after_service, scope, rest, size) != OBS_OK)
        return OBS_ERR_FAILED;
    if (rest && !strstr(scope_at + sizeof scope_mark - 1, "}/")) return OBS_ERR_FAILED;
    return OBS_OK;
}

}  // extern "C"
