// Copying and releasing policy records.
#include <cstdlib>
#include <cstring>

#include "observability/policy.h"

namespace {

void *copy_block(const void *src, uint32_t n) {
    void *copy = malloc(n);
    if (copy) memcpy(copy, src, n);
    return copy;
}

// Copies the text in *field in place; false when memory runs out (the field is then null).
bool copy_text(char **field) {
    if (!*field) return true;
    *field = strdup(*field);
    return *field != nullptr;
}

void release_fields(obs_policy *record) {
    free(record->name);
    free(record->path);
    free(record->reqid);
    free(record->traceid);
    free(record->codec_val);
    free(record->raw_val);
}

}  // namespace

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
        src->raw_val && src->raw_vlen ? copy_block(src->raw_val, src->raw_vlen) : nullptr;
    if (with_codec && src->codec_val && src->codec_vlen) {
        copy->codec_val = copy_block(src->codec_val, src->codec_vlen);
    } else {
        copy->codec_val = nullptr;
        copy->codec_vlen = 0;
    }
    bool texts_copied = copy_text(&copy->reqid) & copy_text(&copy->traceid) &
                        copy_text(&copy->path) & copy_text(&copy->name);
    if (!texts_copied) {
        release_fields(copy);
        free(copy);
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
    while (list) {
        obs_policy *next = list->next;
        release_fields(list);
        free(list);
        list = next;
    }
}

}  // extern "C"
