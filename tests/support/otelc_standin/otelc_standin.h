/* Control of the recording stand-in for "libopentelemetry-c.so". Tests reach these functions
 * with dlsym on the library the provider loads, so that the test program itself never links it.
 *
 * Every call of a binding function is recorded as one line: the function's name and its
 * arguments in parentheses, separated by commas. Handles made by the stand-in read "<kind>#<n>"
 * (tracer_provider, logger_provider, metrics_provider, tracer, logger, meter, span, map, inst,
 * counter; n counts from 1 per kind since the last reset), a handle released before reads
 * "<kind>#<n>!released", any other non-null pointer "foreign", a null pointer or text "null";
 * texts are quoted, doubles written with %.17g, the instrument record as "{a,b,c}" and the span
 * context capacity as the number it points to, an output buffer "buffer". A span's context text
 * is "ctx-span#<n>". */
#ifndef OTELC_STANDIN_H
#define OTELC_STANDIN_H

#ifdef __cplusplus
extern "C" {
#endif

/* The lines recorded since the last reset or forgetting read, each ended by '\n', as a malloc'd
 * text; with forget non-zero they are forgotten (the handles are kept). */
char *otelc_standin_calls(int forget);
/* Forgets the lines, the failures and every handle. */
void otelc_standin_reset(void);
/* The next `calls` calls of function (-1: every call, 0: none again) fail: a handle result is
 * null, an int result is `result`. Functions without a result cannot fail. */
void otelc_standin_fail(const char *function, int calls, int result);
/* How many handles of kind were made and not released since the last reset. */
int otelc_standin_live(const char *kind);

typedef char *(*otelc_standin_calls_fn)(int);
typedef void (*otelc_standin_reset_fn)(void);
typedef void (*otelc_standin_fail_fn)(const char *, int, int);
typedef int (*otelc_standin_live_fn)(const char *);

#ifdef __cplusplus
}
#endif

#endif
