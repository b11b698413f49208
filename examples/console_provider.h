/* A telemetry SDK provider that writes to standard output: one line per span start and end, log
 * record and counter addition, each led by "<service>/<scope>". A stand-in for a real back end,
 * small enough to read as a model of the provider table. */
#ifndef CONSOLE_PROVIDER_H
#define CONSOLE_PROVIDER_H

#include <observability_api.h>

/* The table, the same on every call; pass it to obs_ctx_init. */
obs_sdk_provider *console_provider(void);

#endif
