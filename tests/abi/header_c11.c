/* The public header as a C user meets it: strict C11 with every warning an error, linked with the
 * library and calling a function of each of its parts. Exits non-zero on a mismatch. */
#include <stdio.h>
#include <string.h>

#include <observability_api.h>

_Static_assert(sizeof(obs_sampling) == sizeof(void *), "a sampling value holds a pointer");

int main(void) {
    static const char expected[] =
        "{kvlist 59 2 [{str 6 \"name\" 13 {str 5 \"abc\"}},{str 3 \"n\" 9 {int 1 5}}]}";
    obs_key_value *pairs = NULL;
    obs_any_value *decoded = NULL;
    obs_key_value_add_str(&pairs, "name", "abc", 0);
    obs_key_value_add_int(&pairs, "n", 5);
    obs_sds text = obs_key_value_encode(pairs);
    obs_sds bytes = obs_sdscatstr(obs_sdscat(obs_sdsempty(), "a\0b", 3), "cd");
    int ok = text && obs_sdslen(text) == sizeof expected && strcmp(text, expected) == 0 &&
             obs_any_value_decode(text, 0, &decoded) == text + sizeof expected - 2 &&
             obs_any_value_get_int(obs_key_value_get_val(
                 obs_key_value_find(obs_any_value_get_kvlist(decoded), "n"))) == 5 &&
             bytes && obs_sdslen(bytes) == 5 && memcmp(bytes, "a\0bcd", 6) == 0 &&
             obs_valid_name("svc") && obs_get_monitor_sdk_policy_provider() &&
             obs_get_ot_sdk_policy_provider() && obs_gettid() > 0;
    obs_policy_ctx_free(NULL);
    obs_any_value_free(decoded);
    obs_key_value_free(pairs);
    obs_sdsfree(text);
    obs_sdsfree(bytes);
    if (!ok) fprintf(stderr, "header_c11: encoded %s\n", text ? text : "(null)");
    return !ok;
}
