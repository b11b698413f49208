// Releasing policy record lists, shared by the plain release and the providers' own.
#ifndef OBS_POLICY_POLICY_RECORD_H
#define OBS_POLICY_POLICY_RECORD_H

#include "observability/policy.h"

namespace obs {

// Releases every record of list and the texts and values it owns, ignoring owners. A record's
// codec value is released by release_codec when one is given (it knows what the value is),
// else with free.
void policy_list_release(obs_policy *list, void (*release_codec)(obs_policy *record));

}  // namespace obs

#endif
