// The sampling SDK's provider records "obs" and "obs-monitor", and their hooks: turning a
// received record's codec text into an entry chain, and releasing record lists of which some hold
// such chains.
#include <cstdlib>

#include "observability/policy_ot.h"
#include "policy/builtin_provider.h"
#include "policy/policy_record.h"
#include "policy_ot/translated_record.h"

namespace {

constexpr uint8_t kKeptFormatBits = 0x0f;

bool holds_codec_text(const obs_policy *record) {
    return record->codec_val && record->codec_vlen &&
           (record->format & OBS_POLICY_FORMAT_CODEC_TEXT);
}

// A translated record's entry chain, or a plain codec block.
void release_codec_value(obs_policy *record) {
    if (obs::is_translated_record(record)) {
        obs_policy_ot_free(static_cast<obs_policy_ot *>(record->codec_val));
    } else {
        free(record->codec_val);
    }
}

obs_sdk_policy_provider ot_provider = obs::builtin_provider(
    OBS_POLICY_PROVIDER_SDK, "obs", sdk_policy_ot_apply_translate, sdk_policy_ot_free);
obs_sdk_policy_provider ot_monitor_provider = obs::builtin_provider(
    OBS_POLICY_PROVIDER_MONITOR, "obs-monitor", sdk_policy_ot_apply_translate, sdk_policy_ot_free);

}  // namespace

extern "C" {

obs_sdk_policy_provider *obs_get_ot_sdk_policy_provider(void) {
    return &ot_provider;
}

obs_sdk_policy_provider *obs_get_ot_monitor_sdk_policy_provider(void) {
    return &ot_monitor_provider;
}

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
    obs::policy_list_release(list, release_codec_value);
}

}  // extern "C"
