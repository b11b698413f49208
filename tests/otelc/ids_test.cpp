// Ids and the traceparent text: what a span writes, what it accepts as its parent, and how
// the text is cut to the caller's capacity.
#include <cstring>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "otelc/otelc_fixture.h"

namespace otelc_test {
namespace {

constexpr char kParent[] = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01";

class Traceparent : public OtelcTest {
  protected:
    void SetUp() override {
        OtelcTest::SetUp();
        set("OTEL_TRACES_EXPORTER", "none");
        provider_ = otelc_init_tracer_provider_ctx("svc", nullptr, nullptr);
        ASSERT_NE(provider_, nullptr);
        tracer_ = otelc_get_tracer(provider_, "scope", nullptr, nullptr, nullptr);
        ASSERT_NE(tracer_, nullptr);
    }
    void TearDown() override {
        otelc_cleanup_tracer_provider_ctx(provider_);
        OtelcTest::TearDown();
    }
    // The context text of a span started (and ended) under parent, with capacity bytes offered.
    std::string child_of(const char *parent, int capacity = OTELC_CONTEXT_CAPACITY) {
        char context[OTELC_CONTEXT_CAPACITY];
        memset(context, 'x', sizeof context);
        int length = capacity;
        void *span = otelc_start_span_with_tracer(provider_, tracer_, "s", nullptr, parent, context,
                                                  &length);
        EXPECT_NE(span, nullptr);
        otelc_end_span(span);
        if (capacity <= 0) {
            EXPECT_EQ(length, 0);
            EXPECT_EQ(context[0], 'x');
            return "";
        }
        EXPECT_EQ(context[length], '\0');
        EXPECT_EQ(static_cast<size_t>(length), strlen(context));
        return context;
    }
    void *provider_ = nullptr;
    void *tracer_ = nullptr;
};

TEST_F(Traceparent, NewTraceIsVersion00WithLowercaseIdsAndSampledFlag) {
    const std::string context = child_of("");
    EXPECT_TRUE(std::regex_match(context, std::regex("00-[0-9a-f]{32}-[0-9a-f]{16}-01")))
        << context;
}

TEST_F(Traceparent, ChildKeepsParentTraceIdWithItsOwnSpanId) {
    const std::string context = child_of(kParent);
    EXPECT_EQ(context.substr(0, 36), std::string(kParent).substr(0, 36));
    EXPECT_NE(context.substr(36, 16), "b7ad6b7169203331");
}

TEST_F(Traceparent, LaterVersionWithMoreFieldsIsAccepted) {
    const std::string context =
        child_of("cc-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01-what-comes-next");
    EXPECT_EQ(context.substr(3, 32), "0af7651916cd43dd8448eb211c80319c");
}

TEST_F(Traceparent, MalformedParentStartsNewTrace) {
    const char *const malformed[] = {
        "00-0AF7651916CD43DD8448EB211C80319C-B7AD6B7169203331-01",   // uppercase
        "ff-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01",   // forbidden version
        "00-00000000000000000000000000000000-b7ad6b7169203331-01",   // zero trace id
        "00-0af7651916cd43dd8448eb211c80319c-0000000000000000-01",   // zero span id
        "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-0",    // short
        "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01-",  // 00 with more
        "cc-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01x",  // no dash after
        "00-0af7651916cd43dd8448eb211c80319g-b7ad6b7169203331-01",   // not hex
        "00_0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01",   // separator
        "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-zz",   // flags
        "",
        nullptr,
    };
    for (const char *parent : malformed) {
        const std::string context = child_of(parent);
        EXPECT_EQ(context.size(), 55u) << (parent ? parent : "null");
        EXPECT_NE(context.substr(3, 32), "0af7651916cd43dd8448eb211c80319c")
            << (parent ? parent : "null");
    }
}

TEST_F(Traceparent, ContextIsCutToCapacityAndTerminated) {
    EXPECT_EQ(child_of(kParent, 56).size(), 55u);
    const std::string cut = child_of(kParent, 55);
    EXPECT_EQ(cut.size(), 54u);
    EXPECT_EQ(cut.substr(0, 36), std::string(kParent).substr(0, 36));
    EXPECT_EQ(child_of(kParent, 10), "00-0af765");
    EXPECT_EQ(child_of(kParent, 1), "");
    child_of(kParent, 0);
    child_of(kParent, -5);
}

TEST_F(Traceparent, IdsAreDistinctAndNeverZeroAcrossThreads) {
    std::set<std::string> seen;
    std::mutex seen_lock;
    auto make = [&] {
        for (int i = 0; i < 2000; ++i) {
            const std::string context = child_of("");
            std::lock_guard hold(seen_lock);
            EXPECT_TRUE(seen.insert(context.substr(3, 32)).second);
            EXPECT_TRUE(seen.insert(context.substr(36, 16)).second);
        }
    };
    std::thread a(make), b(make);
    a.join();
    b.join();
    EXPECT_EQ(seen.size(), 8000u);
    EXPECT_EQ(seen.count(std::string(32, '0')), 0u);
    EXPECT_EQ(seen.count(std::string(16, '0')), 0u);
}

TEST(TraceContextText, TraceIdIsReadFromValidContextOnly) {
    char trace_id[40];
    int capacity = sizeof trace_id;
    EXPECT_EQ(otelc_get_trace_from_ctx(kParent, trace_id, &capacity), 0);
    EXPECT_STREQ(trace_id, "0af7651916cd43dd8448eb211c80319c");
    EXPECT_EQ(capacity, 32);
    capacity = 5;
    EXPECT_EQ(otelc_get_trace_from_ctx(kParent, trace_id, &capacity), 0);
    EXPECT_STREQ(trace_id, "0af7");
    capacity = sizeof trace_id;
    EXPECT_EQ(otelc_get_trace_from_ctx("00-zz", trace_id, &capacity), -1);
    EXPECT_EQ(capacity, 0);
}

TEST(TraceContextText, ContextIsMadeFromValidIdsOnly) {
    char context[OTELC_CONTEXT_CAPACITY];
    int capacity = sizeof context;
    EXPECT_EQ(otelc_set_trace_to_ctx("0AF7651916CD43DD8448EB211C80319C", "b7ad6b7169203331",
                                     context, &capacity),
              0);
    EXPECT_STREQ(context, kParent);
    EXPECT_EQ(capacity, 55);
    const char *const bad[][2] = {{"0af7651916cd43dd8448eb211c80319", "b7ad6b7169203331"},
                                  {"0af7651916cd43dd8448eb211c80319c", "b7ad6b716920333"},
                                  {"00000000000000000000000000000000", "b7ad6b7169203331"},
                                  {"0af7651916cd43dd8448eb211c80319c", "000000000000000g"},
                                  {nullptr, "b7ad6b7169203331"}};
    for (const auto &ids : bad) {
        capacity = sizeof context;
        EXPECT_EQ(otelc_set_trace_to_ctx(ids[0], ids[1], context, &capacity), -1);
        EXPECT_EQ(capacity, 0);
    }
}

}  // namespace
}  // namespace otelc_test
