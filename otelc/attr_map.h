// Attribute sets: an array of keys with scalar values, each key at most once, in the order the
// keys were first set. Each key and its string value are the map's own copy in one piece: in the
// text room of the block holding the map while it lasts, malloc'd beyond it.
#ifndef OTELC_ATTR_MAP_H
#define OTELC_ATTR_MAP_H

#include <cstdint>

#include "observability/otelc.h"

namespace otelc {

enum class AttrType : uint8_t { boolean, int64, real, text };

struct Attr {
    char *key;  // owns the piece; a string value follows the key's terminator in it
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

// Zero-filled is empty, with no room of its own and free to be copied. A map given room by
// attrs_init stays where it is: its items and texts may point into that room.
struct AttrMap {
    otelc::Attr *items;
    uint32_t count;
    uint32_t capacity;
    otelc::Attr *room_items;  // in the block holding the map, or null
    uint32_t room_capacity;
    uint32_t text_used;
    uint32_t text_size;
    char *text;  // in the block holding the map, or null
};

namespace otelc {

// An empty map that keeps its first items and texts in the room given, so that a small map
// allocates nothing beyond the block holding it.
void attrs_init(AttrMap *map, Attr *items, uint32_t item_room, char *text, uint32_t text_room);
// Sets item's key to item's value (both copied). A key not yet present is refused when the map
// already holds limit keys; false when refused or out of memory.
bool attrs_put(AttrMap *map, const Attr &item, uint32_t limit);
// Puts every item of from into map; the number of items refused is added to *dropped.
void attrs_merge(AttrMap *map, const AttrMap *from, uint32_t limit, uint32_t *dropped);
// Releases what the map holds and leaves it empty, with the room it was given.
void attrs_clear(AttrMap *map);
const Attr *attrs_find(const AttrMap *map, const char *key);
// Whether the maps hold the same keys with the same values (reals compared bit for bit, so that a
// set holding NaN still equals itself); a null map is empty.
bool attrs_equal(const AttrMap *a, const AttrMap *b);

}  // namespace otelc

#endif
