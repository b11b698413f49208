#include "policy/key_path.h"

namespace obs {

namespace {

template <typename... Args>
key_path format_key(const char *pattern, Args... args) {
    key_path key;
    key.format(pattern, args...);
    return key;
}

}  // namespace

key_path service_index_key() {
    return format_key(OBS_IPC_KEY_ROOT "service_keys");
}

key_path service_uid_key(const char *service) {
    return format_key(OBS_IPC_KEY_ROOT "service{%s}/uid", service);
}

key_path sdk_version_key(const char *service, const char *sdk) {
    return format_key(OBS_IPC_KEY_ROOT "service{%s}/policysdk{%s}/version", service, sdk);
}

key_path sdk_index_key(const char *service) {
    return format_key(OBS_IPC_KEY_ROOT "service{%s}/policysdk_keys", service);
}

key_path scope_name_key(const char *service, const char *scope) {
    return format_key(OBS_IPC_KEY_ROOT "service{%s}/scope{%s}/name", service, scope);
}

key_path policy_key(const char *service, const char *scope, const char *sdk) {
    return format_key(OBS_IPC_KEY_ROOT "service{%s}/scope{%s}/%s", service, scope, sdk);
}

key_path report_key(const char *service) {
    return format_key(OBS_IPC_KEY_ROOT "service{%s}/report", service);
}

bool service_of(const char *path, name_field *service) {
    return obs_path_to_channel_field_str(path, service->text, nullptr, sizeof service->text) ==
           OBS_OK;
}

key_path record_path(const char *root, const char *service, const char *scope, const char *sdk) {
    return format_key("%s/service{%s}/scope{%s}/%s", root, service, scope, sdk);
}

key_path record_path_from_prefix(const char *prefix, const char *service, const char *scope,
                                 const char *rest) {
    return format_key("%s{%s}/scope{%s}/%s", prefix, service, scope, rest);
}

}  // namespace obs
