// The resource a provider context describes its telemetry with.
#ifndef OTELC_RESOURCE_H
#define OTELC_RESOURCE_H

#include "otelc/attr_map.h"

namespace otelc {

// OTEL_RESOURCE_ATTRIBUTES, then the SDK's own attributes and the service's name and version,
// then given: a later source wins over an earlier one for the same key.
void resource_build(AttrMap *resource, const char *service_name, const char *service_version,
                    const AttrMap *given);
// Puts the "k=v,k2=v2" pairs of text, percent-decoded, into map; a malformed text logs one line
// and puts nothing. false when malformed.
bool parse_resource_attributes(const char *text, AttrMap *map);
// The percent-decoded text of [begin, end) with surrounding blanks trimmed, malloc'd; null when
// an escape is malformed or memory runs out.
char *percent_decoded(const char *begin, const char *end);

}  // namespace otelc

#endif
