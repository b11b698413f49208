/* The built-in provider loads the stand-in of its library (first on LD_LIBRARY_PATH) with the
 * device's C library's loader, and a span and a counter add reach it; else exits non-zero. */
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

int main(void) {
    obs_ctx *ctx =
        obs_ctx_init("smoke", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider());
    obs_scope *motor = obs_scope_create(ctx, "motor", "1.0", OBS_SAMPLING_ALL_ON, 2);
    obs_span_end(obs_span_start(motor, NULL, "move"));
    obs_updown_counter *load = obs_double_updown_counter_create(motor, "load", "A");
    obs_double_updown_counter_add(load, 2.5, NULL);
    obs_double_updown_counter_destroy(load);
    obs_ctx_destroy(ctx);
    char *(*calls)(int) = NULL;
    *(void **)&calls = dlsym(dlopen("libopentelemetry-c.so", RTLD_LAZY), "otelc_standin_calls");
    char *seen = calls ? calls(0) : NULL;
    int ok = seen && strstr(seen, "end_span(span#1)\n") &&
             strstr(seen, "metrics_inst_add_double_attrs(inst#1,2.5,null)\n");
    free(seen);
    return !ok;
}
