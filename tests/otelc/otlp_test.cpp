// The otlp exporter against a loopback receiver: paths, content type, headers and documents;
// retries on 503 and 429 (Retry-After), refusals dropped, a stalled, absent or garbled receiver,
// and the endpoints and protocols it refuses or warns about.
#include <algorithm>
#include <chrono>
#include <regex>
#include <set>
#include <string>

#include "otelc/otelc_fixture.h"
#include "otelc/otlp_receiver.h"

namespace otelc_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class Otlp : public OtelcTest {
  protected:
    void SetUp() override {
        OtelcTest::SetUp();
        for (const char *signal : {"TRACES", "LOGS", "METRICS"})
            set(std::string("OTEL_") + signal + "_EXPORTER", "otlp");
    }
    // A tracer context with one tracer.
    void start_tracing() {
        tracing_ = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
        ASSERT_NE(tracing_, nullptr);
        tracer_ = otelc_get_tracer(tracing_, "t", nullptr, nullptr, nullptr);
    }
    void emit(const char *name, const char *parent = "", char *context = nullptr) {
        char own[OTELC_CONTEXT_CAPACITY];
        int capacity = sizeof own;
        otelc_end_span(otelc_start_span_with_tracer(tracing_, tracer_, name, nullptr, parent,
                                                    context ? context : own, &capacity));
    }
    // The names of the spans of a TracesData body.
    static std::vector<std::string> span_names(const std::string &body) {
        std::vector<std::string> names;
        Json doc(cJSON_Parse(body.c_str()), cJSON_Delete);
        EXPECT_NE(doc, nullptr) << body;
        for (const cJSON *rs : items(doc.get(), "resourceSpans"))
            for (const cJSON *ss : items(rs, "scopeSpans"))
                for (const cJSON *span : items(ss, "spans")) names.push_back(text(span, "name"));
        return names;
    }
    // The summary line cleanup logs for traces, as (dropped, exported); (-1, -1) when absent.
    static std::pair<int, int> counts(const std::string &log) {
        std::smatch match;
        if (!std::regex_search(log, match,
                               std::regex("otelc: traces of svc: ([0-9]+) dropped, ([0-9]+) "
                                          "exported\n")))
            return {-1, -1};
        return {std::stoi(match[1]), std::stoi(match[2])};
    }
    static size_t lines(const std::string &log) {
        return static_cast<size_t>(std::count(log.begin(), log.end(), '\n'));
    }

    void *tracing_ = nullptr;
    void *tracer_ = nullptr;
};

TEST_F(Otlp, PostsEachSignalAsJsonToItsPathWithTheConfiguredHeaders) {
    Receiver receiver;
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url() + "/");
    set("OTEL_EXPORTER_OTLP_HEADERS", "api-key = se%20cret , x-team=a%3Db");
    start_tracing();
    void *logging = otelc_init_logger_provider_ctx("svc", nullptr, nullptr);
    void *metrics = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
    void *logger = otelc_get_logger(logging, "l", nullptr, nullptr, nullptr);
    void *meter = otelc_get_meter(metrics, "m", nullptr, nullptr, nullptr);
    char parent[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof parent;
    void *outer =
        otelc_start_span_with_tracer(tracing_, tracer_, "outer", nullptr, "", parent, &capacity);
    emit("inner", parent);
    otelc_log_with_ctx(logging, outer, logger, OTELC_SEVERITY_DEBUG, "in outer");
    otelc_end_span(outer);
    void *counter = otelc_create_int64_up_down_counter(meter, "c", nullptr, nullptr);
    otelc_metrics_inst_add_int64_attrs(counter, 7, nullptr);
    otelc_metrics_inst_add_int64_attrs(counter, -2, nullptr);
    otelc_destroy_up_down_counter(counter);
    otelc_cleanup_tracer_provider_ctx(tracing_);
    otelc_cleanup_logger_provider_ctx(logging);
    otelc_cleanup_metrics_provider_ctx(metrics);

    ASSERT_TRUE(receiver.wait_for(3));
    std::map<std::string, Json> bodies;
    for (const Request &request : receiver.requests()) {
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.headers.at("content-type"), "application/json");
        EXPECT_EQ(request.headers.at("content-length"), std::to_string(request.body.size()));
        EXPECT_EQ(request.headers.at("host"), receiver.url().substr(7));
        EXPECT_EQ(request.headers.at("api-key"), "se cret");
        EXPECT_EQ(request.headers.at("x-team"), "a=b");
        cJSON *doc = cJSON_Parse(request.body.c_str());
        ASSERT_NE(doc, nullptr) << request.body;
        EXPECT_TRUE(bodies.emplace(request.path, Json(doc, cJSON_Delete)).second)
            << request.path << " posted twice";
    }
    ASSERT_EQ(bodies.size(), 3u);
    const cJSON *rs = items(bodies.at("/v1/traces").get(), "resourceSpans").at(0);
    EXPECT_EQ(string_attribute(at(rs, "resource"), "service.name"), "svc");
    auto spans = items(items(rs, "scopeSpans").at(0), "spans");
    ASSERT_EQ(spans.size(), 2u);
    EXPECT_EQ(text(spans[0], "name"), "inner");
    EXPECT_EQ(text(spans[0], "parentSpanId"), text(spans[1], "spanId"));
    EXPECT_EQ(text(spans[0], "traceId"), text(spans[1], "traceId"));
    const cJSON *record =
        items(items(items(bodies.at("/v1/logs").get(), "resourceLogs").at(0), "scopeLogs").at(0),
              "logRecords")
            .at(0);
    EXPECT_EQ(text(record, "spanId"), text(spans[1], "spanId"));
    EXPECT_EQ(text(at(record, "body"), "stringValue"), "in outer");
    const cJSON *metric =
        items(items(items(bodies.at("/v1/metrics").get(), "resourceMetrics").at(0), "scopeMetrics")
                  .at(0),
              "metrics")
            .at(0);
    EXPECT_EQ(text(items(at(metric, "sum"), "dataPoints").at(0), "asInt"), "5");
}

TEST_F(Otlp, SignalEndpointIsUsedAsGiven) {
    Receiver receiver;
    set("OTEL_EXPORTER_OTLP_ENDPOINT", "http://127.0.0.1:" + std::to_string(closed_port()));
    set("OTEL_EXPORTER_OTLP_TRACES_ENDPOINT", receiver.url() + "/custom/in?x=1");
    start_tracing();
    emit("one");
    otelc_cleanup_tracer_provider_ctx(tracing_);
    ASSERT_TRUE(receiver.wait_for(1));
    EXPECT_EQ(receiver.requests().at(0).path, "/custom/in?x=1");
}

// Retries come from the exporter thread on schedule: the batch reaches the receiver once.
TEST_F(Otlp, RetriesOn503AndDeliversTheBatchOnce) {
    Receiver receiver({answer(503), answer(503)});
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
    set("OTEL_BSP_SCHEDULE_DELAY", "10");
    testing::internal::CaptureStderr();
    start_tracing();
    emit("once");
    ASSERT_TRUE(receiver.wait_for(3));
    otelc_cleanup_tracer_provider_ctx(tracing_);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const auto requests = receiver.requests();
    ASSERT_EQ(requests.size(), 3u);
    for (const Request &request : requests) {
        EXPECT_EQ(request.body, requests[0].body);
        EXPECT_EQ(span_names(request.body), std::vector<std::string>{"once"});
    }
    // Backoff: the second retry waits longer than the first, neither is immediate.
    EXPECT_GE(requests[1].at - requests[0].at, milliseconds(100));
    EXPECT_GE(requests[2].at - requests[1].at, milliseconds(200));
}

TEST_F(Otlp, WaitsAsRetryAfterAsksOn429) {
    Receiver receiver({answer(429, "Retry-After: 1\r\n")});
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
    start_tracing();
    emit("later");
    otelc_cleanup_tracer_provider_ctx(tracing_);
    const auto requests = receiver.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_GE(requests[1].at - requests[0].at, milliseconds(950));
    EXPECT_EQ(span_names(requests[1].body), std::vector<std::string>{"later"});
}

TEST_F(Otlp, RetryAfterBeyondTheTimeoutGivesUp) {
    Receiver receiver({}, answer(503, "Retry-After: 30\r\n"));
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
    set("OTEL_EXPORTER_OTLP_TIMEOUT", "2000");
    start_tracing();
    emit("never");
    testing::internal::CaptureStderr();
    const auto start = Clock::now();
    otelc_cleanup_tracer_provider_ctx(tracing_);
    EXPECT_LT(Clock::now() - start, milliseconds(1500));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(receiver.requests().size(), 1u);
    EXPECT_NE(log.find("HTTP 503 (attempts: 1)"), std::string::npos) << log;
    EXPECT_EQ(counts(log), std::make_pair(1, 0)) << log;
}

TEST_F(Otlp, RefusalIsDroppedWithOneLineAndNotRetried) {
    Receiver receiver({answer(400, "", "bad\r\nthings")});
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
    start_tracing();
    emit("refused");
    testing::internal::CaptureStderr();
    otelc_cleanup_tracer_provider_ctx(tracing_);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(receiver.requests().size(), 1u);
    EXPECT_EQ(lines(log), 2u) << log;
    EXPECT_NE(log.find("otelc: traces to " + receiver.url() +
                       "/v1/traces: HTTP 400: bad  things; a batch of 1 dropped"),
              std::string::npos)
        << log;
    EXPECT_EQ(counts(log), std::make_pair(1, 0)) << log;
}

// The receiver reads the request and never answers: the export gives up at the OTLP timeout,
// and neither the caller nor making a context waits for it. They are done while the receiver
// still holds the export open, which it does for the whole timeout.
TEST_F(Otlp, StalledReceiverCostsTheExportItsTimeoutOnly) {
    Receiver receiver({}, stall());
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
    set("OTEL_EXPORTER_OTLP_TIMEOUT", "2000");
    set("OTEL_BSP_SCHEDULE_DELAY", "10");
    start_tracing();
    emit("first");
    ASSERT_TRUE(receiver.wait_for(1));
    for (int i = 0; i < 200; ++i) emit("more");
    void *logging = otelc_init_logger_provider_ctx("svc", nullptr, nullptr);
    EXPECT_TRUE(receiver.holding()) << "the export in flight ended before the caller was done";
    otelc_cleanup_logger_provider_ctx(logging);
    testing::internal::CaptureStderr();
    const auto start = Clock::now();
    otelc_cleanup_tracer_provider_ctx(tracing_);
    // Cleanup waits for the export in flight and makes its own, each ending at the timeout. The
    // bound only catches a wait without a deadline; beyond twice the timeout it is slack for a
    // loaded machine (sanitizers, qemu).
    EXPECT_LT(Clock::now() - start, milliseconds(2 * 2000 + 4000));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(counts(log), std::make_pair(201, 0)) << log;
}

// Nothing listens: every export fails at connect and is retried until the OTLP timeout, which
// the stalled case shows the caller never waits for; here the drops are counted and the refusal
// logged once.
TEST_F(Otlp, AbsentReceiverCountsDropsAndBlocksNothing) {
    const std::string url = "http://127.0.0.1:" + std::to_string(closed_port());
    set("OTEL_EXPORTER_OTLP_ENDPOINT", url);
    set("OTEL_EXPORTER_OTLP_TIMEOUT", "1000");
    set("OTEL_BSP_SCHEDULE_DELAY", "5");
    testing::internal::CaptureStderr();
    start_tracing();
    // Emitting for a while lets several exports fail and retry meanwhile.
    const auto end = Clock::now() + milliseconds(600);
    int emitted = 0;
    for (; Clock::now() < end; ++emitted) emit("lost");
    const auto start = Clock::now();
    otelc_cleanup_tracer_provider_ctx(tracing_);
    // At most the export in flight and cleanup's own, each bounded by the 1 s timeout; the rest
    // of the bound is slack for a loaded machine, not a measure of speed.
    EXPECT_LT(Clock::now() - start, milliseconds(2 * 1000 + 4000));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(counts(log), std::make_pair(emitted, 0)) << log;
    // Repeated refusals log once.
    EXPECT_EQ(lines(log), 2u) << log;
    EXPECT_NE(log.find("otelc: traces to " + url + "/v1/traces: connect: Connection refused"),
              std::string::npos)
        << log;
}

TEST_F(Otlp, ResponsesThatAreNotHttpFailCleanly) {
    const std::pair<std::string, std::string> cases[] = {
        {"SSH-2.0-OpenSSH\r\n\r\n", "the response is not HTTP/1.x"},
        {"HTTP/1.1 2000 OK\r\n\r\n", "the response is not HTTP/1.x"},
        {"HTTP/1.1 200 OK\r\n" + std::string(9000, 'x'), "response headers longer than 8192"},
        {std::string("HTTP/1.1 503 X\r\nRetry-After: 99999999999999999999\r\n\r\n\0\xff", 55),
         "HTTP 503"},
        {"HTTP/1.1 20", "connection closed before a complete response"},
    };
    for (const auto &c : cases) {
        Receiver receiver({}, raw(c.first));
        set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
        set("OTEL_EXPORTER_OTLP_TIMEOUT", "600");
        start_tracing();
        emit("garbled");
        testing::internal::CaptureStderr();
        otelc_cleanup_tracer_provider_ctx(tracing_);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find(c.second), std::string::npos) << log;
        EXPECT_EQ(counts(log), std::make_pair(1, 0)) << log;
    }
}

TEST_F(Otlp, HttpsEndpointIsRefusedWithOneLine) {
    set("OTEL_EXPORTER_OTLP_ENDPOINT", "https://collector:4318");
    testing::internal::CaptureStderr();
    start_tracing();
    emit("nowhere");
    otelc_cleanup_tracer_provider_ctx(tracing_);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "otelc: OTEL_EXPORTER_OTLP_ENDPOINT: https endpoint "
              "https://collector:4318/v1/traces refused: this library has no TLS (let a "
              "collector on the device or its gateway terminate TLS and give its http "
              "endpoint); traces are not exported\n");
}

TEST_F(Otlp, MalformedEndpointsAreRefusedWithOneLine) {
    for (const char *endpoint : {"http://127.0.0.1:99999", "http://:4318", "ftp://host",
                                 "http://user@host", "http://[::1", "http://ho st"}) {
        set("OTEL_EXPORTER_OTLP_TRACES_ENDPOINT", endpoint);
        testing::internal::CaptureStderr();
        start_tracing();
        otelc_cleanup_tracer_provider_ctx(tracing_);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("otelc: OTEL_EXPORTER_OTLP_TRACES_ENDPOINT: '") + endpoint +
                      "' is not an http://host[:port][/path] endpoint; traces are not "
                      "exported\n");
    }
}

TEST_F(Otlp, OtherProtocolWarnsOnceAndPostsJson) {
    Receiver receiver;
    set("OTEL_EXPORTER_OTLP_ENDPOINT", receiver.url());
    set("OTEL_EXPORTER_OTLP_PROTOCOL", "grpc");
    set("OTEL_EXPORTER_OTLP_HEADERS", "novalue,ok=1,Content-Type=text/plain,bad%zz=1");
    testing::internal::CaptureStderr();
    start_tracing();
    void *logging = otelc_init_logger_provider_ctx("svc", nullptr, nullptr);
    emit("json");
    otelc_cleanup_logger_provider_ctx(logging);
    otelc_cleanup_tracer_provider_ctx(tracing_);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "otelc: OTEL_EXPORTER_OTLP_PROTOCOL='grpc' is not supported; using http/json\n"
              "otelc: OTEL_EXPORTER_OTLP_HEADERS has malformed or reserved entries; they are "
              "not sent\n"
              "otelc: OTEL_EXPORTER_OTLP_HEADERS has malformed or reserved entries; they are "
              "not sent\n");
    ASSERT_TRUE(receiver.wait_for(1));
    const Request request = receiver.requests().at(0);
    EXPECT_EQ(request.headers.at("content-type"), "application/json");
    EXPECT_EQ(request.headers.at("ok"), "1");
    EXPECT_EQ(span_names(request.body), std::vector<std::string>{"json"});
}

}  // namespace
}  // namespace otelc_test
