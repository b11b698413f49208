// Instrumentation scopes: the tracers, loggers and meters of the binding. A scope is made once
// per signal, name, version, schema URL and attributes and lives as long as the binding, so that
// its handle stays valid whatever context it was obtained from.
#ifndef OTELC_SCOPE_H
#define OTELC_SCOPE_H

#include <pthread.h>

#include "otelc/attr_map.h"
#include "otelc/json.h"
#include "otelc/pipeline.h"

namespace otelc {

struct Instrument;

struct Scope {
    Scope *next;
    Signal signal;
    char *name;
    char *version;
    char *schema_url;
    char *service_name;  // meters only: the service whose metrics contexts collect it
    AttrMap attrs;
    Instrument *instruments;  // meters only
};

// Guards every scope's attributes and the meters' instrument lists (cold paths: scope lookup,
// attribute replacement, instrument creation, encoding, collection).
extern pthread_mutex_t scopes_lock;
// Every scope made, newest first; read under scopes_lock.
extern Scope *scopes;

Scope *scope_get(Signal signal, Pipeline *pipeline, const char *name, const char *version,
                 const char *schema_url, const AttrMap *attrs);
void scope_set_attrs(Scope *scope, const AttrMap *attrs);
// "scope":{...},"schemaUrl":"..." of scope. Under scopes_lock.
void json_scope(Buf *out, const Scope *scope);

// An OTLP document of records: {"<resource_key>":[{"resource":...,"<scope_key>":[{"scope":...,
// "<records_key>":[...]}, ...]}]}, records grouped by their scope in order of first appearance.
struct DocumentShape {
    const char *resource_key;
    const char *scope_key;
    const char *records_key;
    const Scope *(*scope_of)(const void *record);
    void (*encode)(Buf *out, const void *record);
};
void json_document(Buf *out, const Pipeline *pipeline, void *const *records, uint32_t n,
                   const DocumentShape &shape);

}  // namespace otelc

#endif
