// A sampling value is one of the settings OBS_SAMPLING_NONE, _ALL_OFF and _ALL_ON, or else the
// address of a sampler list. These are the one way to tell the two apart and to reach the list.
#ifndef OBS_POLICY_OT_SAMPLER_LIST_H
#define OBS_POLICY_OT_SAMPLER_LIST_H

#include "observability/policy_ot.h"

namespace obs {

inline bool is_sampler_list(obs_sampling sampling) {
    return sampling > OBS_SAMPLING_ALL_ON;
}

inline obs_policy_ot_sampler *sampler_list(obs_sampling sampling) {
    return reinterpret_cast<obs_policy_ot_sampler *>(sampling);
}

inline obs_sampling as_sampling(const obs_policy_ot_sampler *samplers) {
    return reinterpret_cast<obs_sampling>(samplers);
}

}  // namespace obs

#endif
