#include <gtest/gtest.h>

#include <tuple>

#include "policy_builders.h"

namespace {

using namespace policy_ot_test;

const std::string kTwoEntries = joined({kRichEntry, kEverySampler});

using record_ptr = std::unique_ptr<obs_policy, decltype(&sdk_policy_ot_free)>;
// A received record: codec as codec value of vlen bytes (-1: with its terminator), raw "ok".
record_ptr received(uint8_t format, const std::string &codec, int vlen = -1) {
    const auto codec_vlen = static_cast<uint32_t>(vlen < 0 ? codec.size() + 1 : vlen);
    return record_ptr(on_heap(obs_policy{0, 0, format, codec_vlen, 3, 0, 0, strdup("/p/obs"),
                                         nullptr, strdup(codec.c_str()), strdup("ok"), nullptr,
                                         nullptr, nullptr, nullptr}),
                      sdk_policy_ot_free);
}
record_ptr translated(obs_policy *record) {
    return record_ptr(sdk_policy_ot_apply_translate(nullptr, "svc", record), sdk_policy_ot_free);
}
const auto entries = [](const obs_policy *r) { return static_cast<obs_policy_ot *>(r->codec_val); };
// The format and the codec value: "none", a marked chain's entries, anything else "bytes".
std::string codec_of(const obs_policy *r) {
    const bool marked = r->dispatch_flags & OBS_POLICY_FLAG_TRANSLATED;
    const std::string format = std::to_string(r->format) + " ";
    if (!r->codec_val && !r->codec_vlen && !marked) return format + "none";
    return format +
           (marked && r->codec_vlen == sizeof(obs_policy_ot) ? encode(entries(r)) : "bytes");
}

// The copy holds the entries of a codec text the format announces; the record stays as it was.
TEST(TranslateTest, CodecTextBecomesAMarkedEntryChainInACopy) {
    const std::tuple<uint8_t, std::string, int, std::string> cases[] = {
        {0x11, kTwoEntries, -1, "33 " + kTwoEntries},
        {0xdf, kDefaultAllOn, -1, "47 " + kDefaultAllOn},
        {OBS_POLICY_FORMAT_RAW, kDefaultAllOn, -1, "1 none"},
        {OBS_POLICY_FORMAT_CODEC_TEXT, kDefaultAllOn, 0, "16 none"},
        {0x11, "{int 1 5}", -1, "33 none"},
    };
    for (const auto &[format, codec, vlen, expected] : cases) {
        SCOPED_TRACE(codec);
        record_ptr record = received(format, codec, vlen), copy = translated(record.get());
        EXPECT_EQ(codec_of(copy.get()), expected);
        EXPECT_STREQ(copy->path, record->path);
        EXPECT_EQ(record->format, format);
    }
    EXPECT_EQ(translated(nullptr), nullptr);
}

// Each copy owns a marked chain of its own (ASan sees one shared). Only the mark makes a chain:
// a forged record's bytes of an entry's size, freed as pointers, would crash.
TEST(TranslateTest, CopiesOfTranslatedRecordsGetSeparateMarkedEntryChains) {
    record_ptr source = received(0x11, kTwoEntries), list = translated(source.get());
    obs_policy *forged = received(0x20, std::string(sizeof(obs_policy_ot) - 1, '\xa5')).release();
    forged->dispatch_flags = ~OBS_POLICY_FLAG_TRANSLATED;
    list->next = translated(source.get()).release();
    list->next->next = forged;
    for (int only_first : {0, 1}) {
        record_ptr copies(sdk_policy_ot_clone(list.get(), only_first), sdk_policy_ot_free);
        ASSERT_EQ(length_of(copies.get()), only_first ? 1u : 3u);
        const obs_policy *src = list.get();
        for (obs_policy *copy = copies.get(); copy; copy = copy->next, src = src->next) {
            EXPECT_EQ(codec_of(copy), src == forged ? "32 none" : "33 " + kTwoEntries);
            EXPECT_EQ(copy->dispatch_flags, src->dispatch_flags);
        }
    }
    EXPECT_EQ(sdk_policy_ot_clone(nullptr, 0), nullptr);
}

}  // namespace
