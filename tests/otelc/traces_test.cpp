// Spans as the file exporter writes them: ids, parents, scopes, resource, attributes, status and
// texts, read back field by field.
#include <cstring>
#include <map>
#include <string>

#include "otelc/otelc_fixture.h"

namespace otelc_test {
namespace {

class Spans : public OtelcTest {
  protected:
    // The spans of the one document written, by name; the document in *doc.
    std::map<std::string, const cJSON *> spans_by_name(std::vector<Json> *docs) {
        *docs = documents("TRACES");
        std::map<std::string, const cJSON *> spans;
        EXPECT_EQ(docs->size(), 1u);
        for (const Json &doc : *docs) {
            for (const cJSON *rs : items(doc.get(), "resourceSpans")) {
                for (const cJSON *ss : items(rs, "scopeSpans")) {
                    for (const cJSON *span : items(ss, "spans")) spans[text(span, "name")] = span;
                }
            }
        }
        return spans;
    }
};

TEST_F(Spans, ParentAndChildAcrossScopesShareTraceAndAreGroupedByScope) {
    Attrs resource = attrs();
    otelc_set_str_attr(resource.get(), "host.name", "dev-1");
    void *provider = otelc_init_tracer_provider_ctx("door", "2.1", resource.get());
    ASSERT_NE(provider, nullptr);
    Attrs scope_attrs = attrs();
    otelc_set_bool_attr(scope_attrs.get(), "lab", 1);
    void *net = otelc_get_tracer(provider, "net", "1.0", nullptr, scope_attrs.get());
    void *db = otelc_get_tracer(provider, "db", nullptr, nullptr, nullptr);
    EXPECT_EQ(otelc_get_tracer(provider, "net", "1.0", nullptr, scope_attrs.get()), net);

    char parent_context[OTELC_CONTEXT_CAPACITY], child_context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof parent_context;
    void *parent = otelc_start_span_with_tracer(provider, net, "request", nullptr, "",
                                                parent_context, &capacity);
    capacity = sizeof child_context;
    void *child = otelc_start_span_with_tracer(provider, db, "query", nullptr, parent_context,
                                               child_context, &capacity);
    Attrs span_attrs = attrs();
    otelc_set_str_attr(span_attrs.get(), "table", "doors");
    otelc_set_int64_t_attr(span_attrs.get(), "rows", 1);
    otelc_set_int64_t_attr(span_attrs.get(), "rows", INT64_MAX);
    otelc_set_double_attr(span_attrs.get(), "ratio", 0.25);
    otelc_set_bool_attr(span_attrs.get(), "cached", 0);
    otelc_set_span_attrs(child, span_attrs.get());
    otelc_set_span_status(child, OTELC_STATUS_ERROR, "timed out");
    otelc_set_span_status(parent, OTELC_STATUS_OK, "ignored for ok");
    otelc_end_span(child);
    otelc_end_span(parent);
    otelc_cleanup_tracer_provider_ctx(provider);

    std::vector<Json> docs;
    auto spans = spans_by_name(&docs);
    ASSERT_EQ(spans.size(), 2u);
    const cJSON *rs = items(docs[0].get(), "resourceSpans").at(0);
    const cJSON *resource_json = at(rs, "resource");
    EXPECT_EQ(string_attribute(resource_json, "service.name"), "door");
    EXPECT_EQ(string_attribute(resource_json, "service.version"), "2.1");
    EXPECT_EQ(string_attribute(resource_json, "host.name"), "dev-1");
    EXPECT_EQ(string_attribute(resource_json, "telemetry.sdk.language"), "cpp");
    EXPECT_EQ(string_attribute(resource_json, "telemetry.sdk.name"), "opentelemetry-c");

    auto scopes = items(rs, "scopeSpans");
    ASSERT_EQ(scopes.size(), 2u);
    const cJSON *db_scope = at(scopes[0], "scope");
    const cJSON *net_scope = at(scopes[1], "scope");
    EXPECT_EQ(text(db_scope, "name"), "db");
    EXPECT_EQ(cJSON_GetObjectItem(db_scope, "version"), nullptr);
    EXPECT_EQ(text(net_scope, "name"), "net");
    EXPECT_EQ(text(net_scope, "version"), "1.0");
    EXPECT_TRUE(cJSON_IsTrue(at(attribute(net_scope, "lab"), "boolValue")));

    const cJSON *request = spans["request"];
    const cJSON *query = spans["query"];
    EXPECT_EQ(text(query, "traceId"), text(request, "traceId"));
    EXPECT_EQ(text(query, "parentSpanId"), text(request, "spanId"));
    EXPECT_EQ(cJSON_GetObjectItem(request, "parentSpanId"), nullptr);
    EXPECT_EQ(std::string(parent_context).substr(3, 32), text(request, "traceId"));
    EXPECT_EQ(std::string(parent_context).substr(36, 16), text(request, "spanId"));
    EXPECT_EQ(std::string(child_context).substr(36, 16), text(query, "spanId"));
    EXPECT_EQ(at(query, "kind")->valueint, 1);
    EXPECT_LE(std::stoull(text(query, "startTimeUnixNano")),
              std::stoull(text(query, "endTimeUnixNano")));
    EXPECT_GT(std::stoull(text(query, "startTimeUnixNano")), 1600000000000000000ull);

    EXPECT_EQ(text(attribute(query, "rows"), "intValue"), "9223372036854775807");
    EXPECT_EQ(string_attribute(query, "table"), "doors");
    EXPECT_DOUBLE_EQ(at(attribute(query, "ratio"), "doubleValue")->valuedouble, 0.25);
    EXPECT_TRUE(cJSON_IsFalse(at(attribute(query, "cached"), "boolValue")));
    EXPECT_EQ(items(query, "attributes").size(), 4u);
    EXPECT_EQ(at(at(query, "status"), "code")->valueint, 2);
    EXPECT_EQ(text(at(query, "status"), "message"), "timed out");
    EXPECT_EQ(at(at(request, "status"), "code")->valueint, 1);
    EXPECT_EQ(cJSON_GetObjectItem(at(request, "status"), "message"), nullptr);
}

TEST_F(Spans, StatusOutsideTheThreeCodesIsUnset) {
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    void *span =
        otelc_start_span_with_tracer(provider, tracer, "s", nullptr, "", context, &capacity);
    otelc_set_span_status(span, OTELC_STATUS_ERROR, "first");
    otelc_set_span_status(span, 7, "odd");
    otelc_end_span(span);
    otelc_cleanup_tracer_provider_ctx(provider);
    std::vector<Json> docs;
    EXPECT_EQ(cJSON_GetObjectItem(spans_by_name(&docs)["s"], "status"), nullptr);
}

TEST_F(Spans, AttributesBeyondTheLimitAreCountedAsDropped) {
    set("OTEL_SPAN_ATTRIBUTE_COUNT_LIMIT", "3");
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    Attrs first = attrs();
    for (const char *key : {"a", "b", "c", "d"}) otelc_set_int64_t_attr(first.get(), key, 1);
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    void *span =
        otelc_start_span_with_tracer(provider, tracer, "s", first.get(), "", context, &capacity);
    Attrs later = attrs();
    otelc_set_int64_t_attr(later.get(), "a", 2);
    otelc_set_int64_t_attr(later.get(), "e", 1);
    otelc_set_span_attrs(span, later.get());
    otelc_end_span(span);
    otelc_cleanup_tracer_provider_ctx(provider);
    std::vector<Json> docs;
    const cJSON *s = spans_by_name(&docs)["s"];
    EXPECT_EQ(items(s, "attributes").size(), 3u);
    EXPECT_EQ(text(attribute(s, "a"), "intValue"), "2");
    EXPECT_EQ(attribute(s, "d"), nullptr);
    EXPECT_EQ(at(s, "droppedAttributesCount")->valueint, 2);
}

TEST_F(Spans, TextsAreEscapedAndInvalidUtf8Replaced) {
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    const char *name = "q\"b\\s/\n\t\x01\x1f\x7f \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80";
    const char *broken =
        "a\xff"
        "b\xe2\x82"
        "c\xc0\xaf"
        "d\xed\xa0\x80"
        "e\xf4\x90\x80\x80";
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    void *span =
        otelc_start_span_with_tracer(provider, tracer, name, nullptr, "", context, &capacity);
    Attrs values = attrs();
    otelc_set_str_attr(values.get(), "broken", broken);
    otelc_set_span_attrs(span, values.get());
    otelc_end_span(span);
    otelc_cleanup_tracer_provider_ctx(provider);

    std::ifstream in(path("TRACES"));
    std::string line;
    std::getline(in, line);
    EXPECT_NE(line.find(R"(q\"b\\s/\n\t\u0001\u001f)"), std::string::npos) << line;
    std::vector<Json> docs;
    auto spans = spans_by_name(&docs);
    ASSERT_EQ(spans.count(name), 1u);
    const std::string fffd = "\xef\xbf\xbd";
    EXPECT_EQ(string_attribute(spans[name], "broken"), "a" + fffd + "b" + fffd + fffd + "c" + fffd +
                                                           fffd + "d" + fffd + fffd + fffd + "e" +
                                                           fffd + fffd + fffd + fffd);
}

TEST_F(Spans, ResourceTakesEnvironmentAttributesBelowTheGivenOnes) {
    set("OTEL_RESOURCE_ATTRIBUTES",
        "deployment.environment=lab%2C1, team = a%3Db ,service.name=from-env,zone=");
    Attrs given = attrs();
    otelc_set_str_attr(given.get(), "team", "given");
    void *provider = otelc_init_tracer_provider_ctx("door", nullptr, given.get());
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    otelc_end_span(
        otelc_start_span_with_tracer(provider, tracer, "s", nullptr, "", context, &capacity));
    otelc_cleanup_tracer_provider_ctx(provider);
    std::vector<Json> docs;
    spans_by_name(&docs);
    const cJSON *resource = at(items(docs.at(0).get(), "resourceSpans").at(0), "resource");
    EXPECT_EQ(string_attribute(resource, "deployment.environment"), "lab,1");
    EXPECT_EQ(string_attribute(resource, "team"), "given");
    EXPECT_EQ(string_attribute(resource, "service.name"), "door");
    EXPECT_EQ(string_attribute(resource, "zone"), "");
}

TEST_F(Spans, MalformedEnvironmentLogsOneLineAndUsesTheDefault) {
    const char *const cases[][3] = {
        {"OTEL_RESOURCE_ATTRIBUTES", "a=b,%zz=c",
         "otelc: OTEL_RESOURCE_ATTRIBUTES='a=b,%zz=c' is not a list of k=v pairs; ignored\n"},
        {"OTEL_RESOURCE_ATTRIBUTES", "a=b,novalue",
         "otelc: OTEL_RESOURCE_ATTRIBUTES='a=b,novalue' is not a list of k=v pairs; ignored\n"},
        {"OTEL_BSP_MAX_QUEUE_SIZE", "12x",
         "otelc: OTEL_BSP_MAX_QUEUE_SIZE='12x' is not a number in [1, 1048576]; using 2048\n"},
        {"OTEL_BSP_SCHEDULE_DELAY", "-1",
         "otelc: OTEL_BSP_SCHEDULE_DELAY='-1' is not a number in [0, 86400000]; using 5000\n"},
        {"OTEL_TRACES_EXPORTER", "zipkin",
         "otelc: OTEL_TRACES_EXPORTER='zipkin' is not otlp, otlp_file, console or none; using "
         "otlp\n"},
    };
    for (const auto &c : cases) {
        set(c[0], c[1]);
        testing::internal::CaptureStderr();
        void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
        otelc_cleanup_tracer_provider_ctx(provider);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c[2]);
        EXPECT_NE(provider, nullptr);
        unsetenv(c[0]);
        set("OTEL_TRACES_EXPORTER", "otlp_file");
    }
    std::vector<Json> docs = documents("TRACES");
    EXPECT_TRUE(docs.empty());
}

TEST_F(Spans, DisabledSdkMakesNoContext) {
    set("OTEL_SDK_DISABLED", "TRUE");
    EXPECT_EQ(otelc_init_tracer_provider_ctx("svc", nullptr, nullptr), nullptr);
    EXPECT_EQ(otelc_init_logger_provider_ctx("svc", nullptr, nullptr), nullptr);
    EXPECT_EQ(otelc_init_metrics_provider_ctx("svc", nullptr, nullptr), nullptr);
}

}  // namespace
}  // namespace otelc_test
