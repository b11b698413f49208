/* The one diagnostic output: time-stamped lines to a self-rotating file and standard output,
 * or to a host callback. */
#ifndef OBSERVABILITY_DEBUG_LOG_H
#define OBSERVABILITY_DEBUG_LOG_H

#include <stdio.h>

#include "observability/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Default log file; every caller in the library passes it as the default path. */
#define OBS_DEBUG_LOG_DEFAULT_PATH "/tmp/otsdk/obs_policy.log"

/* The file is rotated once it has reached this many bytes; one backup, "<path>.1". */
#define OBS_DEBUG_LOG_ROTATE_SIZE 131072

/* Divert every message to cb (called as cb(0, message)); null restores file and stdout output.
 * Set it before other threads log. */
OBS_EXPORT void obs_log_callback_set(obs_log_callback cb);

/* Log to path instead of the default path callers pass; null returns to the default. Only the
 * pointer is kept: the string must outlive its use. Paths of up to 511 characters are handled;
 * a longer one is not opened (lines still reach standard output). The file's directory must be
 * a real directory (not a symbolic link) owned by this process's user or by root, and the file
 * itself is never opened through a symbolic link. */
OBS_EXPORT void obs_log_file_set(const char *path);

/* Kernel thread id of the calling thread. */
OBS_EXPORT int obs_gettid(void);

/* Write one message. Slot contract: the caller passes the address of a FILE * set to null and
 * fcloses whatever the slot holds afterwards. The line "<time> [<tid>] <msg>" goes to the file
 * (opened into the slot when the slot is null; rotated first when it is 131072 bytes or more),
 * and "<time> <msg>" to standard output. Returns the callback's result when one is set, else
 * printf's. A null msg logs empty text; a null slot sends the line to standard output only.
 * Never fails its caller; safe to call from several threads at once. */
OBS_EXPORT int obs_debug_log_to_file(const char *msg, FILE **slot, const char *default_path);

#ifdef __cplusplus
}
#endif

#endif
