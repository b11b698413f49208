// Log records and up-down counters as the file exporter writes them.
#include <map>
#include <string>

#include "otelc/otelc_fixture.h"

namespace otelc_test {
namespace {

using Logs = OtelcTest;

TEST_F(Logs, RecordInsideSpanCarriesItsIdsAndOneOutsideNone) {
    void *tracing = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *logging = otelc_init_logger_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(tracing, "s", nullptr, nullptr, nullptr);
    void *logger = otelc_get_logger(logging, "s", "3", nullptr, nullptr);
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    void *span =
        otelc_start_span_with_tracer(tracing, tracer, "op", nullptr, "", context, &capacity);
    otelc_log_with_ctx(logging, span, logger, OTELC_SEVERITY_DEBUG, "inside \"span\"");
    otelc_end_span(span);
    otelc_log_with_ctx(logging, nullptr, logger, 10, "outside");
    otelc_log_with_ctx(logging, nullptr, logger, 99, nullptr);
    otelc_cleanup_logger_provider_ctx(logging);
    otelc_cleanup_tracer_provider_ctx(tracing);

    auto docs = documents("LOGS");
    ASSERT_EQ(docs.size(), 1u);
    const cJSON *rl = items(docs[0].get(), "resourceLogs").at(0);
    EXPECT_EQ(string_attribute(at(rl, "resource"), "service.name"), "svc");
    const cJSON *sl = items(rl, "scopeLogs").at(0);
    EXPECT_EQ(text(at(sl, "scope"), "version"), "3");
    auto records = items(sl, "logRecords");
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(text(at(records[0], "body"), "stringValue"), "inside \"span\"");
    EXPECT_EQ(at(records[0], "severityNumber")->valueint, 5);
    EXPECT_EQ(text(records[0], "severityText"), "DEBUG");
    EXPECT_EQ(text(records[0], "traceId"), std::string(context).substr(3, 32));
    EXPECT_EQ(text(records[0], "spanId"), std::string(context).substr(36, 16));
    EXPECT_EQ(text(records[0], "timeUnixNano"), text(records[0], "observedTimeUnixNano"));
    EXPECT_EQ(text(records[1], "severityText"), "INFO2");
    EXPECT_EQ(cJSON_GetObjectItem(records[1], "traceId"), nullptr);
    EXPECT_EQ(cJSON_GetObjectItem(records[2], "severityNumber"), nullptr);
    EXPECT_EQ(text(at(records[2], "body"), "stringValue"), "");

    auto traces = documents("TRACES");
    ASSERT_EQ(traces.size(), 1u);
    auto spans =
        items(items(items(traces[0].get(), "resourceSpans").at(0), "scopeSpans").at(0), "spans");
    EXPECT_EQ(text(spans.at(0), "spanId"), text(records[0], "spanId"));
}

class Counters : public OtelcTest {
  protected:
    void SetUp() override {
        OtelcTest::SetUp();
        provider_ = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
        ASSERT_NE(provider_, nullptr);
        meter_ = otelc_get_meter(provider_, "m", nullptr, nullptr, nullptr);
    }
    void *counter(int value_type, const char *name) {
        return otelc_create_metrics_inst_from_meter(
            {OTELC_INSTRUMENT_UPDOWN_COUNTER, 1, value_type}, meter_, name, nullptr,
            "what it counts");
    }
    // The metrics of every document written, by name, each as its points' values by the text
    // of their attributes ("k=v;..." in the order written).
    std::map<std::string, std::map<std::string, std::string>> points() {
        std::map<std::string, std::map<std::string, std::string>> by_name;
        for (const Json &doc : documents("METRICS")) {
            for (const cJSON *rm : items(doc.get(), "resourceMetrics")) {
                for (const cJSON *sm : items(rm, "scopeMetrics")) {
                    for (const cJSON *metric : items(sm, "metrics")) {
                        const cJSON *sum = at(metric, "sum");
                        EXPECT_EQ(at(sum, "aggregationTemporality")->valueint, 2);
                        EXPECT_TRUE(cJSON_IsFalse(at(sum, "isMonotonic")));
                        EXPECT_EQ(text(metric, "description"), "what it counts");
                        for (const cJSON *point : items(sum, "dataPoints"))
                            by_name[text(metric, "name")][key_of(point)] = value_of(point);
                    }
                }
            }
        }
        return by_name;
    }
    static std::string key_of(const cJSON *point) {
        std::string key;
        for (const cJSON *kv : items(point, "attributes")) {
            char *value = cJSON_PrintUnformatted(at(kv, "value"));
            key += text(kv, "key") + "=" + value + ";";
            free(value);
        }
        return key;
    }
    static std::string value_of(const cJSON *point) {
        EXPECT_LE(std::stoull(text(point, "startTimeUnixNano")),
                  std::stoull(text(point, "timeUnixNano")));
        if (const cJSON *integer = cJSON_GetObjectItem(point, "asInt")) {
            return cJSON_IsString(integer) ? std::string("int ") + integer->valuestring : "?";
        }
        char number[32];
        snprintf(number, sizeof number, "double %g", at(point, "asDouble")->valuedouble);
        return number;
    }
    void *provider_ = nullptr;
    void *meter_ = nullptr;
};

TEST_F(Counters, SumsArePerAttributeSetWhateverTheOrderOfKeys) {
    void *ints = counter(OTELC_VALUE_INT64, "ints");
    void *reals = counter(OTELC_VALUE_DOUBLE, "reals");
    Attrs a = attrs(), b = attrs(), xy = attrs(), yx = attrs();
    otelc_set_str_attr(a.get(), "k", "a");
    otelc_set_str_attr(b.get(), "k", "b");
    otelc_set_int64_t_attr(xy.get(), "x", 1);
    otelc_set_bool_attr(xy.get(), "y", 1);
    otelc_set_bool_attr(yx.get(), "y", 1);
    otelc_set_int64_t_attr(yx.get(), "x", 1);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 5, a.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, -7, a.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 3, b.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 1, nullptr), 0);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 4, xy.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 6, yx.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_double_attrs(reals, 0.5, a.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_double_attrs(reals, 0.25, a.get()), 0);
    EXPECT_EQ(otelc_metrics_inst_add_double_attrs(ints, 1.0, a.get()), -1);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(reals, 1, a.get()), -1);
    otelc_destroy_metrics_inst(ints);
    otelc_destroy_metrics_inst(reals);
    otelc_cleanup_metrics_provider_ctx(provider_);

    auto by_name = points();
    const std::map<std::string, std::string> expected_ints = {
        {"k={\"stringValue\":\"a\"};", "int -2"},
        {"k={\"stringValue\":\"b\"};", "int 3"},
        {"", "int 1"},
        {"x={\"intValue\":\"1\"};y={\"boolValue\":true};", "int 10"}};
    EXPECT_EQ(by_name["ints"], expected_ints);
    const std::map<std::string, std::string> expected_reals = {
        {"k={\"stringValue\":\"a\"};", "double 0.75"}};
    EXPECT_EQ(by_name["reals"], expected_reals);
}

TEST_F(Counters, AttributeSetsBeyondTheLimitGoToTheOverflowPoint) {
    void *ints = counter(OTELC_VALUE_INT64, "ints");
    for (int i = 0; i < 2100; ++i) {
        Attrs set = attrs();
        otelc_set_int64_t_attr(set.get(), "i", i);
        EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 1, set.get()), 0);
    }
    Attrs first = attrs();
    otelc_set_int64_t_attr(first.get(), "i", 0);
    otelc_metrics_inst_add_int64_attrs(ints, 1, first.get());
    otelc_destroy_metrics_inst(ints);
    otelc_cleanup_metrics_provider_ctx(provider_);
    auto by_name = points();
    ASSERT_EQ(by_name["ints"].size(), 2000u);
    EXPECT_EQ(by_name["ints"]["otel.metric.overflow={\"boolValue\":true};"], "int 101");
    EXPECT_EQ(by_name["ints"]["i={\"intValue\":\"0\"};"], "int 2");
    EXPECT_EQ(by_name["ints"]["i={\"intValue\":\"1998\"};"], "int 1");
    EXPECT_EQ(by_name["ints"].count("i={\"intValue\":\"1999\"};"), 0u);
}

TEST_F(Counters, DestroyedInstrumentIsExportedOnceMore) {
    void *ints = counter(OTELC_VALUE_INT64, "ints");
    void *kept = counter(OTELC_VALUE_INT64, "kept");
    otelc_metrics_inst_add_int64_attrs(ints, 2, nullptr);
    otelc_metrics_inst_add_int64_attrs(kept, 3, nullptr);
    otelc_destroy_metrics_inst(ints);
    otelc_cleanup_metrics_provider_ctx(provider_);
    // A context made to replace it collects the same meter.
    provider_ = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
    otelc_metrics_inst_add_int64_attrs(kept, 1, nullptr);
    otelc_cleanup_metrics_provider_ctx(provider_);
    auto docs = documents("METRICS");
    ASSERT_EQ(docs.size(), 2u);
    char *second = cJSON_PrintUnformatted(docs[1].get());
    EXPECT_EQ(std::string(second).find("\"ints\""), std::string::npos);
    free(second);
    EXPECT_EQ(points()["kept"][""], "int 4");
    otelc_destroy_metrics_inst(kept);
}

TEST_F(Counters, ExportedEveryIntervalByTheExporterThread) {
    otelc_cleanup_metrics_provider_ctx(provider_);
    set("OTEL_METRIC_EXPORT_INTERVAL", "20");
    provider_ = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
    void *ints = counter(OTELC_VALUE_INT64, "ints");
    otelc_metrics_inst_add_int64_attrs(ints, 2, nullptr);
    size_t written = 0;
    for (int i = 0; i < 500 && written < 2; ++i) {
        usleep(10000);
        written = documents("METRICS").size();
    }
    EXPECT_GE(written, 2u);
    otelc_destroy_metrics_inst(ints);
    otelc_cleanup_metrics_provider_ctx(provider_);
}

}  // namespace
}  // namespace otelc_test
