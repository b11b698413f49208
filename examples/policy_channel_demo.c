/* A policy agent and two services in one process, talking through the in-process IPC provider:
 * the agent reads the directory of registered services, publishes a sampling policy to one of
 * them and to both, asks one for its stored policy, and prints the reports that come back. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

static int drop_line(int slot, const char *line) {
    (void)slot;
    (void)line;
    return 0;
}

/* A service's policy handler: what each translated record asks of which scope. */
static void print_policies(obs_policy_ctx *ctx, const char *service, obs_policy *list,
                           void *user_ctx) {
    (void)ctx;
    (void)user_ctx;
    for (const obs_policy *rec = list; rec; rec = rec->next) {
        printf("%s: policy op %d from %s\n", service, rec->op, rec->path ? rec->path : "?");
        if (!(rec->format & OBS_POLICY_FORMAT_CODEC_BYTES) || !rec->codec_val) continue;
        for (const obs_policy_ot *entry = rec->codec_val; entry; entry = entry->next) {
            char sampling[64];
            printf("%s:   scope %s %s log level %d\n", service,
                   entry->scope_name ? entry->scope_name : "?",
                   obs_policy_ot_sampler_dump_config(entry->sampler, sampling, sizeof sampling),
                   entry->log_level);
        }
    }
}

static void print_report(obs_policy_ctx *ctx, const char *service, obs_policy *report) {
    (void)ctx;
    printf("agent: report %llu from %s: %s\n", report ? (unsigned long long)report->seq_id : 0ULL,
           service, report && report->raw_val ? (const char *)report->raw_val : "(none)");
}

/* A record for the "obs" SDK carrying the policy text of one entry, and a note that a query
 * for the stored policy is answered with. */
static obs_policy sampling_record(const char *note, const char *scope, obs_sampling sampling,
                                  int level, char **text) {
    obs_policy_ot entry = {0};
    entry.scope_name = (char *)scope;
    entry.sampler = sampling;
    entry.log_level = (uint8_t)level;
    uint32_t len = 0;
    *text = NULL;
    sdk_policy_ot_internal_encode(&entry, text, &len, 0);
    obs_policy rec = {0};
    rec.op = 1;
    rec.name = (char *)"obs";
    rec.reqid = (char *)"demo-request";
    rec.format = OBS_POLICY_FORMAT_CODEC_TEXT | OBS_POLICY_FORMAT_RAW;
    rec.raw_val = (char *)note;
    rec.raw_vlen = (uint32_t)strlen(note) + 1;
    rec.codec_val = *text;
    rec.codec_vlen = *text ? len : 0;
    return rec;
}

int main(void) {
    obs_log_callback_set(drop_line); /* the channel's diagnostics would drown the demo's lines */
    obs_ipc_provider *ipc = obs_ipc_mem_provider();
    obs_policy_ctx *door = obs_policy_ctx_init(NULL, "door-controller", print_policies, ipc,
                                               obs_get_ot_sdk_policy_provider());
    obs_policy_ctx *lamp = obs_policy_ctx_init(NULL, "lamp-controller", print_policies, ipc,
                                               obs_get_ot_sdk_policy_provider());
    obs_policy_register_scope(door, "door-controller", "motor");
    obs_policy_ctx *agent =
        obs_policy_ctx_init(NULL, "policy-agent", NULL, ipc, obs_get_ot_sdk_policy_provider());
    if (!door || !lamp || !agent) return 1;
    obs_policy_set_service_report(agent, NULL, print_report);

    obs_policy_service *directory = obs_policy_load_service(agent);
    obs_policy_print_service(stdout, directory);

    char *text;
    obs_policy quiet = sampling_record("quiet: everything off", "*", OBS_SAMPLING_OFF, 1, &text);
    printf("agent: every service, everything off\n");
    obs_policy_dispatch(agent, &quiet, NULL, directory);
    obs_ipc_mem_flush();
    free(text);

    obs_policy verbose = sampling_record("motor under watch", "motor", OBS_SAMPLING_ON, 4, &text);
    printf("agent: door-controller, scope motor on at log level 4\n");
    obs_policy_dispatch(agent, &verbose, OBS_IPC_KEY_ROOT "service{door-controller}/scope{*}/obs",
                        directory);
    obs_ipc_mem_flush();
    free(text);

    obs_policy query = {0};
    query.op = 4;
    query.name = (char *)"obs";
    query.reqid = (char *)"demo-query";
    printf("agent: lamp-controller, which policy is stored?\n");
    obs_policy_dispatch(agent, &query, OBS_IPC_KEY_ROOT "service{lamp-controller}/scope{*}/obs",
                        directory);
    obs_ipc_mem_flush(); /* the query reaches the service and its report the agent */

    obs_policy_free_service(directory);
    obs_policy_ctx_free(agent);
    obs_policy_ctx_free(lamp);
    obs_policy_ctx_free(door);
    obs_log_callback_set(NULL);
    return 0;
}
