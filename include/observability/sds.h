/* obs_sds: a growable, NUL-terminated byte string whose handle is a plain char *. A header with
 * the used length and the capacity sits directly in front of the characters; the byte at index
 * len is always NUL, and the data may hold NUL bytes of its own. */
#ifndef OBSERVABILITY_SDS_H
#define OBSERVABILITY_SDS_H

#include "observability/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A new empty string with a 1024-byte data area, or null when memory runs out. */
OBS_EXPORT obs_sds obs_sdsempty(void);

/* Ensure at least addlen free bytes after the used length. Capacity grows by max(addlen, 1024).
 * Returns the possibly moved string; null when memory runs out, s then stays valid and
 * unchanged. s must not be null. */
OBS_EXPORT obs_sds obs_sdsMakeRoomFor(obs_sds s, uint32_t addlen);

/* Append n bytes from src (n zero bytes when src is null, which makes a NUL part of the counted
 * length). Returns the possibly moved string, or null (s unchanged) when memory runs out. */
OBS_EXPORT obs_sds obs_sdscat(obs_sds s, const void *src, uint32_t n);

/* obs_sdscat of text and its strlen; text must not be null. */
OBS_EXPORT obs_sds obs_sdscatstr(obs_sds s, const char *text);

/* Empty the string in place, keeping its capacity. Null is ignored. */
OBS_EXPORT void obs_sdsclear(obs_sds s);

/* Release the string. Null is ignored. */
OBS_EXPORT void obs_sdsfree(obs_sds s);

/* Used length (terminator not counted), 0 for null. */
OBS_EXPORT uint32_t obs_sdslen(obs_sds s);

#ifdef __cplusplus
}
#endif

#endif
