/* The "ot" sampling policy: which signals each scope lets through and at which log level, its
 * text form, and the translator and release hooks of the "obs" and "obs-monitor" providers. */
#ifndef OBSERVABILITY_POLICY_OT_H
#define OBSERVABILITY_POLICY_OT_H

#include "observability/common.h"
#include "observability/policy.h"
#include "observability/value.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Signal bits; 0 in a mask means all three. */
#define OBS_SIGNAL_TRACES 1
#define OBS_SIGNAL_LOGS 2
#define OBS_SIGNAL_METRICS 4

/* Sampling values that are settings of their own; any other value is a sampler list. */
#define OBS_SAMPLING_NONE 0 /* none given: reads as all off */
#define OBS_SAMPLING_ALL_OFF 1
#define OBS_SAMPLING_ALL_ON 2

/* Per-signal settings of a sampler. */
#define OBS_SAMPLING_UNSET 0
#define OBS_SAMPLING_OFF 1
#define OBS_SAMPLING_ON 2

/* One sampler; only the first of a list is consulted, the others are carried. */
typedef struct obs_policy_ot_sampler {
    char *name; /* carried only */
    int32_t traces_config;
    int32_t metrics_config;
    int32_t logs_config;
    struct obs_policy_ot_sampler *next;
} obs_policy_ot_sampler;

/* One rule: received, encoded, copied and released, never evaluated here. */
typedef struct obs_policy_ot_rule {
    obs_key_value *kv; /* owned */
    uint8_t match;
    uint8_t action;
    struct obs_policy_ot_rule *next;
} obs_policy_ot_rule;

/* One entry of a sampling policy; a translated policy is the whole chain. */
typedef struct obs_policy_ot {
    uint8_t signal;       /* carried, not consulted when applied */
    char *scope_name;     /* owned; "*" applies to every scope */
    obs_sampling sampler; /* owned when it is a sampler pointer */
    uint8_t log_level;
    obs_policy_ot_rule *resource_rule;
    obs_policy_ot_rule *scope_rule;
    obs_policy_ot_rule *span_rule;
    obs_policy_ot_rule *log_rule;
    obs_policy_ot_rule *metric_rule;
    struct obs_policy_ot *next;
} obs_policy_ot;

/* The sampling SDK's provider records: "obs" (class OBS_POLICY_PROVIDER_SDK) and "obs-monitor"
 * (class OBS_POLICY_PROVIDER_MONITOR), both translating with sdk_policy_ot_apply_translate and
 * releasing with sdk_policy_ot_free; process-wide, writable, the same table on every call. */
OBS_EXPORT obs_sdk_policy_provider *obs_get_ot_sdk_policy_provider(void);
OBS_EXPORT obs_sdk_policy_provider *obs_get_ot_monitor_sdk_policy_provider(void);

/* First entry whose scope_name equals scope_name, or null. */
OBS_EXPORT obs_policy_ot *obs_policy_ot_find(obs_policy_ot *list, const char *scope_name);
/* Setting for the signal: 1 (off) for sampling 0 and 1, 2 for sampling 2; for a sampler the
 * first sampler's setting of traces, else metrics, else logs, by the bits set; 1 for no bit. */
OBS_EXPORT int obs_policy_ot_sampler_get_config(obs_sampling sampling, unsigned signal);
/* "[all:off]", "[all:on]" (constants), or "[trace:on|off][metrics:on|off][logs:on|off]" for a
 * sampler, written into buf (at most size bytes with the terminator, cut to fit). A constant ""
 * for a sampler when buf is null or size is 0. */
OBS_EXPORT const char *obs_policy_ot_sampler_dump_config(obs_sampling sampling, char *buf,
                                                         uint32_t size);
/* 0, 1 and 2 are returned as they are; a sampler list is copied (names too). */
OBS_EXPORT obs_sampling obs_policy_ot_sampler_clone(obs_sampling sampling, int only_first);
/* Ignores 0, 1 and 2. */
OBS_EXPORT void obs_policy_ot_sampler_free(obs_sampling sampling);
/* The copy owns everything it holds: kv pairs, keys and every value payload (nested kvlists and
 * arrays included) are copied, so the copy stays valid after the source is released. A rule
 * whose copy cannot be allocated is left out. */
OBS_EXPORT obs_policy_ot_rule *obs_policy_ot_rule_clone(const obs_policy_ot_rule *rules,
                                                        int only_first);
OBS_EXPORT void obs_policy_ot_rule_free(obs_policy_ot_rule *rules);
/* Copies entries with their scope names, samplers and rules (as obs_policy_ot_rule_clone). */
OBS_EXPORT obs_policy_ot *obs_policy_ot_clone(const obs_policy_ot *list, int only_first);
OBS_EXPORT void obs_policy_ot_free(obs_policy_ot *list);
/* Copy a record list; a translated record's entry chain is copied too (and the copy marked
 * translated), any other codec value is dropped. Copies keep the source's owner. */
OBS_EXPORT obs_policy *sdk_policy_ot_clone(const obs_policy *policies, int only_first);

/* Policy text of the first entry (whole_list 0) or of all entries. On success *text receives a
 * malloc'd NUL-terminated text and *len its length with the terminator; otherwise (no entry
 * writes any key) neither is touched. */
OBS_EXPORT void sdk_policy_ot_internal_encode(const obs_policy_ot *entries, char **text,
                                              uint32_t *len, int whole_list);
/* Append the entries of a policy text to *list. Nothing past len bytes is read. Decoding stops
 * at the first top-level node that is not a kvlist. A key whose value is not one node of the type
 * the text format gives it is ignored as if absent, as is a "sampling" other than 0, 1 or 2 (the
 * whole int, not its low bits); "sampler" is read only when "sampling" is absent or ignored.
 * "sampler" and rule nodes that are not kvlists are skipped. */
OBS_EXPORT void sdk_policy_ot_internal_decode(const char *text, uint32_t len, obs_policy_ot **list);
/* Add "sampler" (one kvlist per sampler that has a name or a non-zero setting) to *pairs; the
 * names are borrowed. Nothing is added when no sampler writes a key. */
OBS_EXPORT void sdk_policy_ot_sampler_encode(obs_key_value **pairs,
                                             const obs_policy_ot_sampler *samplers);
/* Add key (one kvlist per rule: "kv" borrowed, "match", "action") to *pairs. */
OBS_EXPORT void sdk_policy_ot_rule_to_key_value(const char *key, const obs_policy_ot_rule *rules,
                                                obs_key_value **pairs);
/* Append a sampler per kvlist node under "sampler" to the list *sampling points at (0 is an
 * empty list); a sampling of 1 or 2 is left as it is. Values are read as the decoder reads them.
 * A "name" string that its node owns is taken over (the node is marked OBS_VALUE_REF, so
 * releasing pairs leaves it to the sampler); one the node only refers to is copied. */
OBS_EXPORT void sdk_policy_ot_sampler_from_key_value(obs_key_value *pairs, obs_sampling *sampling);
/* Append a rule per kvlist node under key to *rules. A "kv" pair list is taken over or copied
 * as "name" is by sdk_policy_ot_sampler_from_key_value (a copy owns all its payloads). */
OBS_EXPORT void sdk_policy_ot_rule_from_key_value(const char *key, obs_key_value *pairs,
                                                  obs_policy_ot_rule **rules);
/* Translator hook: a copy of record whose codec text is decoded into an entry chain (format
 * 0x20 with the low four bits kept, codec_vlen sizeof(obs_policy_ot), dispatch_flags marked
 * OBS_POLICY_FLAG_TRANSLATED; no codec value when nothing decodes), or a copy without codec
 * value when record holds no codec text; null for null or when out of memory. */
OBS_EXPORT obs_policy *sdk_policy_ot_apply_translate(void *user_ctx, const char *service_name,
                                                     obs_policy *record);
/* Release hook: releases a record list. A codec value is released as an entry chain only when
 * the record carries OBS_POLICY_FLAG_TRANSLATED and codec_vlen is sizeof(obs_policy_ot);
 * otherwise it is a plain block. */
OBS_EXPORT void sdk_policy_ot_free(obs_policy *list);

#ifdef __cplusplus
}
#endif

#endif
