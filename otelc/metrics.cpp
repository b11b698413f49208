// Up-down counters: values summed per attribute set on the adding thread (under the instrument's
// own lock, never held across I/O), collected as cumulative non-monotonic OTLP sums by the
// exporter thread. An instrument keeps at most kCardinalityLimit points, the overflow point that
// takes every further attribute set included.
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "otelc/diag.h"
#include "otelc/scope.h"

namespace otelc {

constexpr uint32_t kCardinalityLimit = 2000;

namespace {

union Sum {
    int64_t int64;
    double real;
};

// A point's attribute set is identified by its canonical encoding: the attributes sorted by key,
// each as key, NUL, type and value.
struct Point {
    char *key;  // null: an empty slot
    uint32_t key_length;
    uint32_t hash;
    AttrMap attrs;
    Sum sum;
};

}  // namespace

struct Instrument {
    Instrument *next;
    Scope *meter;
    char *name;
    char *unit;
    char *description;
    int value_type;
    uint64_t start_ns;
    bool destroyed;  // under scopes_lock
    pthread_mutex_t lock;
    Point *table;  // open addressing, at most half full
    uint32_t capacity;
    uint32_t count;  // points in table, the overflow point excluded
    bool has_overflow;
    Point overflow;
};

namespace {

struct CollectedPoint {
    AttrMap attrs;
    Sum sum;
};

// One instrument's points at one collection.
struct MetricRecord {
    const Scope *meter;
    char *name;
    char *unit;
    char *description;
    int value_type;
    uint64_t start_ns;
    uint64_t time_ns;
    CollectedPoint *points;
    uint32_t count;
};

uint32_t fnv1a(const char *bytes, size_t n) {
    uint32_t hash = 2166136261u;
    for (size_t i = 0; i < n; ++i) hash = (hash ^ static_cast<uint8_t>(bytes[i])) * 16777619u;
    return hash;
}

void canonical_key(const AttrMap *attrs, Buf *out) {
    if (!attrs || attrs->count == 0) return;
    const Attr *on_stack[16];
    const Attr **sorted = on_stack;
    if (attrs->count > 16) {
        sorted = static_cast<const Attr **>(malloc(attrs->count * sizeof(Attr *)));
        if (!sorted) {
            out->failed = true;
            return;
        }
    }
    for (uint32_t i = 0; i < attrs->count; ++i) {
        uint32_t j = i;
        for (; j > 0 && strcmp(sorted[j - 1]->key, attrs->items[i].key) > 0; --j)
            sorted[j] = sorted[j - 1];
        sorted[j] = &attrs->items[i];
    }
    for (uint32_t i = 0; i < attrs->count; ++i) {
        const Attr &attr = *sorted[i];
        buf_append(out, attr.key, strlen(attr.key) + 1);
        const char type = static_cast<char>(attr.type);
        buf_append(out, &type, 1);
        if (attr.type == AttrType::text) {
            buf_append(out, attr.value.text, strlen(attr.value.text) + 1);
        } else {
            buf_append(out, reinterpret_cast<const char *>(&attr.value), sizeof attr.value);
        }
    }
    if (sorted != on_stack) free(sorted);
}

Point *find_slot(Point *table, uint32_t capacity, const char *key, uint32_t length, uint32_t hash) {
    for (uint32_t i = hash & (capacity - 1);; i = (i + 1) & (capacity - 1)) {
        Point *slot = &table[i];
        if (!slot->key || (slot->hash == hash && slot->key_length == length &&
                           memcmp(slot->key, key, length) == 0))
            return slot;
    }
}

bool grow(Instrument *inst) {
    const uint32_t capacity = inst->capacity ? inst->capacity * 2 : 16;
    auto *table = static_cast<Point *>(calloc(capacity, sizeof(Point)));
    if (!table) return false;
    for (uint32_t i = 0; i < inst->capacity; ++i) {
        const Point &old = inst->table[i];
        if (old.key) *find_slot(table, capacity, old.key, old.key_length, old.hash) = old;
    }
    free(inst->table);
    inst->table = table;
    inst->capacity = capacity;
    return true;
}

bool init_point(Point *point, const char *key, uint32_t length, uint32_t hash,
                const AttrMap *attrs) {
    *point = Point{};
    uint32_t dropped = 0;
    attrs_merge(&point->attrs, attrs, kUnlimited, &dropped);
    point->key = static_cast<char *>(malloc(length + 1));
    if (!point->key || dropped) {
        free(point->key);
        attrs_clear(&point->attrs);
        *point = Point{};
        return false;
    }
    memcpy(point->key, key, length);
    point->key_length = length;
    point->hash = hash;
    return true;
}

// The point of attrs, made when missing; the overflow point once the limit is reached; null when
// memory runs out. Under the instrument's lock.
Point *point_of(Instrument *inst, const AttrMap *attrs) {
    Buf key{};
    canonical_key(attrs, &key);
    if (key.failed) return nullptr;
    const char *bytes = key.data ? key.data : "";
    const uint32_t hash = fnv1a(bytes, key.length);
    Point *point = nullptr;
    if (inst->capacity) point = find_slot(inst->table, inst->capacity, bytes, key.length, hash);
    if (!point || !point->key) {
        if (inst->count >= kCardinalityLimit - 1) {
            point = &inst->overflow;
            if (!inst->has_overflow) {
                AttrMap overflow{};
                Attr flag{};
                flag.key = const_cast<char *>("otel.metric.overflow");
                flag.value.boolean = true;
                attrs_put(&overflow, flag, kUnlimited);
                inst->has_overflow = init_point(point, "", 0, 0, &overflow);
                attrs_clear(&overflow);
                if (!inst->has_overflow) point = nullptr;
            }
        } else if ((inst->count + 1) * 2 > inst->capacity && !grow(inst)) {
            point = nullptr;
        } else {
            point = find_slot(inst->table, inst->capacity, bytes, key.length, hash);
            if (init_point(point, bytes, key.length, hash, attrs)) {
                ++inst->count;
            } else {
                point = nullptr;
            }
        }
    }
    buf_release(&key);
    return point;
}

template <typename Apply>
int add(void *handle, int value_type, const AttrMap *attrs, Apply apply) {
    auto *inst = static_cast<Instrument *>(handle);
    if (!inst || inst->value_type != value_type) return -1;
    pthread_mutex_lock(&inst->lock);
    Point *point = point_of(inst, attrs);
    if (point) apply(&point->sum);
    pthread_mutex_unlock(&inst->lock);
    return point ? 0 : -1;
}

void release_point(Point *point) {
    free(point->key);
    attrs_clear(&point->attrs);
}

void release_instrument(Instrument *inst) {
    for (uint32_t i = 0; i < inst->capacity; ++i) {
        if (inst->table[i].key) release_point(&inst->table[i]);
    }
    if (inst->has_overflow) release_point(&inst->overflow);
    free(inst->table);
    free(inst->name);
    free(inst->unit);
    free(inst->description);
    pthread_mutex_destroy(&inst->lock);
    free(inst);
}

void release_record(void *data) {
    auto *record = static_cast<MetricRecord *>(data);
    for (uint32_t i = 0; i < record->count; ++i) attrs_clear(&record->points[i].attrs);
    free(record->points);
    free(record->name);
    free(record->unit);
    free(record->description);
    free(record);
}

bool copy_point(const Point &point, CollectedPoint *into) {
    *into = CollectedPoint{};
    into->sum = point.sum;
    uint32_t dropped = 0;
    attrs_merge(&into->attrs, &point.attrs, kUnlimited, &dropped);
    return dropped == 0;
}

// The instrument's points now, null when it has none or memory runs out.
MetricRecord *snapshot(Instrument *inst, uint64_t now) {
    auto *record = static_cast<MetricRecord *>(calloc(1, sizeof(MetricRecord)));
    if (!record) return nullptr;
    record->meter = inst->meter;
    record->value_type = inst->value_type;
    record->start_ns = inst->start_ns;
    record->time_ns = now;
    bool good = (record->name = strdup(inst->name)) != nullptr;
    if (inst->unit) good = good && (record->unit = strdup(inst->unit));
    if (inst->description) good = good && (record->description = strdup(inst->description));
    pthread_mutex_lock(&inst->lock);
    const uint32_t total = inst->count + (inst->has_overflow ? 1 : 0);
    record->points =
        total ? static_cast<CollectedPoint *>(calloc(total, sizeof(CollectedPoint))) : nullptr;
    good = good && record->points;
    for (uint32_t i = 0; good && i < inst->capacity; ++i) {
        if (inst->table[i].key) good = copy_point(inst->table[i], &record->points[record->count++]);
    }
    if (good && inst->has_overflow)
        good = copy_point(inst->overflow, &record->points[record->count++]);
    pthread_mutex_unlock(&inst->lock);
    if (!good) {
        release_record(record);
        return nullptr;
    }
    return record;
}

uint32_t collect(Pipeline *pipeline, void ***records, bool) {
    uint32_t n = 0, room = 0;
    const uint64_t now = wall_ns();
    pthread_mutex_lock(&scopes_lock);
    for (Scope *meter = scopes; meter; meter = meter->next) {
        if (meter->signal != Signal::metrics ||
            strcmp(meter->service_name, pipeline->service_name) != 0)
            continue;
        for (Instrument **link = &meter->instruments; *link;) {
            Instrument *inst = *link;
            MetricRecord *record = snapshot(inst, now);
            if (record && n == room) {
                room = room ? room * 2 : 16;
                void **grown = static_cast<void **>(realloc(*records, room * sizeof(void *)));
                if (grown) {
                    *records = grown;
                } else {
                    release_record(record);
                    record = nullptr;
                    room = n;
                }
            }
            if (record) (*records)[n++] = record;
            if (inst->destroyed) {
                *link = inst->next;
                release_instrument(inst);
            } else {
                link = &inst->next;
            }
        }
    }
    pthread_mutex_unlock(&scopes_lock);
    return n;
}

const Scope *scope_of(const void *record) {
    return static_cast<const MetricRecord *>(record)->meter;
}

void encode_metric(Buf *out, const void *data) {
    const auto *record = static_cast<const MetricRecord *>(data);
    buf_text(out, "{\"name\":");
    json_string(out, record->name);
    if (record->unit) {
        buf_text(out, ",\"unit\":");
        json_string(out, record->unit);
    }
    if (record->description) {
        buf_text(out, ",\"description\":");
        json_string(out, record->description);
    }
    buf_text(out, ",\"sum\":{\"dataPoints\":[");
    for (uint32_t i = 0; i < record->count; ++i) {
        const CollectedPoint &point = record->points[i];
        buf_text(out, i ? ",{" : "{");
        json_attributes(out, &point.attrs, false);
        if (point.attrs.count) buf_append(out, ",", 1);
        json_u64_field(out, "startTimeUnixNano", record->start_ns);
        buf_append(out, ",", 1);
        json_u64_field(out, "timeUnixNano", record->time_ns);
        if (record->value_type == OTELC_VALUE_DOUBLE) {
            buf_text(out, ",\"asDouble\":");
            json_double(out, point.sum.real);
        } else {
            buf_printf(out, ",\"asInt\":\"%" PRId64 "\"", point.sum.int64);
        }
        buf_append(out, "}", 1);
    }
    // 2: cumulative.
    buf_text(out, "],\"aggregationTemporality\":2,\"isMonotonic\":false}}");
}

void encode_json(const Pipeline *pipeline, void *const *records, uint32_t n, Buf *out) {
    static const DocumentShape shape = {"resourceMetrics", "scopeMetrics", "metrics", scope_of,
                                        encode_metric};
    json_document(out, pipeline, records, n, shape);
}

void encode_console(const Pipeline *, void *const *records, uint32_t n, Buf *out) {
    pthread_mutex_lock(&scopes_lock);
    for (uint32_t i = 0; i < n; ++i) {
        const auto *record = static_cast<const MetricRecord *>(records[i]);
        for (uint32_t j = 0; j < record->count; ++j) {
            const CollectedPoint &point = record->points[j];
            buf_text(out, "metric ");
            json_string(out, record->name);
            buf_printf(out, " scope=%s sum=", record->meter->name);
            if (record->value_type == OTELC_VALUE_DOUBLE) {
                json_double(out, point.sum.real);
            } else {
                buf_printf(out, "%" PRId64, point.sum.int64);
            }
            buf_text(out, " attributes=");
            Buf json{};
            json_attributes(&json, &point.attrs, false);
            if (json.length) buf_append(out, json.data, json.length);
            buf_release(&json);
            buf_append(out, "\n", 1);
        }
    }
    pthread_mutex_unlock(&scopes_lock);
}

const SignalOps kOps = {encode_json, encode_console, release_record, collect};

char *copy_or_null(const char *text, bool *failed) {
    if (!text) return nullptr;
    char *copy = strdup(text);
    if (!copy) *failed = true;
    return copy;
}

}  // namespace

}  // namespace otelc

using otelc::Instrument;
using otelc::Pipeline;
using otelc::Scope;

extern "C" {

OTELC_EXPORT void *otelc_init_metrics_provider_ctx(const char *service_name,
                                                   const char *service_version, AttrMap *resource) {
    return otelc::pipeline_create(otelc::Signal::metrics, &otelc::kOps, service_name,
                                  service_version, resource);
}

OTELC_EXPORT void otelc_cleanup_metrics_provider_ctx(void *metrics_provider_ctx) {
    otelc::pipeline_destroy(static_cast<Pipeline *>(metrics_provider_ctx));
}

OTELC_EXPORT void *otelc_create_metrics_inst_from_meter(otelc_instrument_kind kind, void *meter,
                                                        const char *name, const char *unit,
                                                        const char *description) {
    auto *scope = static_cast<Scope *>(meter);
    if (!scope || scope->signal != otelc::Signal::metrics || !name ||
        kind.instrument != OTELC_INSTRUMENT_UPDOWN_COUNTER ||
        (kind.value_type != OTELC_VALUE_INT64 && kind.value_type != OTELC_VALUE_DOUBLE))
        return nullptr;
    auto *inst = static_cast<Instrument *>(calloc(1, sizeof(Instrument)));
    if (!inst) return nullptr;
    bool failed = false;
    inst->meter = scope;
    inst->name = otelc::copy_or_null(name, &failed);
    inst->unit = otelc::copy_or_null(unit, &failed);
    inst->description = otelc::copy_or_null(description, &failed);
    inst->value_type = kind.value_type;
    inst->start_ns = otelc::wall_ns();
    pthread_mutex_init(&inst->lock, nullptr);
    if (failed) {
        otelc::release_instrument(inst);
        return nullptr;
    }
    pthread_mutex_lock(&otelc::scopes_lock);
    inst->next = scope->instruments;
    scope->instruments = inst;
    pthread_mutex_unlock(&otelc::scopes_lock);
    return inst;
}

OTELC_EXPORT int otelc_metrics_inst_add_int64_attrs(void *instrument, int64_t value,
                                                    AttrMap *attrs) {
    return otelc::add(instrument, OTELC_VALUE_INT64, attrs, [value](otelc::Sum *sum) {
        sum->int64 =
            static_cast<int64_t>(static_cast<uint64_t>(sum->int64) + static_cast<uint64_t>(value));
    });
}

OTELC_EXPORT int otelc_metrics_inst_add_double_attrs(void *instrument, double value,
                                                     AttrMap *attrs) {
    return otelc::add(instrument, OTELC_VALUE_DOUBLE, attrs,
                      [value](otelc::Sum *sum) { sum->real += value; });
}

OTELC_EXPORT void otelc_destroy_metrics_inst(void *instrument) {
    auto *inst = static_cast<Instrument *>(instrument);
    if (!inst) return;
    pthread_mutex_lock(&otelc::scopes_lock);
    inst->destroyed = true;
    pthread_mutex_unlock(&otelc::scopes_lock);
}

OTELC_EXPORT void *otelc_create_int64_up_down_counter(void *meter, const char *name,
                                                      const char *unit, const char *description) {
    const otelc_instrument_kind kind = {OTELC_INSTRUMENT_UPDOWN_COUNTER, 1, OTELC_VALUE_INT64};
    return otelc_create_metrics_inst_from_meter(kind, meter, name, unit, description);
}

OTELC_EXPORT void otelc_destroy_up_down_counter(void *counter) {
    otelc_destroy_metrics_inst(counter);
}

}  // extern "C"
