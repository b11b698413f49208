/* A program built against an installed tree: a policy context over the in-process IPC provider
 * and the value text of a small key-value list, printed and compared. Exits non-zero on failure. */
#include <stdio.h>
#include <string.h>

#include <observability_api.h>
#include <observability_ipc_mem.h>

/* Keeps the channel's diagnostics off standard output and out of the default log file. */
static int drop_line(int slot, const char *line) {
    return (void)slot, (void)line, 0;
}

int main(void) {
    static const char expected[] =
        "{kvlist 87 2 [{str 14 \"service.name\" 26 {str 17 \"door-controller\"}},"
        "{str 9 \"retries\" 9 {int 1 3}}]}";
    obs_log_callback_set(drop_line);
    obs_policy_ctx *ctx = obs_policy_ctx_init(
        NULL, "install-consumer", NULL, obs_ipc_mem_provider(), obs_get_ot_sdk_policy_provider());
    obs_key_value *attrs = NULL;
    obs_key_value_add_str(&attrs, "service.name", "door-controller", 0);
    obs_key_value_add_int(&attrs, "retries", 3);
    obs_sds text = obs_key_value_encode(attrs);
    int ok = ctx && text && strcmp(text, expected) == 0;
    printf("%s%s\n", ctx ? "" : "no policy context; ", text ? text : "(no text)");
    obs_policy_ctx_free(ctx);
    obs_sdsfree(text);
    obs_key_value_free(attrs);
    return !ok;
}
