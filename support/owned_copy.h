// Private copies of payloads, in memory that crosses the interface (malloc/free).
#ifndef OBS_SUPPORT_OWNED_COPY_H
#define OBS_SUPPORT_OWNED_COPY_H

#include <cstdlib>
#include <cstring>

namespace obs {

// A malloc'd copy of n bytes, or null when memory runs out.
inline void *copy_block(const void *src, size_t n) {
    void *copy = malloc(n);
    if (copy) memcpy(copy, src, n);
    return copy;
}

// Replaces the text in *field, when there is one, by a copy of it; false when memory runs out
// (the field is then null).
inline bool copy_text_in_place(char **field) {
    if (!*field) return true;
    *field = strdup(*field);
    return *field != nullptr;
}

}  // namespace obs

#endif
