// How a policy record that holds a translated entry chain is told apart from one whose codec
// value is a plain byte block. The codec length alone cannot tell: a received codec text may have
// exactly that length. The mark lives in dispatch_flags, which is never transmitted, so no record
// decoded from the wire can carry it; copies made by obs_policy_clone_one drop it.
#ifndef OBS_POLICY_OT_TRANSLATED_RECORD_H
#define OBS_POLICY_OT_TRANSLATED_RECORD_H

#include "observability/policy_ot.h"

namespace obs {

inline bool is_translated_record(const obs_policy *record) {
    return record->codec_val && record->codec_vlen == sizeof(obs_policy_ot) &&
           (record->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED);
}

// Hands record an owned entry chain; an empty chain leaves it without codec value or mark.
inline void store_translated_chain(obs_policy *record, obs_policy_ot *entries) {
    record->codec_val = entries;
    if (entries) {
        record->codec_vlen = sizeof(obs_policy_ot);
        record->dispatch_flags |= OBS_POLICY_FLAG_TRANSLATED;
    } else {
        record->codec_vlen = 0;
        record->dispatch_flags &= ~OBS_POLICY_FLAG_TRANSLATED;
    }
}

}  // namespace obs

#endif
