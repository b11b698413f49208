#include "otelc/resource.h"

#include <cstdlib>
#include <cstring>

#include "otelc/diag.h"

#ifndef OTELC_VERSION
#error "OTELC_VERSION is defined by the build"
#endif

namespace otelc {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

char *percent_decoded(const char *begin, const char *end) {
    while (begin < end && (*begin == ' ' || *begin == '\t')) ++begin;
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t')) --end;
    auto *out = static_cast<char *>(malloc(end - begin + 1));
    if (!out) return nullptr;
    char *o = out;
    for (const char *p = begin; p < end; ++p) {
        if (*p != '%') {
            *o++ = *p;
            continue;
        }
        const int high = p + 2 < end ? hex_digit(p[1]) : -1;
        const int low = high >= 0 ? hex_digit(p[2]) : -1;
        if (low < 0) {
            free(out);
            return nullptr;
        }
        *o++ = static_cast<char>(high << 4 | low);
        p += 2;
    }
    *o = '\0';
    return out;
}

namespace {

void put_text(AttrMap *map, const char *key, const char *value) {
    Attr item{};
    item.key = const_cast<char *>(key);
    item.type = AttrType::text;
    item.value.text = const_cast<char *>(value);
    attrs_put(map, item, kUnlimited);
}

}  // namespace

bool parse_resource_attributes(const char *text, AttrMap *map) {
    AttrMap parsed{};
    bool good = true;
    for (const char *pair = text; good && *pair;) {
        const char *end = strchr(pair, ',');
        if (!end) end = pair + strlen(pair);
        const char *equals = static_cast<const char *>(memchr(pair, '=', end - pair));
        char *key = equals ? percent_decoded(pair, equals) : nullptr;
        char *value = key ? percent_decoded(equals + 1, end) : nullptr;
        good = value && *key;
        if (good) put_text(&parsed, key, value);
        free(key);
        free(value);
        pair = *end ? end + 1 : end;
    }
    if (!good) {
        diag("OTEL_RESOURCE_ATTRIBUTES='%s' is not a list of k=v pairs; ignored", text);
    } else {
        uint32_t dropped = 0;
        attrs_merge(map, &parsed, kUnlimited, &dropped);
    }
    attrs_clear(&parsed);
    return good;
}

void resource_build(AttrMap *resource, const char *service_name, const char *service_version,
                    const AttrMap *given) {
    if (const char *text = env_text("OTEL_RESOURCE_ATTRIBUTES"))
        parse_resource_attributes(text, resource);
    put_text(resource, "telemetry.sdk.name", "opentelemetry-c");
    put_text(resource, "telemetry.sdk.language", "cpp");
    put_text(resource, "telemetry.sdk.version", OTELC_VERSION);
    if (service_name) put_text(resource, "service.name", service_name);
    if (service_version) put_text(resource, "service.version", service_version);
    uint32_t dropped = 0;
    attrs_merge(resource, given, kUnlimited, &dropped);
}

}  // namespace otelc
