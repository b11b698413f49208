// The "obs" providers' hooks: turning a received record's codec text into an entry chain, and
// releasing record lists of which some hold such chains.
#include <cstdlib>

#include "observability/policy_ot.h"
#include "policy_ot/translated_record.h"

namespace {

constexpr uint8_t kKeptFormatBits = 0x0f;

bool holds_codec_text(const obs_policy *record) {
    return record->codec_val && record->codec_vlen &&
           (record->format & OBS_POLICY_FORMAT_CODEC_TEXT);
}

}  // namespace

extern "C" {

obs_policy *sdk_policy_ot_apply_translate(void *, const char *, obs_policy *record) {
    obs_policy *copy = obs_policy_clone_one(record, 0);
    if (!copy || !holds_codec_text(record)) return copy;
    obs_policy_ot *entries = nullptr;
    sdk_policy_ot_internal_decode(static_cast<const char *>(record->codec_val), record->codec_vlen,
                                  &entries);
    copy->format = (copy->format & kKeptFormatBits) | OBS_POLICY_FORMAT_CODEC_BYTES;
    obs::store_translated_chain(copy, entries);
    return copy;
}

void sdk_policy_ot_free(obs_policy *list) {
    while (list) {
        obs_policy *next = list->next;
        if (obs::is_translated_record(list)) {
            obs_policy_ot_free(static_cast<obs_policy_ot *>(list->codec_val));
        } else {
            free(list->codec_val);
        }
        free(list->raw_val);
        free(list->name);
        free(list->path);
        free(list->reqid);
        free(list->traceid);
        free(list);
        list = next;
    }
}

}  // extern "C"
