// A service over the built-in provider and the in-process IPC, steered by an agent in the same
// process: what reaches the library is exactly what the scope's policy lets through.
#include <algorithm>

#include "observability_ipc_mem.h"
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

class EndToEndTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ASSERT_TRUE(standin().loaded()) << "the stand-in is not first on LD_LIBRARY_PATH";
        standin().reset();
        agent_ =
            obs_policy_ctx_init(nullptr, "agent", nullptr, ipc_, obs_get_ot_sdk_policy_provider());
        svc_ = obs_ctx_init("e2e", obs_get_default_sdk_ot_buildin_provider(), ipc_);
        ASSERT_NE(svc_, nullptr);
        net_ = obs_scope_create(svc_, "net", "2.0", OBS_SAMPLING_ALL_ON, 2);
        queue_ = obs_int64_updown_counter_create(net_, "queue", "items");
        obs_key_value_add_str(&route_.list, "route", "/a", 0);
    }
    void TearDown() override {
        obs_int64_updown_counter_destroy(queue_);
        obs_ctx_destroy(svc_);
        obs_policy_ctx_free(agent_);
        EXPECT_EQ(standin().live("map") + standin().live("inst") + standin().live("span"), 0);
        LogCaptureTest::TearDown();
    }
    // The agent applies sampler with log level 2 to "net" (op 1), or resets it (op 2).
    void publish(int op, const obs_policy_ot_sampler *sampler = nullptr) {
        obs_policy_ot entry = {};
        entry.scope_name = const_cast<char *>("net");
        entry.sampler = reinterpret_cast<obs_sampling>(sampler);
        entry.log_level = 2;
        obs_policy p = {};
        p.op = static_cast<uint8_t>(op);
        p.name = const_cast<char *>("obs");
        char *text = nullptr;
        if (sampler) sdk_policy_ot_internal_encode(&entry, &text, &p.codec_vlen, 1);
        p.codec_val = text;
        p.format = text ? OBS_POLICY_FORMAT_CODEC_TEXT : OBS_POLICY_FORMAT_RAW;
        obs_policy_service *services = obs_policy_load_service(agent_);
        EXPECT_EQ(
            obs_policy_dispatch(agent_, &p, OBS_IPC_KEY_ROOT "service{e2e}/scope{*}/obs", services),
            0);
        obs_policy_free_service(services);
        free(text);
        obs_ipc_mem_flush();
        take();
    }
    // The calls since the last take, counting the maps made so far.
    Lines take() {
        Lines taken = standin().take_calls();
        maps_ +=
            static_cast<int>(std::count(taken.begin(), taken.end(), "otelc_create_attr_map()"));
        return taken;
    }
    // A request span with a child started from its context text, a log in each, one count with
    // a route; the parent's context text.
    std::string emit() {
        obs_span *request = obs_span_start(net_, nullptr, "request");
        const std::string context = request ? obs_span_to_context(request, nullptr, nullptr) : "";
        obs_span *db = obs_span_start_from_context(net_, context.c_str(), "db");
        obs_span_log(db, 2, "query");
        obs_scope_log(net_, 1, "served");
        obs_int64_updown_counter_add(queue_, 1, route_.list);
        obs_span_end(db);
        obs_span_end_with_status(request, 2, "slow");
        return context;
    }
    // What emit() hands the library once everything is made, the request being span#n.
    Lines emitted(int n) const {
        const std::string request = "span#" + std::to_string(n),
                          db = "span#" + std::to_string(n + 1),
                          map = "map#" + std::to_string(maps_ + 1);
        return {
            "otelc_start_span_with_tracer(tracer_provider#1,tracer#2,\"request\",null,\"\","
            "buffer,200)",
            "otelc_start_span_with_tracer(tracer_provider#1,tracer#2,\"db\",null,\"ctx-" + request +
                "\",buffer,200)",
            "otelc_log_with_ctx(logger_provider#1," + db + ",logger#1,5,\"query\")",
            "otelc_log_with_ctx(logger_provider#1,null,logger#1,5,\"served\")",
            "otelc_create_attr_map()",
            "otelc_set_str_attr(" + map + ",\"route\",\"/a\")",
            "otelc_metrics_inst_add_int64_attrs(inst#1,1," + map + ")",
            "otelc_destroy_attr_map(" + map + ")",
            "otelc_end_span(" + db + ")",
            "otelc_set_span_status(" + request + ",2,\"slow\")",
            "otelc_end_span(" + request + ")"};
    }

    obs_ipc_provider *ipc_ = obs_ipc_mem_provider();
    obs_policy_ctx *agent_ = nullptr;
    obs_ctx *svc_ = nullptr;
    obs_scope *net_ = nullptr;
    obs_updown_counter *queue_ = nullptr;
    Attrs route_;
    int maps_ = 0;
};

TEST_F(EndToEndTest, LibrarySeesExactlyWhatThePolicyLetsThrough) {
    // Everything is made on first use, once: a tracer for "opa" comes first with the first policy.
    const obs_policy_ot_sampler all_on{nullptr, 2, 2, 2, nullptr};
    publish(1, &all_on);
    EXPECT_EQ(emit(), "ctx-span#2");
    const Lines made = {"otelc_get_tracer(tracer_provider#1,\"net\",\"2.0\",null,null)",
                        "otelc_init_logger_provider_ctx(\"e2e\",null,null)",
                        "otelc_get_logger(logger_provider#1,\"net\",\"2.0\",null,null)",
                        "otelc_init_metrics_provider_ctx(\"e2e\",null,null)",
                        "otelc_get_meter(metrics_provider#1,\"net\",\"2.0\",null,null)",
                        "otelc_create_metrics_inst_from_meter({0,1,0},meter#1,\"queue\",null,"
                        "\"items\")"};
    Lines expected = emitted(2);
    expected.insert(expected.begin(), made[0]);
    expected.insert(expected.begin() + 3, made.begin() + 1, made.begin() + 3);
    expected.insert(expected.begin() + 7, made.begin() + 3, made.end());
    EXPECT_EQ(take(), expected);

    const obs_policy_ot_sampler all_off{nullptr, 1, 1, 1, nullptr};
    publish(1, &all_off);
    EXPECT_EQ(emit(), "");
    EXPECT_EQ(take(), Lines{});

    const obs_policy_ot_sampler metrics_only{nullptr, 1, 2, 1, nullptr};
    publish(1, &metrics_only);
    emit();
    const Lines all = emitted(0), counted(all.begin() + 4, all.begin() + 8);
    EXPECT_EQ(take(), counted);

    publish(2);
    const std::string context = emit();
    ASSERT_EQ(context.rfind("ctx-span#", 0), 0u);
    const Lines expected_again = emitted(std::stoi(context.substr(9)));  // before take() counts
    EXPECT_EQ(take(), expected_again);
}

}  // namespace sdk_ot_test
