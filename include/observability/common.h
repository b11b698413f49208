/* Types, constants and the export macro shared by every part of the public interface. */
#ifndef OBSERVABILITY_COMMON_H
#define OBSERVABILITY_COMMON_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(OBS_BUILDING_LIBRARY)
#define OBS_EXPORT __attribute__((visibility("default")))
#else
#define OBS_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Growable string: points at the first character; the length header sits in front of it. */
typedef char *obs_sds;

/* A sampling value: 0 none given, 1 all off, 2 all on, otherwise a pointer to a sampler list. */
typedef uintptr_t obs_sampling;

/* Callback the library hands to an IPC provider's subscribe slot. */
typedef void (*obs_ipc_handler)(void *ctx, int op, const char *path, const char *key,
                                const void *data, int len);

/* Host hook that receives every diagnostic line instead of the log file (first argument 0). */
typedef int (*obs_log_callback)(int, const char *);

/* Type codes of a value node (low 4 bits of its type byte). */
#define OBS_VALUE_NONE 0
#define OBS_VALUE_STR 1
#define OBS_VALUE_BOOL 2
#define OBS_VALUE_INT 3
#define OBS_VALUE_DOUBLE 4
#define OBS_VALUE_ARRAY 5
#define OBS_VALUE_KVLIST 6
#define OBS_VALUE_BYTES 7
/* Set in a node's type byte when the node does not own what it points to. */
#define OBS_VALUE_REF 0x10
/* The OBS_VALUE_* code of a node's type byte. */
#define OBS_VALUE_TYPE_CODE(type) ((uint8_t)((type) & 0x0f))

/* Results of int operations (the convention is stated in observability_api.h). */
#define OBS_OK 0
#define OBS_ERR_FAILED (-1)          /* failure or refusal */
#define OBS_ERR_INVALID (-2)         /* a provider lacks the operation, or an argument is bad */
#define OBS_ERR_TARGET_MISMATCH (-3) /* publishing: the target names another policy SDK */

/* Operation of a policy record (its op field). Records up to OBS_POLICY_OP_REAPPLY are stored
 * under their key; later ones travel as transient messages. */
#define OBS_POLICY_OP_APPLY 1
#define OBS_POLICY_OP_REMOVE 2 /* back to the defaults */
#define OBS_POLICY_OP_REAPPLY 3
#define OBS_POLICY_OP_QUERY 4 /* answered with a report */
#define OBS_POLICY_OP_APPLY_TRANSIENT 5
/* Whether op applies the record's policy (1, 3 and 5 do). */
#define OBS_POLICY_OP_IS_APPLY(op) \
    ((op) == OBS_POLICY_OP_APPLY || (op) == OBS_POLICY_OP_REAPPLY || \
     (op) == OBS_POLICY_OP_APPLY_TRANSIENT)

/* Bits of a policy record's format. */
#define OBS_POLICY_FORMAT_RAW 0x01
#define OBS_POLICY_FORMAT_RAW_BYTES 0x02
#define OBS_POLICY_FORMAT_CODEC_TEXT 0x10
#define OBS_POLICY_FORMAT_CODEC_BYTES 0x20

/* Classes of a policy SDK provider. */
#define OBS_POLICY_PROVIDER_DEFAULT 0x10
#define OBS_POLICY_PROVIDER_SDK 0x20
#define OBS_POLICY_PROVIDER_MONITOR 0x80

/* Local marks in a record's dispatch_flags; never transmitted. */
/* Claimed by a named-SDK provider in dispatch, so a default-class provider leaves it alone. */
#define OBS_POLICY_FLAG_CLAIMED 0x20u
/* The record's codec_val is a translated entry chain in this process's memory. */
#define OBS_POLICY_FLAG_TRANSLATED 0x80000000u

#ifdef __cplusplus
}
#endif

#endif
