// Adds from several threads at once, to attribute sets seen before and to new ones while the
// instrument's table grows, sum exactly.
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "otelc/otelc_fixture.h"

namespace otelc_test {
namespace {

class ConcurrentCounters : public OtelcTest {
  protected:
    void *counter(void *meter, int value_type, const char *name) {
        return otelc_create_metrics_inst_from_meter(
            {OTELC_INSTRUMENT_UPDOWN_COUNTER, 1, value_type}, meter, name, nullptr, nullptr);
    }
    // Each metric's points: the text of a point's attributes to its value as written.
    std::map<std::string, std::map<std::string, std::string>> points() {
        std::map<std::string, std::map<std::string, std::string>> by_name;
        for (const Json &doc : documents("METRICS")) {
            for (const cJSON *rm : items(doc.get(), "resourceMetrics")) {
                for (const cJSON *sm : items(rm, "scopeMetrics")) {
                    for (const cJSON *metric : items(sm, "metrics")) {
                        for (const cJSON *point : items(at(metric, "sum"), "dataPoints")) {
                            std::string key;
                            for (const cJSON *kv : items(point, "attributes")) {
                                char *value = cJSON_PrintUnformatted(at(kv, "value"));
                                key += text(kv, "key") + "=" + value + ";";
                                free(value);
                            }
                            const cJSON *real = cJSON_GetObjectItem(point, "asDouble");
                            by_name[text(metric, "name")][key] =
                                real ? std::to_string(real->valuedouble) : text(point, "asInt");
                        }
                    }
                }
            }
        }
        return by_name;
    }
};

TEST_F(ConcurrentCounters, AddsFromFourThreadsSumExactlyWhileNewSetsAreMade) {
    void *provider = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
    void *meter = otelc_get_meter(provider, "m", nullptr, nullptr, nullptr);
    void *ints = counter(meter, OTELC_VALUE_INT64, "ints");
    void *reals = counter(meter, OTELC_VALUE_DOUBLE, "reals");
    constexpr int kThreads = 4, kAdds = 21000, kNewSets = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([=] {
            // The same set, its keys in another order on every other thread.
            Attrs shared = attrs();
            otelc_set_str_attr(shared.get(), t % 2 ? "k" : "n", t % 2 ? "a" : "b");
            otelc_set_str_attr(shared.get(), t % 2 ? "n" : "k", t % 2 ? "b" : "a");
            for (int i = 0; i < kAdds; ++i) {
                otelc_metrics_inst_add_int64_attrs(ints, 2, shared.get());
                otelc_metrics_inst_add_int64_attrs(ints, -1, nullptr);
                otelc_metrics_inst_add_double_attrs(reals, 0.5, shared.get());
                if (i % (kAdds / kNewSets) == 0) {
                    Attrs fresh = attrs();
                    otelc_set_int64_t_attr(fresh.get(), "i", t * kAdds + i);
                    otelc_metrics_inst_add_int64_attrs(ints, 1, fresh.get());
                }
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    otelc_destroy_metrics_inst(ints);
    otelc_destroy_metrics_inst(reals);
    otelc_cleanup_metrics_provider_ctx(provider);

    auto by_name = points();
    const std::string shared = "k={\"stringValue\":\"a\"};n={\"stringValue\":\"b\"};";
    const std::string shared_reversed = "n={\"stringValue\":\"b\"};k={\"stringValue\":\"a\"};";
    auto &ints_points = by_name["ints"];
    const std::string written = ints_points.count(shared) ? shared : shared_reversed;
    EXPECT_EQ(ints_points[written], std::to_string(2 * kThreads * kAdds));
    EXPECT_EQ(ints_points[""], std::to_string(-kThreads * kAdds));
    EXPECT_EQ(ints_points.size(), 2u + kThreads * kNewSets);
    EXPECT_EQ(by_name["reals"][written], std::to_string(0.5 * kThreads * kAdds));
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(ints_points["i={\"intValue\":\"" + std::to_string(t * kAdds) + "\"};"], "1");
}

TEST_F(ConcurrentCounters, AddsWithoutAttributesAfterTheLimitGoToTheOverflowPoint) {
    void *provider = otelc_init_metrics_provider_ctx("svc", nullptr, nullptr);
    void *meter = otelc_get_meter(provider, "m", nullptr, nullptr, nullptr);
    void *ints = counter(meter, OTELC_VALUE_INT64, "ints");
    for (int i = 0; i < 1999; ++i) {
        Attrs set = attrs();
        otelc_set_int64_t_attr(set.get(), "i", i);
        EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 1, set.get()), 0);
    }
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 5, nullptr), 0);
    EXPECT_EQ(otelc_metrics_inst_add_int64_attrs(ints, 6, attrs().get()), 0);
    otelc_destroy_metrics_inst(ints);
    otelc_cleanup_metrics_provider_ctx(provider);
    auto by_name = points();
    EXPECT_EQ(by_name["ints"].size(), 2000u);
    EXPECT_EQ(by_name["ints"].count(""), 0u);
    EXPECT_EQ(by_name["ints"]["otel.metric.overflow={\"boolValue\":true};"], "11");
}

}  // namespace
}  // namespace otelc_test
