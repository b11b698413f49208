// Attribute sets: an array of keys with scalar values, each key at most once, in the order the
// keys were first set. Keys and string values are the map's own malloc'd copies.
#ifndef OTELC_ATTR_MAP_H
#define OTELC_ATTR_MAP_H

#include <cstdint>

#include "observability/otelc.h"

namespace otelc {

enum class AttrType : uint8_t { boolean, int64, real, text };

struct Attr {
    char *key;
    AttrType type;
    union {
        bool boolean;
        int64_t int64;
        double real;
        char *text;
    } value;
};

// No limit on the number of keys.
constexpr uint32_t kUnlimited = UINT32_MAX;

}  // namespace otelc

// Zero-filled is empty.
struct AttrMap {
    otelc::Attr *items;
    uint32_t count;
    uint32_t capacity;
};

namespace otelc {

// Sets item's key to item's value (both copied). A key not yet present is refused when the map
// already holds limit keys; false when refused or out of memory.
bool attrs_put(AttrMap *map, const Attr &item, uint32_t limit);
// Puts every item of from into map; the number of items refused is added to *dropped.
void attrs_merge(AttrMap *map, const AttrMap *from, uint32_t limit, uint32_t *dropped);
// Releases what the map holds and leaves it empty.
void attrs_clear(AttrMap *map);
const Attr *attrs_find(const AttrMap *map, const char *key);

}  // namespace otelc

#endif
