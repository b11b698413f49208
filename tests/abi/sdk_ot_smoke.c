/* The built-in provider on the device's C library: a context over it loads the recording
 * stand-in of "libopentelemetry-c.so" (first on LD_LIBRARY_PATH) with the loader of that C
 * library, and a span with a child started from its context text, a log record and a counter
 * add with an attribute reach the stand-in as exactly the calls below.
 * Exits non-zero on a mismatch. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

static const char expected[] =
    "otelc_init_tracer_provider_ctx(\"smoke\",null,null)\n"
    "otelc_get_tracer(tracer_provider#1,\"motor\",\"1.0\",null,null)\n"
    "otelc_start_span_with_tracer(tracer_provider#1,tracer#1,\"move\",null,\"\",buffer,200)\n"
    "otelc_start_span_with_tracer(tracer_provider#1,tracer#1,\"step\",null,\"ctx-span#1\","
    "buffer,200)\n"
    "otelc_init_logger_provider_ctx(\"smoke\",null,null)\n"
    "otelc_get_logger(logger_provider#1,\"motor\",\"1.0\",null,null)\n"
    "otelc_log_with_ctx(logger_provider#1,span#2,logger#1,5,\"stepped\")\n"
    "otelc_init_metrics_provider_ctx(\"smoke\",null,null)\n"
    "otelc_get_meter(metrics_provider#1,\"motor\",\"1.0\",null,null)\n"
    "otelc_create_metrics_inst_from_meter({0,1,1},meter#1,\"motor.load\",null,\"A\")\n"
    "otelc_create_attr_map()\n"
    "otelc_set_double_attr(map#1,\"volts\",-0.125)\n"
    "otelc_metrics_inst_add_double_attrs(inst#1,2.5,map#1)\n"
    "otelc_destroy_attr_map(map#1)\n"
    "otelc_end_span(span#2)\n"
    "otelc_end_span(span#1)\n"
    "otelc_destroy_metrics_inst(inst#1)\n"
    "otelc_cleanup_tracer_provider_ctx(tracer_provider#1)\n"
    "otelc_cleanup_logger_provider_ctx(logger_provider#1)\n"
    "otelc_cleanup_metrics_provider_ctx(metrics_provider#1)\n";

static int drop_line(int slot, const char *line) {
    (void)slot;
    (void)line;
    return 0;
}

static void emit(obs_ctx *ctx) {
    obs_scope *motor = obs_scope_create(ctx, "motor", "1.0", OBS_SAMPLING_ALL_ON, 2);
    obs_span *move = obs_span_start(motor, NULL, "move");
    obs_span *step =
        obs_span_start_from_context(motor, obs_span_to_context(move, NULL, NULL), "step");
    obs_span_log(step, 1, "stepped");
    obs_updown_counter *load = obs_double_updown_counter_create(motor, "motor.load", "A");
    obs_key_value *attrs = NULL;
    obs_key_value_add_double(&attrs, "volts", -0.125);
    obs_double_updown_counter_add(load, 2.5, attrs);
    obs_key_value_free(attrs);
    obs_span_end(step);
    obs_span_end(move);
    obs_double_updown_counter_destroy(load);
}

int main(void) {
    obs_log_callback_set(drop_line);
    obs_ctx *ctx =
        obs_ctx_init("smoke", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider());
    if (!ctx) {
        fprintf(stderr, "sdk_ot_smoke: no context: is the stand-in on LD_LIBRARY_PATH?\n");
        return 1;
    }
    emit(ctx);
    obs_ipc_mem_flush();
    obs_ctx_destroy(ctx);
    obs_log_callback_set(NULL);

    void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
    char *(*calls)(int) = NULL;
    if (library) *(void **)&calls = dlsym(library, "otelc_standin_calls");
    char *seen = calls ? calls(0) : NULL;
    int same = seen && strcmp(seen, expected) == 0;
    if (!same) fprintf(stderr, "sdk_ot_smoke: the library saw\n%s", seen ? seen : "(nothing)\n");
    free(seen);
    return same ? 0 : 1;
}
