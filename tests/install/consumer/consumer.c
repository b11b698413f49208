/* A program built against an installed tree: a policy context over the in-process IPC provider,
 * then the value text of a small key-value list, printed. Exits non-zero when either fails. */
#include <stdio.h>
#include <string.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

static const char expected_text[] =
    "{kvlist 87 2 [{str 14 \"service.name\" 26 {str 17 \"door-controller\"}},"
    "{str 9 \"retries\" 9 {int 1 3}}]}";

/* Keeps the channel's diagnostics off standard output and out of the default log file. */
static int drop_line(int slot, const char *line) {
    (void)slot;
    (void)line;
    return 0;
}

static int check_policy_context(void) {
    obs_policy_ctx *ctx = obs_policy_ctx_init(
        NULL, "install-consumer", NULL, obs_ipc_mem_provider(), obs_get_ot_sdk_policy_provider());
    if (!ctx) {
        fprintf(stderr, "consumer: no policy context over the in-process provider\n");
        return 1;
    }
    obs_policy_ctx_free(ctx);
    return 0;
}

static int check_value_text(void) {
    obs_key_value *attrs = NULL;
    obs_key_value_add_str(&attrs, "service.name", "door-controller", 0);
    obs_key_value_add_int(&attrs, "retries", 3);
    obs_sds text = obs_key_value_encode(attrs);
    int ok = text && strcmp(text, expected_text) == 0;
    printf("%s\n", text ? text : "(no text)");
    if (!ok) fprintf(stderr, "consumer: expected %s\n", expected_text);
    obs_sdsfree(text);
    obs_key_value_free(attrs);
    return ok ? 0 : 1;
}

int main(void) {
    obs_log_callback_set(drop_line);
    return check_policy_context() | check_value_text();
}
