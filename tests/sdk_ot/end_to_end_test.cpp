// A service over the built-in provider and the in-process IPC, steered by an agent in the same
// process: what reaches the library is exactly what the scope's policy lets through.
#include "api/api_test.h"
#include "sdk_ot/sdk_ot_test.h"

namespace sdk_ot_test {

using EndToEndTest = SdkOtTest;

TEST_F(EndToEndTest, LibrarySeesExactlyWhatThePolicyLetsThrough) {
    obs_ipc_provider *ipc = obs_ipc_mem_provider();
    obs_policy_ctx *agent =
        obs_policy_ctx_init(nullptr, "agent", nullptr, ipc, obs_get_ot_sdk_policy_provider());
    obs_ctx *svc = obs_ctx_init("e2e", obs_get_default_sdk_ot_buildin_provider(), ipc);
    obs_scope *net = obs_scope_create(svc, "net", "2.0", OBS_SAMPLING_ALL_ON, 2);
    obs_updown_counter *queue = obs_int64_updown_counter_create(net, "queue", "items");
    // "net" gets traces, metrics and logs each 1 off or 2 on (log level 2); all 0 withdraws that.
    auto publish = [&](int32_t traces, int32_t metrics, int32_t logs) {
        const obs_policy_ot_sampler sampler{nullptr, traces, metrics, logs, nullptr};
        const obs_policy_ot entry = api_test::entry("net", api_test::sampler(sampler), 2);
        EXPECT_EQ(api_test::publish(agent, "e2e", traces ? 1 : 2, traces ? &entry : nullptr), 0);
        take();
    };
    // A request span with a child started from its context text, a log in each, one count with
    // an attribute: the calls that reached the library.
    auto emit = [&] {
        obs_span *request = obs_span_start(net, nullptr, "request");
        const std::string context = request ? obs_span_to_context(request, nullptr, nullptr) : "";
        obs_span *db = obs_span_start_from_context(net, context.c_str(), "db");
        obs_span_log(db, 2, "query");
        obs_scope_log(net, 1, "served");
        obs_int64_updown_counter_add(queue, 1, attrs_);
        obs_span_end(db);
        obs_span_end_with_status(request, 2, "slow");
        return take();
    };
    // Everything is made on first use, once; a tracer for "opa" came with the first policy.
    publish(2, 2, 2);
    EXPECT_EQ(emit(),
              "get_tracer(tp#1,net,2.0,null,null)\n"
              "start_span_with_tracer(tp#1,tracer#2,request,null,,buffer,200)\n"
              "start_span_with_tracer(tp#1,tracer#2,db,null,ctx-span#2,buffer,200)\n"
              "init_logger_provider_ctx(e2e,null,null)\nget_logger(lp#1,net,2.0,null,null)\n"
              "log_with_ctx(lp#1,span#3,logger#1,5,query)\n"
              "log_with_ctx(lp#1,null,logger#1,5,served)\n"
              "init_metrics_provider_ctx(e2e,null,null)\nget_meter(mp#1,net,2.0,null,null)\n"
              "create_metrics_inst_from_meter({0,1,0},meter#1,queue,null,items)\n"
              "create_attr_map()\nset_int64_t_attr(map#2,n,7)\n"
              "metrics_inst_add_int64_attrs(inst#1,1,map#2)\ndestroy_attr_map(map#2)\n"
              "end_span(span#3)\nset_span_status(span#2,2,slow)\nend_span(span#2)\n");
    publish(1, 1, 1);
    EXPECT_EQ(emit(), "");
    publish(1, 2, 1);
    EXPECT_EQ(emit(),
              "create_attr_map()\nset_int64_t_attr(map#5,n,7)\n"
              "metrics_inst_add_int64_attrs(inst#1,1,map#5)\ndestroy_attr_map(map#5)\n");
    publish(0, 0, 0);
    EXPECT_EQ(
        emit(),
        "start_span_with_tracer(tp#1,tracer#2,request,null,,buffer,200)\n"
        "start_span_with_tracer(tp#1,tracer#2,db,null,ctx-span#7,buffer,200)\n"
        "log_with_ctx(lp#1,span#8,logger#1,5,query)\nlog_with_ctx(lp#1,null,logger#1,5,served)\n"
        "create_attr_map()\nset_int64_t_attr(map#7,n,7)\n"
        "metrics_inst_add_int64_attrs(inst#1,1,map#7)\ndestroy_attr_map(map#7)\n"
        "end_span(span#8)\nset_span_status(span#7,2,slow)\nend_span(span#7)\n");
    obs_int64_updown_counter_destroy(queue);
    obs_ctx_destroy(svc);
    obs_policy_ctx_free(agent);
}

}  // namespace sdk_ot_test
