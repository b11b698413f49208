/* Builds the attributes a service would attach to its telemetry, writes them in the value text
 * format that travels to the policy agent, reads the text back and prints both sides. */
#include <stdio.h>
#include <string.h>

#include <observability_api.h>

static void print_pairs(const obs_key_value *pair, int depth) {
    char buf[128];
    for (; pair; pair = obs_key_value_get_next(pair)) {
        const obs_any_value *val = obs_key_value_get_val(pair);
        printf("%*s%s = %s (%s)\n", depth * 2, "", obs_key_value_get_key(pair),
               obs_any_value_print(val, buf, sizeof buf),
               obs_any_value_type_name(obs_any_value_get_type(val)));
        if ((obs_any_value_get_type(val) & 0x0f) == OBS_VALUE_KVLIST)
            print_pairs(obs_any_value_get_kvlist(val), depth + 1);
    }
}

int main(void) {
    static const unsigned char build_id[] = {0xde, 0xad, 0xbe, 0xef};
    obs_key_value *host = NULL;
    obs_key_value_add_str(&host, "host.name", "gateway-07", 0);
    obs_key_value_add_int(&host, "host.cpus", 2);

    obs_key_value *attrs = NULL;
    obs_key_value_add_str(&attrs, "service.name", "door-controller", 0);
    obs_key_value_add_str(&attrs, "service.version", "2.4.1", 0);
    obs_key_value_add_bool(&attrs, "debug", false);
    obs_key_value_add_double(&attrs, "load", 0.75);
    obs_key_value_add_byte(&attrs, "build.id", build_id, sizeof build_id, 0);
    obs_key_value_add_kvlist(&attrs, "host", host, 0);

    obs_sds text = obs_key_value_encode(attrs);
    if (!text) {
        fprintf(stderr, "encoding failed\n");
        obs_key_value_free(attrs);
        return 1;
    }
    printf("attributes:\n");
    print_pairs(attrs, 1);
    printf("encoded (%u bytes with the counted NUL):\n  %s\n", obs_sdslen(text), text);

    obs_any_value *decoded = NULL;
    const char *end = obs_any_value_decode(text, obs_sdslen(text), &decoded);
    int ok = end && end == text + strlen(text) - 1;
    if (ok) {
        printf("decoded:\n");
        print_pairs(obs_any_value_get_kvlist(decoded), 1);
        obs_sds again = obs_any_value_encode(decoded);
        ok = again && strcmp(again, text) == 0;
        printf("re-encoded text %s the original\n", ok ? "matches" : "differs from");
        obs_sdsfree(again);
    } else {
        fprintf(stderr, "decoding failed\n");
    }

    obs_any_value_free(decoded);
    obs_sdsfree(text);
    obs_key_value_free(attrs);
    return ok ? 0 : 1;
}
