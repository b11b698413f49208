// The value text codec beside cJSON on the equivalent JSON document (kvlists as objects, arrays
// as arrays, bytes as a hex string), for a policy-sized record and for a 64 KiB text. Bytes/s
// count each format's own text; items/s count the values of the document (pairs and array
// elements), which are the same on both sides.
#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "observability_api.h"

namespace {

struct key_value_deleter {
    void operator()(obs_key_value *list) const { obs_key_value_free(list); }
};
struct any_value_deleter {
    void operator()(obs_any_value *chain) const { obs_any_value_free(chain); }
};
struct cjson_deleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using key_value_ptr = std::unique_ptr<obs_key_value, key_value_deleter>;
using any_value_ptr = std::unique_ptr<obs_any_value, any_value_deleter>;
using cjson_ptr = std::unique_ptr<cJSON, cjson_deleter>;

// A document is written once as calls on a builder and built by each builder below, so the two
// formats carry the same keys, values and nesting.
class obs_builder {
  public:
    obs_builder() { levels_.push_back(level{}); }
    ~obs_builder() {
        for (level &open : levels_) obs_key_value_free(open.pairs);
    }

    void add_str(const char *key, const char *value) {
        obs_key_value_add_str(head(), key, value, 0);
    }
    void add_int(const char *key, int64_t value) { obs_key_value_add_int(head(), key, value); }
    void add_double(const char *key, double value) { obs_key_value_add_double(head(), key, value); }
    void add_bool(const char *key, bool value) { obs_key_value_add_bool(head(), key, value); }
    void add_bytes(const char *key, const uint8_t *bytes, uint32_t n) {
        obs_key_value_add_byte(head(), key, bytes, n, 0);
    }
    void add_int_array(const char *key, std::initializer_list<int64_t> ints) {
        auto *block = static_cast<obs_any_value *>(calloc(ints.size(), sizeof(obs_any_value)));
        obs_any_value *slot = block;
        for (int64_t value : ints) obs_any_value_set_generic(slot++, OBS_VALUE_INT, &value, 8);
        obs_key_value_add_array(head(), key, block, static_cast<uint32_t>(ints.size()), 0);
    }
    void begin_object(const char *key) { levels_.push_back(level{key, nullptr}); }
    void end_object() {
        level inner = levels_.back();
        levels_.pop_back();
        obs_key_value_add_kvlist(head(), inner.key.c_str(), inner.pairs, 0);
    }

    key_value_ptr take_document() {
        key_value_ptr document(levels_.front().pairs);
        levels_.front().pairs = nullptr;
        return document;
    }

  private:
    struct level {
        std::string key;
        obs_key_value *pairs = nullptr;
    };
    obs_key_value **head() { return &levels_.back().pairs; }

    std::vector<level> levels_;
};

class cjson_builder {
  public:
    cjson_builder() : document_(cJSON_CreateObject()) { levels_.push_back(document_.get()); }

    void add_str(const char *key, const char *value) {
        cJSON_AddStringToObject(levels_.back(), key, value);
    }
    void add_int(const char *key, int64_t value) {
        cJSON_AddNumberToObject(levels_.back(), key, static_cast<double>(value));
    }
    void add_double(const char *key, double value) {
        cJSON_AddNumberToObject(levels_.back(), key, value);
    }
    void add_bool(const char *key, bool value) {
        cJSON_AddBoolToObject(levels_.back(), key, value);
    }
    void add_bytes(const char *key, const uint8_t *bytes, uint32_t n) {
        std::string hex(2 * n, '\0');
        for (uint32_t i = 0; i < n; ++i) snprintf(&hex[2 * i], 3, "%02x", bytes[i]);
        cJSON_AddStringToObject(levels_.back(), key, hex.c_str());
    }
    void add_int_array(const char *key, std::initializer_list<int64_t> ints) {
        cJSON *array = cJSON_AddArrayToObject(levels_.back(), key);
        for (int64_t value : ints)
            cJSON_AddItemToArray(array, cJSON_CreateNumber(static_cast<double>(value)));
    }
    void begin_object(const char *key) {
        levels_.push_back(cJSON_AddObjectToObject(levels_.back(), key));
    }
    void end_object() { levels_.pop_back(); }

    cjson_ptr take_document() { return std::move(document_); }

  private:
    cjson_ptr document_;
    std::vector<cJSON *> levels_;
};

// The items of a document: every pair's value and every array element.
class value_counter {
  public:
    void add_str(const char *, const char *) { ++values_; }
    void add_int(const char *, int64_t) { ++values_; }
    void add_double(const char *, double) { ++values_; }
    void add_bool(const char *, bool) { ++values_; }
    void add_bytes(const char *, const uint8_t *, uint32_t) { ++values_; }
    void add_int_array(const char *, std::initializer_list<int64_t> ints) {
        values_ += 1 + static_cast<int64_t>(ints.size());
    }
    void begin_object(const char *) { ++values_; }
    void end_object() {}

    int64_t values() const { return values_; }

  private:
    int64_t values_ = 0;
};

constexpr uint8_t kSessionKey[8] = {0x3a, 0x91, 0x00, 0x7f, 0xc4, 0x2e, 0xff, 0x10};

// What a policy record carries: names and ids as strings, a few numbers and a flag, a key, the
// scope it targets and the signals it switches.
struct policy_document {
    static constexpr size_t kMinText = 256;
    static constexpr size_t kMaxText = 2048;

    template <typename Builder>
    void operator()(Builder &b) const {
        b.add_str("name", "camera-daemon");
        b.add_str("path",
                  "/op/observability-policy-agent/service{camera-daemon}/scope{default}/obs");
        b.add_str("reqid", "7c1e5a02-4b9d-4f3e-a861-0d2c9b7e5f34");
        b.add_str("traceid", "4bf92f3577b34da6a3ce929d0e0e4736");
        b.add_int("op", 1);
        b.add_int("version", 20240517);
        b.add_double("ratio", 0.25);
        b.add_bool("enabled", true);
        b.add_bytes("session", kSessionKey, sizeof kSessionKey);
        b.begin_object("scope");
        b.add_str("name", "default");
        b.add_int("level", 2);
        b.add_bool("traces", true);
        b.end_object();
        b.add_int_array("signals", {1, 2, 4});
    }
};

// The policy-sized record repeated under numbered keys until the text is 64 KiB: the same mix of
// values as the small text, so a per-byte difference between the two measures scaling alone.
struct large_document {
    static constexpr int kRecords = 93;
    static constexpr size_t kMinText = 64 * 1024 - 512;
    static constexpr size_t kMaxText = 64 * 1024 + 512;

    template <typename Builder>
    void operator()(Builder &b) const {
        for (int i = 0; i < kRecords; ++i) {
            char key[32];
            snprintf(key, sizeof key, "record-%03d", i);
            b.begin_object(key);
            policy_document()(b);
            b.end_object();
        }
    }
};

template <typename Document>
int64_t values_of() {
    value_counter counter;
    Document()(counter);
    return counter.values();
}

template <typename Document>
key_value_ptr build_obs_document() {
    obs_builder builder;
    Document()(builder);
    return builder.take_document();
}

template <typename Document>
cjson_ptr build_cjson_document() {
    cjson_builder builder;
    Document()(builder);
    return builder.take_document();
}

// The encoder's text without its counted NUL, or an empty string when encoding failed.
std::string obs_text_of(const obs_key_value *list) {
    obs_sds text = obs_key_value_encode(list);
    if (!text) return std::string();
    std::string copy(text, strlen(text));
    bool terminator_counted = obs_sdslen(text) == copy.size() + 1;
    obs_sdsfree(text);
    return terminator_counted ? copy : std::string();
}

std::string cjson_text_of(const cJSON *document) {
    char *text = cJSON_PrintUnformatted(document);
    if (!text) return std::string();
    std::string copy(text);
    cJSON_free(text);
    return copy;
}

// Returns false, and fails the benchmark, when the obs text is missing or not of the size
// the document is meant to have.
template <typename Document>
bool check_obs_text(benchmark::State &state, const std::string &text) {
    if (text.empty()) {
        state.SkipWithError("obs_key_value_encode failed");
        return false;
    }
    if (text.size() < Document::kMinText || text.size() > Document::kMaxText) {
        state.SkipWithError(("obs text of unexpected size " + std::to_string(text.size())).c_str());
        return false;
    }
    return true;
}

// A decode counts as correct when it stops on the last character and encodes back to the text.
bool decodes_exactly(const std::string &text) {
    obs_any_value *chain = nullptr;
    const char *end = obs_any_value_decode(text.c_str(), text.size() + 1, &chain);
    any_value_ptr decoded(chain);
    if (end != text.c_str() + text.size() - 1) return false;
    obs_sds again = obs_any_value_encode(decoded.get());
    bool same = again && text == again;
    obs_sdsfree(again);
    return same;
}

void report_throughput(benchmark::State &state, size_t text_bytes, int64_t values) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text_bytes));
    state.SetItemsProcessed(state.iterations() * values);
    state.counters["text_bytes"] = static_cast<double>(text_bytes);
}

template <typename Document>
void obs_encode(benchmark::State &state) {
    key_value_ptr document = build_obs_document<Document>();
    std::string text = obs_text_of(document.get());
    if (!check_obs_text<Document>(state, text)) return;
    for (auto _ : state) {
        obs_sds encoded = obs_key_value_encode(document.get());
        benchmark::DoNotOptimize(encoded);
        obs_sdsfree(encoded);
    }
    report_throughput(state, text.size(), values_of<Document>());
}

template <typename Document>
void obs_decode(benchmark::State &state) {
    key_value_ptr document = build_obs_document<Document>();
    std::string text = obs_text_of(document.get());
    if (!check_obs_text<Document>(state, text)) return;
    if (!decodes_exactly(text)) {
        state.SkipWithError("obs_any_value_decode does not read back the encoded text");
        return;
    }
    for (auto _ : state) {
        obs_any_value *chain = nullptr;
        const char *end = obs_any_value_decode(text.c_str(), text.size() + 1, &chain);
        benchmark::DoNotOptimize(end);
        obs_any_value_free(chain);
    }
    report_throughput(state, text.size(), values_of<Document>());
}

template <typename Document>
void cjson_print(benchmark::State &state) {
    cjson_ptr document = build_cjson_document<Document>();
    std::string text = cjson_text_of(document.get());
    if (text.empty()) {
        state.SkipWithError("cJSON_PrintUnformatted failed");
        return;
    }
    for (auto _ : state) {
        char *printed = cJSON_PrintUnformatted(document.get());
        benchmark::DoNotOptimize(printed);
        cJSON_free(printed);
    }
    report_throughput(state, text.size(), values_of<Document>());
}

template <typename Document>
void cjson_parse(benchmark::State &state) {
    cjson_ptr document = build_cjson_document<Document>();
    std::string text = cjson_text_of(document.get());
    cjson_ptr parsed(cJSON_Parse(text.c_str()));
    if (text.empty() || !parsed || cjson_text_of(parsed.get()) != text) {
        state.SkipWithError("cJSON_Parse does not read back the printed text");
        return;
    }
    for (auto _ : state) {
        cJSON *tree = cJSON_Parse(text.c_str());
        benchmark::DoNotOptimize(tree);
        cJSON_Delete(tree);
    }
    report_throughput(state, text.size(), values_of<Document>());
}

}  // namespace

BENCHMARK(obs_encode<policy_document>)->Name("BM_ObsEncode_Policy");
BENCHMARK(cjson_print<policy_document>)->Name("BM_CjsonPrint_Policy");
BENCHMARK(obs_decode<policy_document>)->Name("BM_ObsDecode_Policy");
BENCHMARK(cjson_parse<policy_document>)->Name("BM_CjsonParse_Policy");
BENCHMARK(obs_encode<large_document>)->Name("BM_ObsEncode_64KiB");
BENCHMARK(cjson_print<large_document>)->Name("BM_CjsonPrint_64KiB");
BENCHMARK(obs_decode<large_document>)->Name("BM_ObsDecode_64KiB");
BENCHMARK(cjson_parse<large_document>)->Name("BM_CjsonParse_64KiB");
