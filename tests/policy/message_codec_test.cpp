#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/value_text.h"

namespace {

using obs_test::integer;
using obs_test::node;
using obs_test::pair;
using obs_test::str;
const auto message = obs_test::kvlist;
std::vector<std::string> integer_pairs(int type, int op, int format, long long seq_id) {
    return {pair("type", integer(type)), pair("op", integer(op)), pair("format", integer(format)),
            pair("seq_id", integer(seq_id))};
}
// A message of format carrying value as both payloads, each after the length entry vlen; an
// empty text leaves that entry out.
std::string with_payloads(int format, const std::string &vlen, const std::string &value) {
    std::vector<std::string> pairs = integer_pairs(1, 1, format, 0);
    for (std::string prefix : {"codec_", "raw_"}) {
        if (!vlen.empty()) pairs.push_back(pair(prefix + "vlen", vlen));
        if (!value.empty()) pairs.push_back(pair(prefix + "val", value));
    }
    return message(pairs);
}

// The record in one line: texts only when present; a payload shows its length, "-" when it is
// absent with length 0.
std::string describe(const obs_policy *r) {
    if (!r) return "no record";
    auto payload = [](const void *p, uint32_t n) {
        return p && n ? std::to_string(n) : !p && !n ? "-" : "broken " + std::to_string(n);
    };
    char line[64];
    snprintf(line, sizeof line, "t%d o%d f%#x s%llu", r->type, r->op, r->format,
             static_cast<unsigned long long>(r->seq_id));
    std::string text = line;
    for (auto field : {std::make_pair(" reqid:", r->reqid), std::make_pair(" name:", r->name),
                       std::make_pair(" path:", r->path), std::make_pair(" traceid:", r->traceid)})
        if (field.second) text += field.first + std::string(field.second);
    return text + " codec:" + payload(r->codec_val, r->codec_vlen) +
           " raw:" + payload(r->raw_val, r->raw_vlen);
}

obs_policy *const kUntouched = reinterpret_cast<obs_policy *>(0x1);

class MessageCodecTest : public obs_test::LogCaptureTest {
  protected:
    void TearDown() override {
        release();
        LogCaptureTest::TearDown();
    }
    void release() {
        if (decoded_ != kUntouched) obs_policy_free(decoded_);
        decoded_ = kUntouched;
    }
    std::string encode(const obs_policy &record) {
        char *text = nullptr;
        len_ = 0;
        obs_policy_internal_encode(&record, &text, &len_);
        std::string result = text ? text : "<none>";
        free(text);
        return result;
    }
    // Decodes from a heap block of exactly the bytes given, so ASan catches any read past them.
    obs_policy *decode_bytes(const std::string &bytes) {
        release();
        obs_test::clear_captured_lines();
        std::vector<char> block(bytes.begin(), bytes.end());
        obs_policy_internal_decode(block.data(), static_cast<uint32_t>(block.size()), &decoded_);
        return decoded_ == kUntouched ? nullptr : decoded_;
    }
    obs_policy *decode(const std::string &text) { return decode_bytes(text + '\0'); }

    uint32_t len_ = 0;
    obs_policy *decoded_ = kUntouched;
};

TEST_F(MessageCodecTest, MinimalRecordEncodesToTheFourIntegerEntries) {
    const std::string expected =
        "{kvlist 113 4 [{str 6 \"type\" 9 {int 1 1}},{str 4 \"op\" 9 {int 1 1}},"
        "{str 8 \"format\" 9 {int 1 0}},{str 8 \"seq_id\" 9 {int 1 0}}]}";
    obs_policy record = {};
    record.type = 1;
    record.op = 1;
    EXPECT_EQ(encode(record), expected);
    EXPECT_EQ(expected.size(), 126u);
    EXPECT_EQ(len_, 127u);
    EXPECT_EQ(lines(), (std::vector<std::string>{"encode to:", expected}));
}

// Entries go in field order with payloads as text or bytes by the format; decoded, every
// transmitted field comes back and no other does.
TEST_F(MessageCodecTest, EveryFieldIsSentInOrderAndComesBack) {
    char reqid[] = "r-1", name[] = "obs", path[] = "/p/obs", traceid[] = "t-9", codec[] = "a\"c";
    char raw[] = "x\xff";
    auto *owner = reinterpret_cast<obs_policy_ctx *>(0x10);
    const uint32_t marks = OBS_POLICY_FLAG_CLAIMED;
    const struct {
        uint8_t format;
        uint64_t seq_id;
        uint32_t codec_vlen;
        std::string codec_val, raw_val;
    } cases[] = {{0x11, 42, 4, str("a\"c"), str("x\xff")},
                 {0x22, UINT64_MAX, 3, node("byte", "612263"), node("byte", "78ff00")},
                 // Zero bytes have no text the other end accepts: the payload is left out.
                 {0x20, uint64_t{1} << 40, 0, "", str("x\xff")}};
    for (const auto &c : cases) {
        SCOPED_TRACE(int(c.format));
        obs_policy record = {7,    3,     c.format, c.codec_vlen, 3,     c.seq_id, marks,  path,
                             name, codec, raw,      owner,        reqid, traceid,  nullptr};
        std::vector<std::string> pairs = {pair("reqid", str("r-1")), pair("name", str("obs")),
                                          pair("path", str("/p/obs"))};
        for (const std::string &p : integer_pairs(7, 3, c.format, static_cast<long long>(c.seq_id)))
            pairs.push_back(p);
        pairs.push_back(pair("traceid", str("t-9")));
        pairs.push_back(pair("codec_vlen", integer(c.codec_vlen)));
        if (c.codec_vlen) pairs.push_back(pair("codec_val", c.codec_val));
        pairs.push_back(pair("raw_vlen", integer(3)));
        pairs.push_back(pair("raw_val", c.raw_val));
        EXPECT_EQ(encode(record), message(pairs));
        obs_policy *back = decode(encode(record));
        ASSERT_NE(back, nullptr);
        if (!c.codec_vlen) record.codec_val = nullptr;
        EXPECT_EQ(describe(back), describe(&record));
        EXPECT_EQ(0, memcmp(back->codec_val ? back->codec_val : codec, codec, c.codec_vlen));
        EXPECT_EQ(0, memcmp(back->raw_val, raw, 3));
        EXPECT_EQ(back->dispatch_flags, 0u);
        EXPECT_EQ(back->owner, nullptr);
    }
}

// Messages come from other processes: whatever they hold, the record holds no payload without a
// length backed by it, no value of a type the message format does not give its key, and nothing
// twice (ASan) or lost (LeakSanitizer).
TEST_F(MessageCodecTest, HostileMessagesGiveNoRecordOrOnlyWhatTheyBack) {
    const std::string kvlist = message(integer_pairs(9, 9, 9, 9));
    const std::string text = str("abc"), bytes = node("byte", "616263");
    const std::string array = "[" + str("a") + "," + str("b") + "]", none = "codec:- raw:-";
    const std::string as_text = "t1 o1 f0x11 s0 ", as_bytes = "t1 o1 f0x22 s0 ";
    std::vector<std::pair<std::string, std::string>> cases = {
        {message({pair("reqid", integer(1)), pair("name", node("bool", "true")),
                  pair("path", array), pair("traceid", kvlist), pair("type", str("1")),
                  pair("op", node("double", "1.000000")), pair("format", node("byte", "10")),
                  pair("seq_id", str("7")), pair("codec_vlen", str("4")),
                  pair("codec_val", str("abc")), pair("raw_vlen", integer(2)),
                  pair("raw_val", kvlist)}),
         "t0 o0 f0 s0 " + none},
        {message({pair("reqid", str("first")), pair("reqid", str("second")),
                  pair("name", integer(3)), pair("name", str("late"))}),
         "t0 o0 f0 s0 reqid:first " + none},
        {with_payloads(0x11, integer(1), text), as_text + "codec:1 raw:1"},
        {with_payloads(0x11, integer(4), text), as_text + "codec:4 raw:4"},
        {with_payloads(0x11, "", text), as_text + none},
        {with_payloads(0x11, integer(4), ""), as_text + none},
        {with_payloads(0x22, integer(3), bytes), as_bytes + "codec:3 raw:3"},
        {with_payloads(0x22, integer(2), bytes), as_bytes + none},
        {with_payloads(0x22, integer(4), bytes), as_bytes + none},
        {with_payloads(0x11, integer(3), bytes), as_text + none},
        {with_payloads(0x22, integer(2), str("a")), as_bytes + none},
        {with_payloads(0x11, integer(2), array), as_text + none},
        {with_payloads(0x11, integer(2), node("kvlist", "1 [" + pair("a", str("b")) + "]")),
         as_text + none},
    };
    // Lengths beyond the text, or whose low 32 bits alone would pass.
    for (long long vlen : {5LL, 0LL, -1LL, -4294967293LL, 4294967295LL, 4294967299LL, LLONG_MIN})
        cases.push_back({with_payloads(0x11, integer(vlen), text), as_text + none});
    for (std::string not_kvlist :
         {text, node("array", "1 [{int 1 1}]"), integer(5), "[" + kvlist + "," + kvlist + "]",
          std::string("{}"), std::string("garbage"), std::string()})
        cases.push_back({not_kvlist, "no record"});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        EXPECT_EQ(describe(decode(c.first)), c.second);
        ASSERT_EQ(lines().size(), decoded_ == kUntouched ? 2u : 3u);
        EXPECT_EQ(lines()[0], "decode from:");
        EXPECT_EQ(lines()[1], c.first);
    }
}

TEST_F(MessageCodecTest, NothingIsReadBeyondTheLengthOrTheFirstNul) {
    std::vector<std::string> pairs = integer_pairs(2, 4, 0x20, 77);
    pairs.insert(pairs.begin(), pair("reqid", str("r7")));
    pairs.push_back(pair("codec_vlen", integer(2)));
    pairs.push_back(pair("codec_val", node("byte", "00ff")));
    const std::string text = message(pairs);
    EXPECT_EQ(describe(decode_bytes(text)), "t2 o4 f0x20 s77 reqid:r7 codec:2 raw:-");
    ASSERT_EQ(lines().size(), 3u);
    EXPECT_EQ(lines()[1], text);
    EXPECT_TRUE(
        std::regex_match(lines()[2], std::regex("obs_policy_internal_decode:[0-9]+ reqid=r7 "
                                                "path=NA policy=NA codec len=2 raw len=0")))
        << lines()[2];
    EXPECT_EQ(decode_bytes(text + '\0' + "{junk")->seq_id, 77u);
    EXPECT_EQ(lines()[1], text);
    // Every cut of the message, terminated or not, is refused without a read past its end.
    for (size_t n = 1; n < text.size(); ++n) {
        EXPECT_EQ(decode_bytes(text.substr(0, n)), nullptr) << n;
        EXPECT_EQ(decode(text.substr(0, n)), nullptr) << n;
    }
}

TEST_F(MessageCodecTest, NullArgumentsTouchNothing) {
    char *text = nullptr;
    uint32_t len = 5;
    obs_policy_internal_encode(nullptr, &text, &len);
    EXPECT_TRUE(text == nullptr && len == 5 && lines().empty());
    obs_policy_internal_decode("{}", 0, &decoded_);
    obs_policy_internal_decode(nullptr, 200, &decoded_);
    EXPECT_EQ(decoded_, kUntouched);
}

}  // namespace
