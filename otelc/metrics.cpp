// Up-down counters: values summed per attribute set on the adding thread, collected as cumulative
// non-monotonic OTLP sums by the exporter thread. An instrument keeps at most kCardinalityLimit
// points, the overflow point that takes every further attribute set included.
//
// Adding to a point seen before neither locks nor allocates: sums are atomic, the point without
// attributes is part of the instrument, and the others are found in a probe table that readers
// search without the lock. The instrument's lock guards making points and growing the table only;
// a grown table is published whole and the old one kept until the instrument goes, so a reader
// may finish its search in it.
#include <atomic>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <new>

#include "otelc/diag.h"
#include "otelc/scope.h"

namespace otelc {

constexpr uint32_t kCardinalityLimit = 2000;

namespace {

union Sum {
    int64_t int64;
    double real;
};

// One attribute set's sum: the int64 (wrapping) or the double's bits.
struct Point {
    std::atomic<uint64_t> sum{0};
    uint32_t hash = 0;
    AttrMap attrs{};
};

struct Table {
    Table *older;  // replaced tables, kept for readers still searching them
    uint32_t mask;
    std::atomic<Point *> *slots;  // at most half full; a point once stored stays
};

enum class Plain : uint8_t { unused, own, overflowed };

}  // namespace

struct Instrument {
    Instrument *next = nullptr;
    Scope *meter = nullptr;
    char *name = nullptr;
    char *unit = nullptr;
    char *description = nullptr;
    int value_type = 0;
    uint64_t start_ns = 0;
    bool destroyed = false;  // under scopes_lock
    pthread_mutex_t lock;
    std::atomic<Table *> table{nullptr};
    std::atomic<Plain> plain_state{Plain::unused};
    Point plain;                // the point without attributes
    uint32_t count = 0;         // points made, the overflow point excluded; under lock
    Point *overflow = nullptr;  // under lock
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

uint32_t fnv1a(uint32_t hash, const void *bytes, size_t n) {
    const auto *p = static_cast<const uint8_t *>(bytes);
    for (size_t i = 0; i < n; ++i) hash = (hash ^ p[i]) * 16777619u;
    return hash;
}

uint32_t attr_hash(const Attr &attr) {
    uint32_t hash = fnv1a(2166136261u, attr.key, strlen(attr.key) + 1);
    hash = fnv1a(hash, &attr.type, 1);
    switch (attr.type) {
        case AttrType::boolean:
            return fnv1a(hash, &attr.value.boolean, 1);
        case AttrType::int64:
            return fnv1a(hash, &attr.value.int64, sizeof attr.value.int64);
        case AttrType::real:
            return fnv1a(hash, &attr.value.real, sizeof attr.value.real);
        case AttrType::text:
            return fnv1a(hash, attr.value.text, strlen(attr.value.text));
    }
    return hash;
}

// The same whatever the order of the keys: each attribute's hash, mixed, then summed.
uint32_t set_hash(const AttrMap *attrs) {
    uint32_t hash = 0;
    for (uint32_t i = 0; i < attrs->count; ++i) {
        uint32_t h = attr_hash(attrs->items[i]);
        h ^= h >> 16;
        h *= 0x85ebca6bu;
        h ^= h >> 13;
        hash += h;
    }
    return hash;
}

// attrs' point in table, or the empty slot where it would go.
std::atomic<Point *> *probe(Table *table, const AttrMap *attrs, uint32_t hash, Point **found) {
    for (uint32_t i = hash & table->mask;; i = (i + 1) & table->mask) {
        Point *point = table->slots[i].load(std::memory_order_acquire);
        if (!point || (point->hash == hash && attrs_equal(&point->attrs, attrs))) {
            *found = point;
            return &table->slots[i];
        }
    }
}

Table *make_table(uint32_t capacity, Table *older) {
    void *memory = malloc(sizeof(Table) + capacity * sizeof(std::atomic<Point *>));
    if (!memory) return nullptr;
    auto *table = static_cast<Table *>(memory);
    table->older = older;
    table->mask = capacity - 1;
    table->slots = reinterpret_cast<std::atomic<Point *> *>(table + 1);
    for (uint32_t i = 0; i < capacity; ++i) new (&table->slots[i]) std::atomic<Point *>(nullptr);
    return table;
}

// The instrument's table with room for one more point. Under the instrument's lock.
Table *room_for_one(Instrument *inst) {
    Table *table = inst->table.load(std::memory_order_relaxed);
    const uint32_t capacity = table ? table->mask + 1 : 16;
    if (table && (inst->count + 1) * 2 <= capacity) return table;
    Table *grown = make_table(table ? capacity * 2 : capacity, table);
    if (!grown) return nullptr;
    for (uint32_t i = 0; table && i <= table->mask; ++i) {
        Point *point = table->slots[i].load(std::memory_order_relaxed);
        if (!point) continue;
        for (uint32_t j = point->hash & grown->mask;; j = (j + 1) & grown->mask) {
            if (grown->slots[j].load(std::memory_order_relaxed)) continue;
            grown->slots[j].store(point, std::memory_order_relaxed);
            break;
        }
    }
    inst->table.store(grown, std::memory_order_release);
    return grown;
}

Point *make_point(const AttrMap *attrs, uint32_t hash) {
    void *memory = malloc(sizeof(Point));
    if (!memory) return nullptr;
    auto *point = new (memory) Point();
    point->hash = hash;
    uint32_t dropped = 0;
    attrs_merge(&point->attrs, attrs, kUnlimited, &dropped);
    if (dropped) {
        attrs_clear(&point->attrs);
        free(point);
        return nullptr;
    }
    return point;
}

void release_point(Point *point) {
    attrs_clear(&point->attrs);
    free(point);
}

// The overflow point, made when missing; null when memory runs out. Under the instrument's lock.
Point *overflow_of(Instrument *inst) {
    if (!inst->overflow) {
        AttrMap flag_set{};
        Attr flag{};
        flag.key = const_cast<char *>("otel.metric.overflow");
        flag.value.boolean = true;
        if (attrs_put(&flag_set, flag, kUnlimited)) inst->overflow = make_point(&flag_set, 0);
        attrs_clear(&flag_set);
    }
    return inst->overflow;
}

bool at_limit(const Instrument *inst) {
    return inst->count >= kCardinalityLimit - 1;
}

// The point without attributes on its first add (or the overflow point). Under the lock.
Point *first_plain(Instrument *inst) {
    switch (inst->plain_state.load(std::memory_order_relaxed)) {
        case Plain::own:
            return &inst->plain;
        case Plain::overflowed:
            return overflow_of(inst);
        case Plain::unused:
            break;
    }
    if (at_limit(inst)) {
        Point *overflow = overflow_of(inst);
        if (overflow) inst->plain_state.store(Plain::overflowed, std::memory_order_relaxed);
        return overflow;
    }
    ++inst->count;
    inst->plain_state.store(Plain::own, std::memory_order_release);
    return &inst->plain;
}

// attrs' point made, unless another thread made it first. Under the lock.
Point *first_of(Instrument *inst, const AttrMap *attrs, uint32_t hash) {
    Point *point = nullptr;
    Table *table = inst->table.load(std::memory_order_relaxed);
    if (table) probe(table, attrs, hash, &point);
    if (point) return point;
    if (at_limit(inst)) return overflow_of(inst);
    table = room_for_one(inst);
    if (!table) return nullptr;
    Point *made = make_point(attrs, hash);
    if (!made) return nullptr;
    probe(table, attrs, hash, &point)->store(made, std::memory_order_release);
    ++inst->count;
    return made;
}

// attrs' point: found without the lock when seen before; null when memory runs out.
Point *point_of(Instrument *inst, const AttrMap *attrs) {
    const bool plain = !attrs || attrs->count == 0;
    uint32_t hash = 0;
    if (plain) {
        if (inst->plain_state.load(std::memory_order_acquire) == Plain::own) return &inst->plain;
    } else {
        hash = set_hash(attrs);
        Point *found = nullptr;
        if (Table *table = inst->table.load(std::memory_order_acquire))
            probe(table, attrs, hash, &found);
        if (found) return found;
    }
    pthread_mutex_lock(&inst->lock);
    Point *point = plain ? first_plain(inst) : first_of(inst, attrs, hash);
    pthread_mutex_unlock(&inst->lock);
    return point;
}

template <typename Apply>
int add(void *handle, int value_type, const AttrMap *attrs, Apply apply) {
    auto *inst = static_cast<Instrument *>(handle);
    if (!inst || inst->value_type != value_type) return -1;
    Point *point = point_of(inst, attrs);
    if (!point) return -1;
    apply(&point->sum);
    return 0;
}

void release_instrument(Instrument *inst) {
    Table *table = inst->table.load(std::memory_order_relaxed);
    for (uint32_t i = 0; table && i <= table->mask; ++i) {
        if (Point *point = table->slots[i].load(std::memory_order_relaxed)) release_point(point);
    }
    while (table) {
        Table *older = table->older;
        free(table);
        table = older;
    }
    if (inst->overflow) release_point(inst->overflow);
    free(inst->name);
    free(inst->unit);
    free(inst->description);
    pthread_mutex_destroy(&inst->lock);
    inst->~Instrument();
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
    const uint64_t bits = point.sum.load(std::memory_order_relaxed);
    memcpy(&into->sum, &bits, sizeof bits);
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
    const uint32_t total = inst->count + (inst->overflow ? 1 : 0);
    record->points =
        total ? static_cast<CollectedPoint *>(calloc(total, sizeof(CollectedPoint))) : nullptr;
    good = good && record->points;
    if (good && inst->plain_state.load(std::memory_order_relaxed) == Plain::own)
        good = copy_point(inst->plain, &record->points[record->count++]);
    const Table *table = inst->table.load(std::memory_order_relaxed);
    for (uint32_t i = 0; good && table && i <= table->mask; ++i) {
        if (const Point *point = table->slots[i].load(std::memory_order_relaxed))
            good = copy_point(*point, &record->points[record->count++]);
    }
    if (good && inst->overflow)
        good = copy_point(*inst->overflow, &record->points[record->count++]);
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
    void *memory = malloc(sizeof(Instrument));
    if (!memory) return nullptr;
    auto *inst = new (memory) Instrument();
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
    // Unsigned, so that a sum past the int64 range wraps rather than overflows.
    return otelc::add(instrument, OTELC_VALUE_INT64, attrs, [value](std::atomic<uint64_t> *sum) {
        sum->fetch_add(static_cast<uint64_t>(value), std::memory_order_relaxed);
    });
}

OTELC_EXPORT int otelc_metrics_inst_add_double_attrs(void *instrument, double value,
                                                     AttrMap *attrs) {
    return otelc::add(instrument, OTELC_VALUE_DOUBLE, attrs, [value](std::atomic<uint64_t> *sum) {
        uint64_t bits = sum->load(std::memory_order_relaxed);
        for (;;) {
            double real;
            memcpy(&real, &bits, sizeof real);
            real += value;
            uint64_t next;
            memcpy(&next, &real, sizeof next);
            if (sum->compare_exchange_weak(bits, next, std::memory_order_relaxed)) return;
        }
    });
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
