/* Control of the recording stand-in for "libopentelemetry-c.so". Tests reach these functions
 * with dlsym on the library the provider loads, so that the test program never links it.
 *
 * Each call of a binding function is recorded as one line, "name(arg,arg,...)" with the name's
 * "otelc_" left out: a handle the stand-in made reads "<kind>#<n>" (tp, lp, mp for the provider
 * contexts; n counts per kind from 1 since the last reset), with
 * "!released" once released; any other pointer "foreign", a null pointer or text "null"; texts
 * are written as they are, doubles written with %.17g, the instrument record "{a,b,c}", an output
 * buffer "buffer" and a capacity as the number it points to. A span's context text is
 * "ctx-span#<n>". */
#ifndef OTELC_STANDIN_H
#define OTELC_STANDIN_H

#ifdef __cplusplus
extern "C" {
#endif

/* The lines recorded since the last reset or forgetting read, each ended by '\n', as a malloc'd
 * text; forget non-zero forgets them (handles keep their names). */
char *otelc_standin_calls(int forget);
/* Forgets the lines, the failures and every handle. */
void otelc_standin_reset(void);
/* The next `calls` calls of function (-1: every call, 0: none again) fail: a handle result is
 * null, an int result is `result`. */
void otelc_standin_fail(const char *function, int calls, int result);
/* How many handles of kind were made and not released since the last reset. */
int otelc_standin_live(const char *kind);

#ifdef __cplusplus
}
#endif

#endif
