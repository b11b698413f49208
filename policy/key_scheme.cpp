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
    if (!path || !field) return -1;
    char work[512];
    copy_cut(work, sizeof work, path, strnlen(path, sizeof work - 1));
    const char *open = strchr(work, '{');
    if (!open) return -1;
    const char *close = strchr(open + 1, '}');
    if (!close) return -1;
    copy_cut(field, field_size, open + 1, close - open - 1);
    if (!rest) return 0;
    const char *after = close[1] ? close + 2 : close + 1;
    copy_cut(rest, rest_size, after, strlen(after));
    return 0;
}

}  // namespace

extern "C" {

int obs_valid_name(const char *name) {
    if (name && *name && !strpbrk(name, "{}")) return 1;
    obs::log_line("invalid name, '{', '}' not allowed");
    return 0;
}

int obs_path_to_channel_field_str(const char *path, char *field, char *rest, unsigned size) {
    return split_field(path, field, size, rest, size);
}

int obs_parser_service_scope(const char *path, char *service, char *scope, char *rest,
                             unsigned size) {
    if (!path || !service) return -1;
    const char *service_at = strstr(path, service_mark);
    if (!service_at) return -1;
    const char *scope_at = nullptr;
    if (scope) {
        scope_at = strstr(service_at + sizeof service_mark - 1, scope_mark);
        if (!scope_at) return -1;
    }
    char after_service[256] = {};
    if (split_field(path, service, size, after_service, sizeof after_service) != 0) return -1;
    if (!scope) return 0;
    if (obs_path_to_channel_field_str(after_service, scope, rest, size) != 0) return -1;
    if (rest && !strstr(scope_at + sizeof scope_mark - 1, "}/")) return -1;
    return 0;
}

}  // extern "C"
