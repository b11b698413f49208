// A service over the built-in provider and the in-process IPC, steered by an agent in the same
// process: what reaches the library is exactly what the scope's policy lets through.
#include "observability_ipc_mem.h"
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

class EndToEndTest : public obs_test::LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        STANDIN(otelc_standin_reset)();
        agent_ =
            obs_policy_ctx_init(nullptr, "agent", nullptr, ipc_, obs_get_ot_sdk_policy_provider());
        svc_ = obs_ctx_init("e2e", obs_get_default_sdk_ot_buildin_provider(), ipc_);
        ASSERT_NE(svc_, nullptr);
        net_ = obs_scope_create(svc_, "net", "2.0", OBS_SAMPLING_ALL_ON, 2);
        queue_ = obs_int64_updown_counter_create(net_, "queue", "items");
    }
    void TearDown() override {
        obs_int64_updown_counter_destroy(queue_);
        obs_ctx_destroy(svc_);
        obs_policy_ctx_free(agent_);
        for (const char *kind : {"map", "inst", "span"})
            EXPECT_EQ(STANDIN(otelc_standin_live)(kind), 0) << kind;
        LogCaptureTest::TearDown();
    }
    // The agent gives "net" traces, metrics and logs each 1 off or 2 on at log level 2, or with
    // all 0 takes its policy back.
    void publish(int32_t traces, int32_t metrics, int32_t logs) {
        const obs_policy_ot_sampler sampler{nullptr, traces, metrics, logs, nullptr};
        obs_policy_ot entry = {};
        entry.scope_name = const_cast<char *>("net");
        entry.sampler =
            reinterpret_cast<obs_sampling>(const_cast<obs_policy_ot_sampler *>(&sampler));
        entry.log_level = 2;
        obs_policy p = {};
        p.op = traces ? 1 : 2;
        p.name = const_cast<char *>("obs");
        char *text = nullptr;
        if (traces) sdk_policy_ot_internal_encode(&entry, &text, &p.codec_vlen, 1);
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
    // A request span with a child started from its context text, a log in each, one count with
    // an attribute: the calls that reached the library.
    std::string emit() {
        obs_span *request = obs_span_start(net_, nullptr, "request");
        const std::string context = request ? obs_span_to_context(request, nullptr, nullptr) : "";
        obs_span *db = obs_span_start_from_context(net_, context.c_str(), "db");
        obs_span_log(db, 2, "query");
        obs_scope_log(net_, 1, "served");
        obs_int64_updown_counter_add(queue_, 1, attrs_.list);
        obs_span_end(db);
        obs_span_end_with_status(request, 2, "slow");
        return take();
    }

    obs_ipc_provider *ipc_ = obs_ipc_mem_provider();
    obs_policy_ctx *agent_ = nullptr;
    obs_ctx *svc_ = nullptr;
    obs_scope *net_ = nullptr;
    obs_updown_counter *queue_ = nullptr;
    Attrs attrs_;
};

// The count's calls of emit() once everything is made, with map#<map>.
std::string count_calls(int map) {
    const std::string m = "map#" + std::to_string(map);
    return "create_attr_map()\nset_int64_t_attr(" + m + ",n,7)\n" +
           "metrics_inst_add_int64_attrs(inst#1,1," + m + ")\ndestroy_attr_map(" + m + ")\n";
}

TEST_F(EndToEndTest, LibrarySeesExactlyWhatThePolicyLetsThrough) {
    // Everything is made on first use, once; a tracer for "opa" came with the first policy.
    publish(2, 2, 2);
    EXPECT_EQ(emit(),
              "get_tracer(tp#1,net,2.0,null,null)\n"
              "start_span_with_tracer(tp#1,tracer#2,request,null,,buffer,200)\n"
              "start_span_with_tracer(tp#1,tracer#2,db,null,ctx-span#2,buffer,200)\n"
              "init_logger_provider_ctx(e2e,null,null)\n"
              "get_logger(lp#1,net,2.0,null,null)\n"
              "log_with_ctx(lp#1,span#3,logger#1,5,query)\n"
              "log_with_ctx(lp#1,null,logger#1,5,served)\n"
              "init_metrics_provider_ctx(e2e,null,null)\n"
              "get_meter(mp#1,net,2.0,null,null)\n"
              "create_metrics_inst_from_meter({0,1,0},meter#1,queue,null,items)\n" +
                  count_calls(2) +
                  "end_span(span#3)\nset_span_status(span#2,2,slow)\nend_span(span#2)\n");
    publish(1, 1, 1);
    EXPECT_EQ(emit(), "");
    publish(1, 2, 1);
    EXPECT_EQ(emit(), count_calls(5));
    publish(0, 0, 0);
    EXPECT_EQ(emit(),
              "start_span_with_tracer(tp#1,tracer#2,request,null,,buffer,200)\n"
              "start_span_with_tracer(tp#1,tracer#2,db,null,ctx-span#7,buffer,200)\n"
              "log_with_ctx(lp#1,span#8,logger#1,5,query)\n"
              "log_with_ctx(lp#1,null,logger#1,5,served)\n" +
                  count_calls(7) +
                  "end_span(span#8)\nset_span_status(span#7,2,slow)\nend_span(span#7)\n");
}

}  // namespace sdk_ot_test
