#include "otelc/attr_map.h"

#include <cstdlib>
#include <cstring>

#include "otelc/diag.h"

namespace otelc {

namespace {

void release_value(Attr *item) {
    if (item->type == AttrType::text) free(item->value.text);
}

// item's value with a private copy of its text; false when memory runs out.
bool copy_value(const Attr &item, Attr *into) {
    into->type = item.type;
    into->value = item.value;
    if (item.type != AttrType::text) return true;
    into->value.text = strdup(item.value.text ? item.value.text : "");
    return into->value.text != nullptr;
}

bool grow(AttrMap *map) {
    const uint32_t capacity = map->capacity ? map->capacity * 2 : 4;
    auto *items = static_cast<Attr *>(realloc(map->items, capacity * sizeof(Attr)));
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

const Attr *attrs_find(const AttrMap *map, const char *key) {
    for (uint32_t i = 0; i < map->count; ++i) {
        if (strcmp(map->items[i].key, key) == 0) return &map->items[i];
    }
    return nullptr;
}

bool attrs_put(AttrMap *map, const Attr &item, uint32_t limit) {
    Attr value;
    if (auto *present = const_cast<Attr *>(attrs_find(map, item.key))) {
        if (!copy_value(item, &value)) return false;
        release_value(present);
        present->type = value.type;
        present->value = value.value;
        return true;
    }
    if (map->count >= limit) return false;
    if (map->count == map->capacity && !grow(map)) return false;
    value.key = strdup(item.key);
    if (!value.key) return false;
    if (!copy_value(item, &value)) {
        free(value.key);
        return false;
    }
    map->items[map->count++] = value;
    return true;
}

void attrs_merge(AttrMap *map, const AttrMap *from, uint32_t limit, uint32_t *dropped) {
    if (!from) return;
    for (uint32_t i = 0; i < from->count; ++i) {
        if (!attrs_put(map, from->items[i], limit)) ++*dropped;
    }
}

void attrs_clear(AttrMap *map) {
    for (uint32_t i = 0; i < map->count; ++i) {
        free(map->items[i].key);
        release_value(&map->items[i]);
    }
    free(map->items);
    *map = AttrMap{};
}

}  // namespace otelc

using otelc::Attr;
using otelc::AttrType;

extern "C" {

OTELC_EXPORT AttrMap *otelc_create_attr_map(void) {
    return static_cast<AttrMap *>(calloc(1, sizeof(AttrMap)));
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
