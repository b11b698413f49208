// Copying and releasing policy records.
#include "policy/policy_record.h"

#include <cstdlib>

#include "support/list.h"
#include "support/owned_copy.h"

namespace {

void release_fields(obs_policy *record) {
    free(record->name);
    free(record->path);
    free(record->reqid);
    free(record->traceid);
    free(record->raw_val);
}

}  // namespace

void obs::policy_list_release(obs_policy *list, void (*release_codec)(obs_policy *record)) {
    obs::list_release(list, [release_codec](obs_policy *record) {
        if (release_codec) {
            release_codec(record);
        } else {
            free(record->codec_val);
        }
        release_fields(record);
        free(record);
    });
}

extern "C" {

obs_policy *obs_policy_clone_one(const obs_policy *src, int with_codec) {
    if (!src) return nullptr;
    auto *copy = static_cast<obs_policy *>(malloc(sizeof(obs_policy)));
    if (!copy) return nullptr;
    *copy = *src;
    copy->next = nullptr;
    // Whatever the source holds, the copy holds plain bytes, never an entry chain it would own.
    copy->dispatch_flags &= ~OBS_POLICY_FLAG_TRANSLATED;
    copy->raw_val =
        src->raw_val && src->raw_vlen ? obs::copy_block(src->raw_val, src->raw_vlen) : nullptr;
    // A translated entry chain is not bytes to copy: a copy would hold its addresses as a plain
    // block, fit to be sent.
    const bool translated = src->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED;
    if (with_codec && src->codec_val && src->codec_vlen && !translated) {
        copy->codec_val = obs::copy_block(src->codec_val, src->codec_vlen);
    } else {
        copy->codec_val = nullptr;
        copy->codec_vlen = 0;
    }
    bool texts_copied = obs::copy_text_in_place(&copy->reqid) &
                        obs::copy_text_in_place(&copy->traceid) &
                        obs::copy_text_in_place(&copy->path) & obs::copy_text_in_place(&copy->name);
    if (!texts_copied) {
        obs::policy_list_release(copy, nullptr);
        return nullptr;
    }
    return copy;
}

void obs_policy_free(obs_policy *list) {
    if (!list) return;
    obs_policy_ctx *owner = list->owner;
    if (owner && owner->provider && owner->provider->free) {
        // The owner's hook may come back here; with the link cleared it takes the plain path.
        list->owner = nullptr;
        owner->provider->free(list);
        return;
    }
    obs::policy_list_release(list, nullptr);
}

}  // extern "C"
