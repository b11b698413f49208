// Dynamic string: one heap block holding a header {len, alloc} followed by alloc data bytes.
// The handle points at the first data byte. Invariant: len < alloc and data[len] == '\0'.
#include "observability/sds.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kInitialAlloc = 1024;
constexpr uint32_t kLeastGrowth = 1024;

struct sds_header {
    uint32_t len;
    uint32_t alloc;
};

sds_header *header_of(obs_sds s) {
    return reinterpret_cast<sds_header *>(s - sizeof(sds_header));
}

obs_sds data_of(sds_header *h) {
    return reinterpret_cast<char *>(h) + sizeof(sds_header);
}

}  // namespace

extern "C" {

obs_sds obs_sdsempty(void) {
    auto *h = static_cast<sds_header *>(calloc(1, sizeof(sds_header) + kInitialAlloc));
    if (!h) return nullptr;
    h->alloc = kInitialAlloc;
    return data_of(h);
}

obs_sds obs_sdsMakeRoomFor(obs_sds s, uint32_t addlen) {
    sds_header *h = header_of(s);
    if (h->alloc - h->len >= addlen) return s;
    uint32_t growth = addlen > kLeastGrowth ? addlen : kLeastGrowth;
    if (growth > UINT32_MAX - sizeof(sds_header) - h->alloc) return nullptr;
    uint32_t new_alloc = h->alloc + growth;
    auto *grown = static_cast<sds_header *>(realloc(h, sizeof(sds_header) + new_alloc));
    if (!grown) return nullptr;
    grown->alloc = new_alloc;
    return data_of(grown);
}

obs_sds obs_sdscat(obs_sds s, const void *src, uint32_t n) {
    if (n == UINT32_MAX) return nullptr;
    uint32_t len = header_of(s)->len;
    s = obs_sdsMakeRoomFor(s, n + 1);
    if (!s) return nullptr;
    if (src)
        memcpy(s + len, src, n);
    else
        memset(s + len, 0, n);
    header_of(s)->len = len + n;
    s[len + n] = '\0';
    return s;
}

obs_sds obs_sdscatstr(obs_sds s, const char *text) {
    return obs_sdscat(s, text, static_cast<uint32_t>(strlen(text)));
}

void obs_sdsclear(obs_sds s) {
    if (!s) return;
    header_of(s)->len = 0;
    s[0] = '\0';
}

void obs_sdsfree(obs_sds s) {
    if (s) free(header_of(s));
}

uint32_t obs_sdslen(obs_sds s) {
    return s ? header_of(s)->len : 0;
}

}  // extern "C"
