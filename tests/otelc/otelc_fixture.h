// Test helpers for the binding: an environment set for one test, the file exporter's documents
// read back and parsed with cJSON, and lookups in them.
#ifndef OBS_TESTS_OTELC_FIXTURE_H
#define OBS_TESTS_OTELC_FIXTURE_H

#include <gtest/gtest.h>
#include <cjson/cJSON.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "observability/otelc.h"

namespace otelc_test {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// Every OTEL_ variable a test sets is unset again at its end; each signal writes to a file of
// its own in a fresh directory.
class OtelcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/otelc_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        for (const char *signal : {"TRACES", "LOGS", "METRICS"}) {
            set(std::string("OTEL_") + signal + "_EXPORTER", "otlp_file");
            set(std::string("OTEL_EXPORTER_OTLP_") + signal + "_FILE", path(signal));
        }
    }
    void TearDown() override {
        for (const std::string &name : names_) unsetenv(name.c_str());
        for (const char *signal : {"TRACES", "LOGS", "METRICS"}) unlink(path(signal).c_str());
        rmdir(dir_.c_str());
    }
    void set(const std::string &name, const std::string &value) {
        setenv(name.c_str(), value.c_str(), 1);
        names_.push_back(name);
    }
    std::string path(const std::string &signal) const { return dir_ + "/" + signal; }

    // The documents written for signal ("TRACES", "LOGS", "METRICS"), one per line; every line
    // must parse.
    std::vector<Json> documents(const std::string &signal) {
        std::vector<Json> parsed;
        std::ifstream in(path(signal));
        std::string line;
        while (std::getline(in, line)) {
            cJSON *json = cJSON_Parse(line.c_str());
            EXPECT_NE(json, nullptr) << line;
            if (json) parsed.emplace_back(json, cJSON_Delete);
        }
        return parsed;
    }

    std::string dir_;
    std::vector<std::string> names_;
};

inline const cJSON *at(const cJSON *json, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(json, key);
    EXPECT_NE(item, nullptr) << "no " << key;
    return item;
}

inline std::string text(const cJSON *json, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(json, key);
    return cJSON_IsString(item) ? item->valuestring : "<missing " + std::string(key) + ">";
}

// Every element of the array json[key].
inline std::vector<const cJSON *> items(const cJSON *json, const char *key) {
    std::vector<const cJSON *> list;
    const cJSON *array = cJSON_GetObjectItemCaseSensitive(json, key);
    for (const cJSON *item = array ? array->child : nullptr; item; item = item->next)
        list.push_back(item);
    return list;
}

// The value object of key in an OTLP attribute list, null when absent.
inline const cJSON *attribute(const cJSON *owner, const std::string &key) {
    for (const cJSON *kv : items(owner, "attributes")) {
        if (text(kv, "key") == key) return cJSON_GetObjectItemCaseSensitive(kv, "value");
    }
    return nullptr;
}

inline std::string string_attribute(const cJSON *owner, const std::string &key) {
    const cJSON *value = attribute(owner, key);
    return value ? text(value, "stringValue") : "<absent>";
}

struct AttrMapDeleter {
    void operator()(AttrMap *map) const { otelc_destroy_attr_map(map); }
};
using Attrs = std::unique_ptr<AttrMap, AttrMapDeleter>;

inline Attrs attrs() {
    return Attrs(otelc_create_attr_map());
}

}  // namespace otelc_test

#endif
