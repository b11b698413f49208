/* Small text conversions of the value model: hexadecimal digits and a one-node preview. */
#include <cstdio>

#include "observability/value.h"

uint8_t obs_hex_char_to_value(char c) {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    return 0;
}

void obs_hex_to_byte(void *dst, const char *src, uint32_t n) {
    auto *bytes = static_cast<uint8_t *>(dst);
    for (uint32_t i = 0; i < n / 2; ++i)
        bytes[i] = static_cast<uint8_t>(obs_hex_char_to_value(src[2 * i]) << 4 |
                                        obs_hex_char_to_value(src[2 * i + 1]));
}

const char *obs_any_value_print(const obs_any_value *node, char *buf, uint32_t size) {
    if (!node || !buf || !size) return "";
    const int count = static_cast<int>(node->vlen);
    switch (OBS_VALUE_TYPE_CODE(node->type)) {
        case OBS_VALUE_STR: {
            const char *str = static_cast<const char *>(node->val.ptr);
            snprintf(buf, size, "\"%s\"", str ? str : "");
            break;
        }
        case OBS_VALUE_BOOL:
            snprintf(buf, size, "%s", node->val.b ? "true" : "false");
            break;
        case OBS_VALUE_INT:
            snprintf(buf, size, "%lld", static_cast<long long>(node->val.i));
            break;
        case OBS_VALUE_DOUBLE:
            snprintf(buf, size, "%f", node->val.d);
            break;
        case OBS_VALUE_ARRAY:
            snprintf(buf, size, "%d(%s)", count, "array");
            break;
        case OBS_VALUE_KVLIST:
            snprintf(buf, size, "%d(%s)", count, "kvlist");
            break;
        case OBS_VALUE_BYTES:
            snprintf(buf, size, "%d(%s)", count, "bytes");
            break;
        default:
            buf[0] = '\0';
            break;
    }
    return buf;
}
