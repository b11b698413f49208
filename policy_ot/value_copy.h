// Deep copies of key-value lists for the sampling policy. obs_key_value_clone shares value
// payloads with its source; a policy copy must outlive the record it was copied from, so its rule
// pairs own every payload.
#ifndef OBS_POLICY_OT_VALUE_COPY_H
#define OBS_POLICY_OT_VALUE_COPY_H

#include "observability/value.h"

namespace obs {

// New pairs, keys and value nodes, every payload copied (nested kvlists and arrays too) and no
// node marked OBS_VALUE_REF. Null for null, or when memory runs out (nothing is then kept).
obs_key_value *key_value_deep_copy(const obs_key_value *list);

}  // namespace obs

#endif
