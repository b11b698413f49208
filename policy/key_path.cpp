#include "policy/key_path.h"

namespace obs {

key_path service_index_key() {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service_keys");
    return key;
}

key_path service_uid_key(const char *service) {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/uid", service);
    return key;
}

key_path sdk_version_key(const char *service, const char *sdk) {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/policysdk{%s}/version", service, sdk);
    return key;
}

key_path sdk_index_key(const char *service) {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/policysdk_keys", service);
    return key;
}

key_path scope_name_key(const char *service, const char *scope) {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/scope{%s}/name", service, scope);
    return key;
}

key_path policy_key(const char *service, const char *scope, const char *sdk) {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/scope{%s}/%s", service, scope, sdk);
    return key;
}

key_path report_key(const char *service) {
    key_path key;
    key.format(OBS_IPC_KEY_ROOT "service{%s}/report", service);
    return key;
}

key_path record_path(const char *root, const char *service, const char *scope, const char *sdk) {
    key_path path;
    path.format("%s/service{%s}/scope{%s}/%s", root, service, scope, sdk);
    return path;
}

key_path record_path_from_prefix(const char *prefix, const char *service, const char *scope,
                                 const char *rest) {
    key_path path;
    path.format("%s{%s}/scope{%s}/%s", prefix, service, scope, rest);
    return path;
}

}  // namespace obs
