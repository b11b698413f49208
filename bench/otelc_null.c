/* A binding whose every function returns at once, for the built-in provider's benchmark: what is
 * measured is the provider's own work. Handles are one static non-null address. */
#include <stdint.h>

#include "observability/otelc.h"

static char handle;

void *otelc_init_tracer_provider_ctx(const char *a, const char *b, AttrMap *c) {
    (void)a, (void)b, (void)c;
    return &handle;
}
void *otelc_init_logger_provider_ctx(const char *a, const char *b, AttrMap *c) {
    (void)a, (void)b, (void)c;
    return &handle;
}
void *otelc_init_metrics_provider_ctx(const char *a, const char *b, AttrMap *c) {
    (void)a, (void)b, (void)c;
    return &handle;
}
void otelc_cleanup_tracer_provider_ctx(void *a) {
    (void)a;
}
void otelc_cleanup_logger_provider_ctx(void *a) {
    (void)a;
}
void otelc_cleanup_metrics_provider_ctx(void *a) {
    (void)a;
}
void *otelc_get_tracer(void *a, const char *b, const char *c, const char *d, AttrMap *e) {
    (void)a, (void)b, (void)c, (void)d, (void)e;
    return &handle;
}
void *otelc_get_logger(void *a, const char *b, const char *c, const char *d, AttrMap *e) {
    (void)a, (void)b, (void)c, (void)d, (void)e;
    return &handle;
}
void *otelc_get_meter(void *a, const char *b, const char *c, const char *d, AttrMap *e) {
    (void)a, (void)b, (void)c, (void)d, (void)e;
    return &handle;
}
void otelc_set_trace_instrumentationscope_attrs(void *a, void *b, AttrMap *c) {
    (void)a, (void)b, (void)c;
}
void otelc_set_logger_instrumentationscope_attrs(void *a, void *b, AttrMap *c) {
    (void)a, (void)b, (void)c;
}
void otelc_set_metrics_instrumentationscope_attrs(void *a, void *b, AttrMap *c) {
    (void)a, (void)b, (void)c;
}
void otelc_log_with_ctx(void *a, void *b, void *c, int d, const char *e) {
    (void)a, (void)b, (void)c, (void)d, (void)e;
}
void *otelc_start_span_with_tracer(void *a, void *b, const char *c, AttrMap *d, const char *e,
                                   char *f, int *g) {
    (void)a, (void)b, (void)c, (void)d, (void)e, (void)f, (void)g;
    return &handle;
}
AttrMap *otelc_create_attr_map(void) {
    return (AttrMap *)&handle;
}
void otelc_set_bool_attr(AttrMap *a, const char *b, uint8_t c) {
    (void)a, (void)b, (void)c;
}
void otelc_set_int64_t_attr(AttrMap *a, const char *b, int64_t c) {
    (void)a, (void)b, (void)c;
}
void otelc_set_double_attr(AttrMap *a, const char *b, double c) {
    (void)a, (void)b, (void)c;
}
void otelc_set_str_attr(AttrMap *a, const char *b, const char *c) {
    (void)a, (void)b, (void)c;
}
void otelc_destroy_attr_map(AttrMap *a) {
    (void)a;
}
void otelc_set_span_attrs(void *a, AttrMap *b) {
    (void)a, (void)b;
}
void otelc_end_span(void *a) {
    (void)a;
}
void otelc_set_span_status(void *a, int b, const char *c) {
    (void)a, (void)b, (void)c;
}
void *otelc_create_metrics_inst_from_meter(otelc_instrument_kind a, void *b, const char *c,
                                           const char *d, const char *e) {
    (void)a, (void)b, (void)c, (void)d, (void)e;
    return &handle;
}
int otelc_metrics_inst_add_int64_attrs(void *a, int64_t b, AttrMap *c) {
    (void)a, (void)b, (void)c;
    return 0;
}
int otelc_metrics_inst_add_double_attrs(void *a, double b, AttrMap *c) {
    (void)a, (void)b, (void)c;
    return 0;
}
void otelc_destroy_metrics_inst(void *a) {
    (void)a;
}
