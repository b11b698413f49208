// The policy text of sampling-policy entries, as an agent puts it into a record's codec value.
#ifndef OBS_BENCH_POLICY_TEXT_H
#define OBS_BENCH_POLICY_TEXT_H

#include <cstdlib>
#include <string>

#include "observability_api.h"

namespace obs_bench {

// Empty when the entries write no key.
inline std::string policy_text(const obs_policy_ot *entries, int whole_list) {
    char *text = nullptr;
    uint32_t len = 0;
    sdk_policy_ot_internal_encode(entries, &text, &len, whole_list);
    std::string copy = text ? text : "";
    free(text);
    return copy;
}

}  // namespace obs_bench

#endif
