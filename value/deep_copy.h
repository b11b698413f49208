// Copies of key-value lists that own everything they hold. obs_key_value_clone shares value
// payloads with its source by contract; a copy that must outlive its source uses this instead.
#ifndef OBS_VALUE_DEEP_COPY_H
#define OBS_VALUE_DEEP_COPY_H

#include "observability/value.h"

namespace obs {

// New pairs, keys and value nodes with every payload copied (nested kvlists and arrays too) and
// no node marked OBS_VALUE_REF. Null for null, or when memory runs out (nothing is then kept).
obs_key_value *key_value_deep_copy(const obs_key_value *list);

}  // namespace obs

#endif
