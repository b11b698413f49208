#include "otelc/attr_map.h"

#include <cstdlib>
#include <cstring>

#include "otelc/diag.h"

namespace otelc {

namespace {

constexpr uint32_t kFirstHeapItems = 8;

bool in_room(const AttrMap *map, const char *piece) {
    return map->text && piece >= map->text && piece < map->text + map->text_size;
}

void release_piece(AttrMap *map, char *piece) {
    if (!in_room(map, piece)) free(piece);
}

// key, then for a string item its text, in one piece; null when memory runs out.
char *make_piece(AttrMap *map, const char *key, size_t key_size, const Attr &item) {
    const char *text = item.type == AttrType::text && item.value.text ? item.value.text : "";
    const size_t text_size = item.type == AttrType::text ? strlen(text) + 1 : 0;
    const size_t size = key_size + text_size;
    char *piece;
    if (size <= map->text_size - map->text_used) {
        piece = map->text + map->text_used;
        map->text_used += static_cast<uint32_t>(size);
    } else {
        piece = static_cast<char *>(malloc(size));
        if (!piece) return nullptr;
    }
    memcpy(piece, key, key_size);
    if (text_size) memcpy(piece + key_size, text, text_size);
    return piece;
}

// item's key and value as the map's own, key and text in the piece made.
bool make_item(AttrMap *map, const char *key, const Attr &item, Attr *into) {
    const size_t key_size = strlen(key) + 1;
    char *piece = make_piece(map, key, key_size, item);
    if (!piece) return false;
    into->key = piece;
    into->type = item.type;
    into->value = item.value;
    if (item.type == AttrType::text) into->value.text = piece + key_size;
    return true;
}

bool grow(AttrMap *map) {
    if (!map->items && map->room_items) {
        map->items = map->room_items;
        map->capacity = map->room_capacity;
        return true;
    }
    const uint32_t capacity = map->capacity ? map->capacity * 2 : kFirstHeapItems;
    Attr *items;
    if (map->items == map->room_items) {
        items = static_cast<Attr *>(malloc(capacity * sizeof(Attr)));
        if (items && map->count) memcpy(items, map->items, map->count * sizeof(Attr));
    } else {
        items = static_cast<Attr *>(realloc(map->items, capacity * sizeof(Attr)));
    }
    if (!items) return false;
    map->items = items;
    map->capacity = capacity;
    return true;
}

void set_scalar(AttrMap *map, const char *key, AttrType type, Attr item) {
    if (!map || !key) return;
    item.key = const_cast<char *>(key);
    item.type = type;
    attrs_put(map, item, kUnlimited);
}

}  // namespace

void attrs_init(AttrMap *map, Attr *items, uint32_t item_room, char *text, uint32_t text_room) {
    *map = AttrMap{};
    map->room_items = items;
    map->room_capacity = item_room;
    map->text = text;
    map->text_size = text_room;
}

const Attr *attrs_find(const AttrMap *map, const char *key) {
    for (uint32_t i = 0; i < map->count; ++i) {
        if (strcmp(map->items[i].key, key) == 0) return &map->items[i];
    }
    return nullptr;
}

namespace {

bool same_value(const Attr &a, const Attr &b) {
    if (a.type != b.type) return false;
    switch (a.type) {
        case AttrType::boolean:
            return a.value.boolean == b.value.boolean;
        case AttrType::int64:
            return a.value.int64 == b.value.int64;
        case AttrType::real:
            return memcmp(&a.value.real, &b.value.real, sizeof a.value.real) == 0;
        case AttrType::text:
            return strcmp(a.value.text, b.value.text) == 0;
    }
    return false;
}

}  // namespace

// Keys are unique within a map, so equal counts and every key of b found equal in a make the
// same map.
bool attrs_equal(const AttrMap *a, const AttrMap *b) {
    const uint32_t count = b ? b->count : 0;
    if ((a ? a->count : 0) != count) return false;
    for (uint32_t i = 0; i < count; ++i) {
        const Attr *found = attrs_find(a, b->items[i].key);
        if (!found || !same_value(*found, b->items[i])) return false;
    }
    return true;
}

bool attrs_put(AttrMap *map, const Attr &item, uint32_t limit) {
    Attr made;
    if (auto *present = const_cast<Attr *>(attrs_find(map, item.key))) {
        if (!make_item(map, present->key, item, &made)) return false;
        release_piece(map, present->key);
        *present = made;
        return true;
    }
    if (map->count >= limit) return false;
    if (map->count == map->capacity && !grow(map)) return false;
    if (!make_item(map, item.key, item, &made)) return false;
    map->items[map->count++] = made;
    return true;
}

void attrs_merge(AttrMap *map, const AttrMap *from, uint32_t limit, uint32_t *dropped) {
    if (!from) return;
    for (uint32_t i = 0; i < from->count; ++i) {
        if (!attrs_put(map, from->items[i], limit)) ++*dropped;
    }
}

void attrs_clear(AttrMap *map) {
    for (uint32_t i = 0; i < map->count; ++i) release_piece(map, map->items[i].key);
    if (map->items != map->room_items) free(map->items);
    attrs_init(map, map->room_items, map->room_capacity, map->text, map->text_size);
}

}  // namespace otelc

using otelc::Attr;
using otelc::AttrType;

extern "C" {

namespace {

// A map made for the caller with room for a few short attributes, so that building one costs a
// single allocation. malloc rather than calloc: glibc's calloc skips the per-thread cache.
struct MapBlock {
    AttrMap map;
    Attr items[4];
    char text[128];
};

}  // namespace

OTELC_EXPORT AttrMap *otelc_create_attr_map(void) {
    auto *block = static_cast<MapBlock *>(malloc(sizeof(MapBlock)));
    if (!block) return nullptr;
    otelc::attrs_init(&block->map, block->items, 4, block->text, sizeof block->text);
    return &block->map;
}

OTELC_EXPORT void otelc_destroy_attr_map(AttrMap *map) {
    if (!map) return;
    otelc::attrs_clear(map);
    free(map);
}

OTELC_EXPORT void otelc_set_bool_attr(AttrMap *map, const char *key, uint8_t value) {
    Attr item{};
    item.value.boolean = value != 0;
    otelc::set_scalar(map, key, AttrType::boolean, item);
}

OTELC_EXPORT void otelc_set_int64_t_attr(AttrMap *map, const char *key, int64_t value) {
    Attr item{};
    item.value.int64 = value;
    otelc::set_scalar(map, key, AttrType::int64, item);
}

OTELC_EXPORT void otelc_set_int32_t_attr(AttrMap *map, const char *key, int32_t value) {
    otelc_set_int64_t_attr(map, key, value);
}

// OTLP integers are signed 64-bit: a larger value travels as a double rather than wrapped into
// a negative one.
OTELC_EXPORT void otelc_set_uint64_t_attr(AttrMap *map, const char *key, uint64_t value) {
    if (value <= static_cast<uint64_t>(INT64_MAX)) {
        otelc_set_int64_t_attr(map, key, static_cast<int64_t>(value));
    } else {
        otelc_set_double_attr(map, key, static_cast<double>(value));
    }
}

OTELC_EXPORT void otelc_set_double_attr(AttrMap *map, const char *key, double value) {
    Attr item{};
    item.value.real = value;
    otelc::set_scalar(map, key, AttrType::real, item);
}

OTELC_EXPORT void otelc_set_str_attr(AttrMap *map, const char *key, const char *value) {
    Attr item{};
    item.value.text = const_cast<char *>(value);
    otelc::set_scalar(map, key, AttrType::text, item);
}

}  // extern "C"
