// The batch queue and the exporter thread: exports on schedule and on a full batch, drops and
// counts when the queue is full, never blocks the caller, cleanup bounded by the timeout; and
// threads emitting while contexts come and go (ThreadSanitizer).
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "otelc/otelc_fixture.h"

namespace otelc_test {
namespace {

using Clock = std::chrono::steady_clock;

class Queue : public OtelcTest {
  protected:
    void emit(void *provider, void *tracer, const std::string &name) {
        char context[OTELC_CONTEXT_CAPACITY];
        int capacity = sizeof context;
        otelc_end_span(otelc_start_span_with_tracer(provider, tracer, name.c_str(), nullptr, "",
                                                    context, &capacity));
    }
    // Waits (at most five seconds) until the traces file holds a document.
    size_t wait_for_document() {
        size_t written = 0;
        for (int i = 0; i < 500 && written == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            written = documents("TRACES").size();
        }
        return written;
    }
};

TEST_F(Queue, ExportsAfterTheScheduleDelay) {
    set("OTEL_BSP_SCHEDULE_DELAY", "20");
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    emit(provider, tracer, "one");
    EXPECT_EQ(wait_for_document(), 1u);
    otelc_cleanup_tracer_provider_ctx(provider);
}

TEST_F(Queue, ExportsAFullBatchBeforeTheDelay) {
    set("OTEL_BSP_SCHEDULE_DELAY", "600000");
    set("OTEL_BSP_MAX_EXPORT_BATCH_SIZE", "2");
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    emit(provider, tracer, "one");
    emit(provider, tracer, "two");
    EXPECT_EQ(wait_for_document(), 1u);
    auto traces = documents("TRACES");
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(
        items(items(items(traces[0].get(), "resourceSpans").at(0), "scopeSpans").at(0), "spans")
            .size(),
        2u);
    otelc_cleanup_tracer_provider_ctx(provider);
}

// The traces "file" is a pipe nobody reads: the first batch fills it and the exporter waits for
// it until the export timeout, while the caller goes on and the queue overflows.
TEST_F(Queue, FullQueueDropsAndCountsWithoutBlockingTheCaller) {
    ASSERT_EQ(mkfifo(path("TRACES").c_str(), 0600), 0);
    const int reader = open(path("TRACES").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    set("OTEL_BSP_MAX_QUEUE_SIZE", "4");
    set("OTEL_BSP_MAX_EXPORT_BATCH_SIZE", "4");
    set("OTEL_BSP_SCHEDULE_DELAY", "600000");
    set("OTEL_BSP_EXPORT_TIMEOUT", "300");
    void *provider = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(provider, "t", nullptr, nullptr, nullptr);
    const std::string big(32 * 1024, 'n');
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) emit(provider, tracer, big);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(250));
    testing::internal::CaptureStderr();
    const auto cleanup = Clock::now();
    otelc_cleanup_tracer_provider_ctx(provider);
    EXPECT_LT(Clock::now() - cleanup, std::chrono::milliseconds(1500));
    const std::string log = testing::internal::GetCapturedStderr();
    std::smatch counts;
    ASSERT_TRUE(std::regex_match(log, counts,
                                 std::regex("otelc: traces of svc: ([0-9]+) dropped, "
                                            "([0-9]+) exported\n")))
        << log;
    EXPECT_EQ(std::stoi(counts[1]) + std::stoi(counts[2]), 100);
    EXPECT_GE(std::stoi(counts[1]), 92);
    close(reader);
}

// Four threads emit spans, logs and counter additions while the exporter thread exports every
// few milliseconds, scope attributes are replaced and another service's contexts come and go.
TEST_F(Queue, ThreadsEmitWhileContextsAreRemade) {
    for (const char *name :
         {"OTEL_BSP_SCHEDULE_DELAY", "OTEL_BLRP_SCHEDULE_DELAY", "OTEL_METRIC_EXPORT_INTERVAL"})
        set(name, "2");
    void *tracing = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
    void *logging = otelc_init_logger_provider_ctx("svc", nullptr, nullptr);
    void *metrics = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
    void *tracer = otelc_get_tracer(tracing, "t", nullptr, nullptr, nullptr);
    void *logger = otelc_get_logger(logging, "t", nullptr, nullptr, nullptr);
    void *meter = otelc_get_meter(metrics, "t", nullptr, nullptr, nullptr);
    void *counter = otelc_create_int64_up_down_counter(meter, "c", nullptr, nullptr);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            Attrs attrs = otelc_test::attrs();
            otelc_set_int64_t_attr(attrs.get(), "thread", t);
            for (int i = 0; i < 300; ++i) {
                char context[OTELC_CONTEXT_CAPACITY];
                int capacity = sizeof context;
                void *span = otelc_start_span_with_tracer(tracing, tracer, "s", attrs.get(), "",
                                                          context, &capacity);
                otelc_log_with_ctx(logging, span, logger, OTELC_SEVERITY_DEBUG, "in span");
                otelc_end_span(span);
                otelc_metrics_inst_add_int64_attrs(counter, 1, attrs.get());
            }
        });
    }
    std::thread remaker([&] {
        while (!done.load()) {
            Attrs resource = attrs();
            otelc_set_str_attr(resource.get(), "round", "x");
            void *other = otelc_init_logger_provider_ctx("other", nullptr, resource.get());
            otelc_set_logger_instrumentationscope_attrs(logging, logger, resource.get());
            otelc_cleanup_logger_provider_ctx(other);
        }
    });
    for (std::thread &thread : threads) thread.join();
    done = true;
    remaker.join();
    otelc_destroy_up_down_counter(counter);
    otelc_cleanup_metrics_provider_ctx(metrics);
    otelc_cleanup_logger_provider_ctx(logging);
    otelc_cleanup_tracer_provider_ctx(tracing);
    size_t spans = 0;
    for (const Json &doc : documents("TRACES")) {
        for (const cJSON *rs : items(doc.get(), "resourceSpans"))
            for (const cJSON *ss : items(rs, "scopeSpans")) spans += items(ss, "spans").size();
    }
    EXPECT_EQ(spans, 1200u);
}

}  // namespace
}  // namespace otelc_test
