// Spans and attribute maps keep what they are given past the room they hold inline: long names,
// many and long attributes, values replaced; and spans made on threads that come and go while
// the exporter hands finished ones back.
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "otelc/otelc_fixture.h"

namespace otelc_test {
namespace {

class Storage : public OtelcTest {
  protected:
    struct Exported {
        std::string name;
        std::map<std::string, std::string> attrs;  // key to the value's JSON
    };
    std::vector<Exported> spans() {
        std::vector<Exported> all;
        for (const Json &doc : documents("TRACES")) {
            for (const cJSON *rs : items(doc.get(), "resourceSpans")) {
                for (const cJSON *ss : items(rs, "scopeSpans")) {
                    for (const cJSON *span : items(ss, "spans")) {
                        Exported exported{text(span, "name"), {}};
                        for (const cJSON *kv : items(span, "attributes")) {
                            char *value = cJSON_PrintUnformatted(at(kv, "value"));
                            exported.attrs[text(kv, "key")] = value;
                            free(value);
                        }
                        all.push_back(exported);
                    }
                }
            }
        }
        return all;
    }
};

std::string quoted(const std::string &text) {
    return "{\"stringValue\":\"" + text + "\"}";
}

TEST_F(Storage, LongNamesAndManyLongAttributesAreKeptWhole) {
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    const std::string name(200, 'n');
    Attrs given = attrs();
    for (int i = 0; i < 10; ++i) {
        const std::string key = "key." + std::to_string(i) + std::string(40, 'k');
        otelc_set_str_attr(given.get(), key.c_str(), std::string(100, 'a' + i).c_str());
    }
    for (int round = 0; round < 5; ++round)
        otelc_set_str_attr(given.get(), "replaced", std::string(60 + round, 'r').c_str());
    otelc_set_int64_t_attr(given.get(), "then.int", 1);
    otelc_set_str_attr(given.get(), "then.int", "text");
    otelc_set_int64_t_attr(given.get(), "then.int", 7);
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    void *span = otelc_start_span_with_tracer(provider, tracer, name.c_str(), given.get(), "",
                                              context, &capacity);
    Attrs later = attrs();
    otelc_set_str_attr(later.get(), "replaced", "short");
    otelc_set_bool_attr(later.get(), "late", 1);
    otelc_set_span_attrs(span, later.get());
    otelc_end_span(span);
    otelc_cleanup_tracer_provider_ctx(provider);

    const std::vector<Exported> exported = spans();
    ASSERT_EQ(exported.size(), 1u);
    EXPECT_EQ(exported[0].name, name);
    const std::map<std::string, std::string> &got = exported[0].attrs;
    ASSERT_EQ(got.size(), 13u);
    for (int i = 0; i < 10; ++i) {
        const std::string key = "key." + std::to_string(i) + std::string(40, 'k');
        EXPECT_EQ(got.at(key), quoted(std::string(100, 'a' + i))) << key;
    }
    EXPECT_EQ(got.at("replaced"), quoted("short"));
    EXPECT_EQ(got.at("then.int"), "{\"intValue\":\"7\"}");
    EXPECT_EQ(got.at("late"), "{\"boolValue\":true}");
}

TEST_F(Storage, SpansFromThreadsThatComeAndGoAreAllExportedIntact) {
    set("OTEL_BSP_MAX_QUEUE_SIZE", "100000");
    set("OTEL_BSP_MAX_EXPORT_BATCH_SIZE", "16");
    set("OTEL_BSP_SCHEDULE_DELAY", "1");
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    constexpr int kRounds = 3, kThreads = 3, kSpans = 400;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([=] {
                const std::string name = "thread-" + std::to_string(t);
                Attrs given = attrs();
                otelc_set_str_attr(given.get(), "who", name.c_str());
                for (int i = 0; i < kSpans; ++i) {
                    char context[OTELC_CONTEXT_CAPACITY];
                    int capacity = sizeof context;
                    otelc_end_span(otelc_start_span_with_tracer(
                        provider, tracer, name.c_str(), given.get(), "", context, &capacity));
                }
            });
        }
        for (std::thread &thread : threads) thread.join();
    }
    otelc_cleanup_tracer_provider_ctx(provider);

    std::map<std::string, int> by_name;
    for (const Exported &span : spans()) {
        EXPECT_EQ(span.attrs.at("who"), quoted(span.name));
        ++by_name[span.name];
    }
    ASSERT_EQ(by_name.size(), static_cast<size_t>(kThreads));
    for (const auto &[name, count] : by_name) EXPECT_EQ(count, kRounds * kSpans) << name;
}

}  // namespace
}  // namespace otelc_test
