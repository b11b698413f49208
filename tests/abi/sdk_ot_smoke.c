/* The built-in provider on the device's C library: a context over it loads the recording
 * stand-in of "libopentelemetry-c.so" (first on LD_LIBRARY_PATH) with that C library's loader,
 * and a span with a log record and a double counter add reach the stand-in. Exits non-zero when
 * a call is missing. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

static const char *const expected[] = {
    "start_span_with_tracer(tp#1,tracer#1,move,null,,buffer,200)\n",
    "log_with_ctx(lp#1,span#1,logger#1,5,moved)\n",
    "create_metrics_inst_from_meter({0,1,1},meter#1,load,null,A)\n",
    "metrics_inst_add_double_attrs(inst#1,2.5,null)\n", "cleanup_metrics_provider_ctx(mp#1)\n"};

int main(void) {
    obs_ctx *ctx =
        obs_ctx_init("smoke", obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider());
    obs_scope *motor = obs_scope_create(ctx, "motor", "1.0", OBS_SAMPLING_ALL_ON, 2);
    obs_span *move = obs_span_start(motor, NULL, "move");
    obs_span_log(move, 1, "moved");
    obs_updown_counter *load = obs_double_updown_counter_create(motor, "load", "A");
    obs_double_updown_counter_add(load, 2.5, NULL);
    obs_span_end(move);
    obs_double_updown_counter_destroy(load);
    obs_ctx_destroy(ctx);
    char *(*calls)(int) = NULL;
    void *library = dlopen("libopentelemetry-c.so", RTLD_LAZY);
    if (library) *(void **)&calls = dlsym(library, "otelc_standin_calls");
    char *seen = calls ? calls(0) : NULL;
    int missing = !seen;
    for (size_t i = 0; seen && i < sizeof expected / sizeof *expected; ++i)
        missing += strstr(seen, expected[i]) == NULL;
    if (missing) fprintf(stderr, "sdk_ot_smoke: the library saw\n%s", seen ? seen : "nothing\n");
    free(seen);
    return missing != 0;
}
