/* The public header as a C user meets it: compiled as strict C11 with every warning an error,
 * linked with the library, calling it through plain C. Exits non-zero on the first mismatch. */
#include <stdio.h>
#include <string.h>

#include <observability_api.h>

_Static_assert(sizeof(obs_sampling) == sizeof(void *), "a sampling value holds a pointer");

static int fail(const char *what) {
    fprintf(stderr, "header_c11: %s\n", what);
    return 1;
}

static int check_sds(void) {
    static const char bytes[] = {'a', '\0', 'b'};
    obs_sds s = obs_sdsempty();
    if (!s || obs_sdslen(s) != 0 || s[0] != '\0') return fail("obs_sdsempty is not empty");
    s = obs_sdscatstr(obs_sdscat(s, bytes, sizeof bytes), "cd");
    int ok = s && obs_sdslen(s) == 5 && memcmp(s, "a\0bcd", 6) == 0;
    obs_sdsfree(s);
    return ok ? 0 : fail("obs_sdscat/obs_sdscatstr lost bytes or the terminator");
}

static int check_kvlist_round_trip(void) {
    static const char expected[] =
        "{kvlist 59 2 [{str 6 \"name\" 13 {str 5 \"abc\"}},{str 3 \"n\" 9 {int 1 5}}]}";
    obs_key_value *pairs = NULL;
    obs_key_value_add_str(&pairs, "name", "abc", 0);
    obs_key_value_add_int(&pairs, "n", 5);
    obs_sds text = obs_key_value_encode(pairs);
    obs_key_value_free(pairs);
    if (!text || obs_sdslen(text) != sizeof expected || strcmp(text, expected) != 0) {
        obs_sdsfree(text);
        return fail("obs_key_value_encode text or counted length differs");
    }

    obs_any_value *decoded = NULL;
    const char *end = obs_any_value_decode(text, obs_sdslen(text), &decoded);
    obs_key_value *n = obs_key_value_find(obs_any_value_get_kvlist(decoded), "n");
    int ok = end == text + strlen(text) - 1 &&
             obs_any_value_get_type(decoded) == OBS_VALUE_KVLIST &&
             obs_any_value_get_type(obs_key_value_get_val(n)) == OBS_VALUE_INT &&
             obs_any_value_get_int(obs_key_value_get_val(n)) == 5;
    obs_any_value_free(decoded);
    obs_sdsfree(text);
    return ok ? 0 : fail("obs_any_value_decode did not read back the pair n = 5");
}

int main(void) {
    return check_sds() | check_kvlist_round_trip();
}
