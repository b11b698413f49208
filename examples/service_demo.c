/* An instrumented service and the policy agent that steers it, in one process over the in-process
 * IPC provider. The service "thermostat" emits spans, log records and up-down counters in its
 * scopes "sensor" and "heater" through the built-in OpenTelemetry provider and the binding
 * libopentelemetry-c.so, whose exporters the OTEL_* environment chooses; where the binding cannot
 * be loaded, through the console provider. The agent publishes "ot" sampling policies to it, one
 * round of work after each: traces of one scope off, a lower log level, metrics off, then a
 * reset; last it asks for the service's dump. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

#include "console_provider.h"

#define SERVICE "thermostat"
/* Every request goes to the service's "default" key; the entries name the scopes they change. */
#define TARGET OBS_IPC_KEY_ROOT "service{" SERVICE "}/scope{default}/obs"

/* Records of a level up to this one pass in the service's scopes until a policy says otherwise:
 * 1 warnings, 2 notices, 3 details. */
#define SERVICE_LOG_LEVEL 3
#define TARGET_CELSIUS 21.0

typedef struct {
    obs_ctx *ctx;
    obs_scope *sensor;
    obs_scope *heater;
    obs_updown_counter *readings;
    obs_updown_counter *duty;
} service;

static int service_start(service *svc) {
    svc->ctx =
        obs_ctx_init(SERVICE, obs_get_default_sdk_ot_buildin_provider(), obs_ipc_mem_provider());
    if (!svc->ctx) {
        printf("libopentelemetry-c.so not found: the console provider prints the telemetry\n");
        svc->ctx = obs_ctx_init(SERVICE, console_provider(), obs_ipc_mem_provider());
    }
    svc->sensor =
        obs_scope_create(svc->ctx, "sensor", "1.0", OBS_SAMPLING_ALL_ON, SERVICE_LOG_LEVEL);
    svc->heater =
        obs_scope_create(svc->ctx, "heater", "1.0", OBS_SAMPLING_ALL_ON, SERVICE_LOG_LEVEL);
    svc->readings = obs_int64_updown_counter_create(svc->sensor, "sensor.readings", "readings");
    svc->duty = obs_double_updown_counter_create(svc->heater, "heater.duty", "share of full power");
    return svc->readings && svc->duty;
}

/* Counters first: they must not outlive their context. */
static void service_stop(service *svc) {
    obs_int64_updown_counter_destroy(svc->readings);
    obs_double_updown_counter_destroy(svc->duty);
    obs_ctx_destroy(svc->ctx);
}

/* One round of work: read the temperature, then turn the heater up or down. A span or record
 * that a policy switched off costs one check; its handle is null and the calls on it do nothing. */
static void service_round(service *svc, int round) {
    double celsius = 19.0 + 0.5 * round;
    char text[64];

    obs_span *read = obs_span_start(svc->sensor, NULL, "sensor.read");
    snprintf(text, sizeof text, "%.1f C", celsius);
    obs_span_log(read, 3, text);
    obs_int64_updown_counter_add(svc->readings, 1, NULL);
    obs_span_end(read);

    obs_span *adjust = obs_span_start(svc->heater, NULL, "heater.adjust");
    if (celsius < TARGET_CELSIUS) {
        obs_scope_log(svc->heater, 1, "below target, heating");
        obs_span_log(adjust, 3, "duty up 0.25");
        obs_double_updown_counter_add(svc->duty, 0.25, NULL);
    } else {
        obs_span_log(adjust, 3, "duty down 0.25");
        obs_double_updown_counter_add(svc->duty, -0.25, NULL);
    }
    obs_span_end(adjust);

    /* The binding's exporter thread prints a round once its batch delay has passed (scripts/
     * run-example makes that short); waiting for it keeps the round under its heading. */
    fflush(stdout);
    const struct timespec pause = {0, 300 * 1000 * 1000};
    nanosleep(&pause, NULL);
}

/* Writes a policy of op with the text of entries (no text without entries) to the service and
 * returns once the service has handled it. */
static void publish(obs_policy_ctx *agent, obs_policy_service *directory, int op,
                    const obs_policy_ot *entries) {
    static int requests;
    char reqid[16];
    snprintf(reqid, sizeof reqid, "req-%d", ++requests);
    char *text = NULL;
    uint32_t len = 0;
    if (entries) sdk_policy_ot_internal_encode(entries, &text, &len, 1);
    obs_policy rec = {.op = (uint8_t)op, .name = (char *)"obs", .reqid = reqid};
    if (text) {
        rec.format = OBS_POLICY_FORMAT_CODEC_TEXT;
        rec.codec_val = text;
        rec.codec_vlen = len;
    }
    obs_policy_dispatch(agent, &rec, TARGET, directory);
    obs_ipc_mem_flush();
    free(text);
}

static void print_report(obs_policy_ctx *ctx, const char *from, obs_policy *report) {
    (void)ctx;
    if (!report || !report->raw_val) return;
    printf("agent: report %llu from %s\n%.*s", (unsigned long long)report->seq_id, from,
           (int)report->raw_vlen, (const char *)report->raw_val);
}

static void query_debug(obs_policy_ctx *agent, obs_policy_service *directory) {
    obs_policy rec = {.op = OBS_POLICY_OP_QUERY,
                      .name = (char *)"obs",
                      .format = OBS_POLICY_FORMAT_RAW,
                      .raw_val = (char *)"debug",
                      .raw_vlen = sizeof "debug"};
    obs_policy_dispatch(agent, &rec, TARGET, directory);
    obs_ipc_mem_flush(); /* the service has answered */
    obs_ipc_mem_flush(); /* its report has reached the agent */
}

static void heading(const char *text) {
    printf("\n== %s\n", text);
}

/* The library's own diagnostics would drown the telemetry lines; errors still show. */
static int errors_only(int slot, const char *line) {
    (void)slot;
    if (strstr(line, "Error")) fprintf(stderr, "%s\n", line);
    return 0;
}

static void steer(service *svc, obs_policy_ctx *agent) {
    obs_policy_service *directory = obs_policy_load_service(agent);

    /* Each policy is complete: the service undoes the one in force before applying the next. An
     * entry sets the log level and the sampling of the scopes it names, in list order; a sampler
     * changes only the signals it sets. */
    obs_policy_ot_sampler traces_off = {.traces_config = OBS_SAMPLING_OFF};
    obs_policy_ot_sampler metrics_off = {.metrics_config = OBS_SAMPLING_OFF};
    obs_policy_ot quiet_sensor = {
        .scope_name = (char *)"sensor", .sampler = (obs_sampling)&traces_off, .log_level = 3};
    obs_policy_ot quiet_sensor_warnings = quiet_sensor;
    quiet_sensor_warnings.log_level = 1;
    obs_policy_ot warnings = {.scope_name = (char *)"*",
                              .sampler = OBS_SAMPLING_NONE, /* each scope's default */
                              .log_level = 1,
                              .next = &quiet_sensor_warnings};
    obs_policy_ot warnings_no_metrics = warnings;
    warnings_no_metrics.sampler = (obs_sampling)&metrics_off;

    printf(
        "Each span, log record and counter point is one line: its scope, ids and details.\n"
        "The service traces each policy request it handles as a span \"opa.request\" in its\n"
        "scope \"opa\".\n");
    heading("1. The service runs: spans, logs up to level 3 and counters in two scopes");
    service_round(svc, 0);

    heading("2. Agent: traces off in scope sensor (its logs follow its traces)");
    publish(agent, directory, OBS_POLICY_OP_APPLY, &quiet_sensor);
    service_round(svc, 1);

    heading("3. Agent: log level 1 in every scope, sensor traces still off");
    publish(agent, directory, OBS_POLICY_OP_APPLY, &warnings);
    service_round(svc, 2);

    heading("4. Agent: metrics off in every scope as well");
    publish(agent, directory, OBS_POLICY_OP_APPLY, &warnings_no_metrics);
    service_round(svc, 3);

    heading("5. Agent: reset, every scope back to its defaults");
    publish(agent, directory, OBS_POLICY_OP_REMOVE, NULL);
    service_round(svc, 4);

    heading("6. Agent: \"debug\" query, answered with the service's dump");
    query_debug(agent, directory);

    obs_policy_free_service(directory);
}

int main(void) {
    obs_log_callback_set(errors_only);
    obs_policy_ctx *agent = obs_policy_ctx_init(NULL, "policy-agent", NULL, obs_ipc_mem_provider(),
                                                obs_get_ot_sdk_policy_provider());
    obs_policy_set_service_report(agent, SERVICE, print_report);
    service svc = {0};
    int ok = agent && service_start(&svc);
    if (ok) steer(&svc, agent);
    service_stop(&svc);
    obs_policy_ctx_free(agent);
    obs_log_callback_set(NULL);
    return ok ? 0 : 1;
}
