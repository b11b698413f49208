/* First check of a musl build on the device's C library: the library loads under musl's loader,
 * and what leans on the C library works there: number formatting and parsing in the value codec,
 * allocation in the dynamic string, time stamps, thread ids and files in the debug log, the
 * in-process IPC provider's delivery thread carrying a policy from an agent context to a service
 * context, and a context (its lock, dump thread and signal) with a scope, a span and a counter
 * reaching a telemetry provider. Exits non-zero on the first mismatch. */
#define _POSIX_C_SOURCE 200809L

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

static const unsigned char build_id[] = {0x00, 0xc0, 0xff, 0xee};
static const char log_message[] = "musl smoke: one line";

static int fail(const char *what, const char *seen) {
    fprintf(stderr, "musl_smoke: %s (%s)\n", what, seen ? seen : "(null)");
    return 1;
}

static obs_any_value *value_of(obs_any_value *kvlist, const char *key) {
    return obs_key_value_get_val(obs_key_value_find(obs_any_value_get_kvlist(kvlist), key));
}

static int check_value_round_trip(void) {
    obs_key_value *attrs = NULL;
    obs_key_value_add_str(&attrs, "service.name", "door-controller", 0);
    obs_key_value_add_int(&attrs, "min", INT64_MIN);
    obs_key_value_add_double(&attrs, "load", -0.125);
    obs_key_value_add_bool(&attrs, "debug", true);
    obs_key_value_add_byte(&attrs, "build.id", build_id, sizeof build_id, 0);
    obs_sds text = obs_key_value_encode(attrs), again = NULL;
    obs_key_value_free(attrs);
    obs_any_value *decoded = NULL;
    if (text && obs_any_value_decode(text, obs_sdslen(text), &decoded))
        again = obs_any_value_encode(decoded);
    int ok =
        text && strstr(text, "{int 20 -9223372036854775808}") &&
        strstr(text, "{double 9 -0.125000}") && strstr(text, "{byte 8 00c0ffee}") && again &&
        strcmp(again, text) == 0 && obs_any_value_get_int(value_of(decoded, "min")) == INT64_MIN &&
        obs_any_value_get_double(value_of(decoded, "load")) == -0.125 &&
        memcmp(obs_any_value_get_byte(value_of(decoded, "build.id")), build_id, sizeof build_id) ==
            0;
    if (!ok) fail("64-bit int, double or bytes not written or read back as expected", text);
    obs_sdsfree(again);
    obs_any_value_free(decoded);
    obs_sdsfree(text);
    return !ok;
}

/* Three chunks of 1000 bytes grow the string past its first data area. */
static int check_sds_growth(void) {
    char block[1000];
    obs_sds s = obs_sdsempty();
    for (int i = 0; s && i < 3; ++i) s = obs_sdscat(s, memset(block, 'a' + i, 1000), 1000);
    int ok = s && obs_sdslen(s) == 3000 && s[3000] == '\0' && s[0] == 'a' && s[2999] == 'c';
    obs_sdsfree(s);
    return ok ? 0 : fail("obs_sds lost bytes while growing", NULL);
}

/* Logs one line to a file of its own and expects "<time> [<tid>] <message>", the time between
 * the moments before and after. */
static int check_debug_log_line(void) {
    char dir[] = "/tmp/obs_musl_smoke.XXXXXX", path[sizeof dir + 16], line[256] = "";
    if (!mkdtemp(dir)) return fail("cannot create a temporary directory", dir);
    snprintf(path, sizeof path, "%s/smoke.log", dir);
    const time_t before = time(NULL);
    obs_log_file_set(path);
    FILE *slot = NULL, *file = NULL;
    obs_debug_log_to_file(log_message, &slot, OBS_DEBUG_LOG_DEFAULT_PATH);
    if (slot) fclose(slot);
    obs_log_file_set(NULL);
    const time_t after = time(NULL);
    if ((file = fopen(path, "r")) && !fgets(line, sizeof line, file)) line[0] = '\0';
    if (file) fclose(file);
    unlink(path);
    rmdir(dir);
    for (time_t when = before; when <= after; ++when) {
        char stamp[32], expected[128];
        struct tm local;
        if (!localtime_r(&when, &local) || !strftime(stamp, sizeof stamp, "%F %T", &local)) break;
        snprintf(expected, sizeof expected, "%s [%d] %s\n", stamp, obs_gettid(), log_message);
        if (strcmp(line, expected) == 0) return 0;
    }
    return fail("debug log line is not \"<time> [<tid>] <message>\"", line);
}

static int delivered_log_level = -1;

static void keep_log_level(obs_policy_ctx *ctx, const char *service, obs_policy *list, void *user) {
    (void)ctx, (void)service, (void)user;
    if (list && (list->format & OBS_POLICY_FORMAT_CODEC_BYTES) && list->codec_val)
        delivered_log_level = ((const obs_policy_ot *)list->codec_val)->log_level;
}

static int drop_line(int slot, const char *line) {
    (void)slot, (void)line;
    return 0;
}

/* An agent context publishes a policy with log level 4; the service's handler must get it. */
static int check_policy_round_trip(void) {
    obs_log_callback_set(drop_line);
    obs_ipc_provider *ipc = obs_ipc_mem_provider();
    obs_policy_ctx *service =
        obs_policy_ctx_init(NULL, "smoke", keep_log_level, ipc, obs_get_ot_sdk_policy_provider());
    obs_policy_ctx *agent =
        obs_policy_ctx_init(NULL, "agent", NULL, ipc, obs_get_ot_sdk_policy_provider());
    obs_policy_ot entry = {
        .scope_name = (char *)"default", .sampler = OBS_SAMPLING_ON, .log_level = 4};
    obs_policy rec = {.op = 1, .format = OBS_POLICY_FORMAT_CODEC_TEXT, .name = (char *)"obs"};
    char *text = NULL;
    sdk_policy_ot_internal_encode(&entry, &text, &rec.codec_vlen, 0);
    rec.codec_val = text;
    if (service && agent && text) {
        obs_policy_service *services = obs_policy_load_service(agent);
        obs_policy_dispatch(agent, &rec, NULL, services);
        obs_ipc_mem_flush();
        obs_policy_free_service(services);
    }
    free(text);
    obs_policy_ctx_free(agent);
    obs_policy_ctx_free(service);
    obs_log_callback_set(NULL);
    return delivered_log_level == 4 ? 0
                                    : fail("a published policy did not reach the service", NULL);
}

/* A telemetry provider that keeps what reaches it. Scope handles are malloc'd: without
 * scope_free the library releases them with free. The slots ignore most of their arguments. */
#pragma GCC diagnostic ignored "-Wunused-parameter"
static int sdk_handle, span_handle, instrument_handle;
static int spans_ended;
static int64_t counter_total;

static void *sdk_init(obs_ctx *ctx, const char *service) {
    return &sdk_handle;
}

static void *sdk_scope_create(void *sdk_ctx, const char *name, const char *version,
                              obs_sampling sampling) {
    return malloc(1);
}

static void *sdk_span_start(void *sdk_ctx, void *parent, void *sdk_scope, const char *name) {
    return &span_handle;
}

static void sdk_span_end(void *sdk_span, int status, const char *description) {
    if (sdk_span == &span_handle) ++spans_ended;
}

static void *sdk_counter_create(int inst_type, int val_type, void *sdk_ctx, void *sdk_scope,
                                const char *name, const char *description) {
    return &instrument_handle;
}

static int sdk_add_int64(void *instrument, int64_t value, obs_key_value *attrs) {
    if (instrument == &instrument_handle) counter_total += value;
    return 0;
}

static obs_sdk_provider smoke_provider = {
    .name = "smoke",
    .version = "1.0",
    .init = sdk_init,
    .scope_create = sdk_scope_create,
    .span_start = sdk_span_start,
    .span_end = sdk_span_end,
    .metrics_inst_create = sdk_counter_create,
    .metrics_inst_add_int64 = sdk_add_int64,
};

/* The dump's lines for the scope, as musl's printf pads them. */
static const char motor_dump[] =
    "scope: motor            ver: 1.0    sampling: [all:on]([all:on]) log level: 2(2)\n"
    "\tspan: 1(0) log: 0 metrics: 2\n";

static int use_scope(obs_ctx *ctx) {
    obs_scope *motor = obs_scope_create(ctx, "motor", "1.0", OBS_SAMPLING_ALL_ON, 2);
    obs_span *span = obs_span_start(motor, NULL, "motor.move");
    obs_updown_counter *moves = obs_int64_updown_counter_create(motor, "motor.moves", "");
    int added = obs_int64_updown_counter_add(moves, 5, NULL) == 0 &&
                obs_int64_updown_counter_add(moves, -2, NULL) == 0;
    obs_span_end(span);
    obs_int64_updown_counter_destroy(moves);
    obs_sds dump = obs_dump_one(obs_sdsempty(), ctx);
    int dumped = dump && strstr(dump, motor_dump);
    if (!dumped) fail("the dump lacks the scope's lines", dump);
    obs_sdsfree(dump);
    return span && added && spans_ended == 1 && counter_total == 3 && dumped;
}

static int check_instrumented_context(void) {
    obs_log_callback_set(drop_line);
    obs_ctx *ctx = obs_ctx_init("smoke-service", &smoke_provider, obs_ipc_mem_provider());
    int used = ctx && obs_info_list && obs_info_list->ctx == ctx && use_scope(ctx);
    obs_ctx_destroy(ctx);
    obs_log_callback_set(NULL);
    return used && !obs_info_list ? 0 : fail("a context's scope, span or counter went wrong", NULL);
}

int main(void) {
    return check_value_round_trip() | check_sds_growth() | check_debug_log_line() |
           check_policy_round_trip() | check_instrumented_context();
}
