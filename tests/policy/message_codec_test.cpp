#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <tuple>

#include "observability_api.h"
#include "support/log_capture.h"
#include "support/value_text.h"

namespace {

using namespace obs_test;

obs_policy *const kUntouched = reinterpret_cast<obs_policy *>(0x1);

std::vector<std::string> integer_pairs(int type, int op, int format, long long seq_id) {
    return {pair("type", integer(type)), pair("op", integer(op)), pair("format", integer(format)),
            pair("seq_id", integer(seq_id))};
}
// A message of format with value as both payloads after their length vlen ("": left out).
std::string with_payloads(int format, const std::string &vlen, const std::string &value) {
    std::vector<std::string> pairs = integer_pairs(1, 1, format, 0);
    for (std::string prefix : {"codec_", "raw_"}) {
        if (!vlen.empty()) pairs.push_back(pair(prefix + "vlen", vlen));
        if (!value.empty()) pairs.push_back(pair(prefix + "val", value));
    }
    return kvlist(pairs);
}

using MessageCodecTest = LogCaptureTest;

// The message, marked when *len does not count its terminator; checks the lines it logs.
std::string encode(const obs_policy &record) {
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&record, &text, &len);
    if (!text) return "<none>";
    const std::string result = text;
    free(text);
    const std::vector<std::string> logged = captured_lines();
    EXPECT_TRUE(logged.size() >= 2 && logged.end()[-2] == "encode to:" && logged.back() == result);
    return len == result.size() + 1 ? result : result + "<length mismatch>";
}
// Decodes from a heap block of exactly bytes (ASan sees reads past it); the record is encoded
// again. No record has a length without its payload, or a local field set.
std::string decode_bytes(const std::string &bytes) {
    clear_captured_lines();
    std::vector<char> block(bytes.begin(), bytes.end());
    obs_policy *r = kUntouched;
    obs_policy_internal_decode(block.data(), static_cast<uint32_t>(block.size()), &r);
    if (r == kUntouched || !r) return r ? "untouched" : "null";
    EXPECT_TRUE(!r->codec_val == !r->codec_vlen && !r->raw_val == !r->raw_vlen &&
                !r->dispatch_flags && !r->owner && !r->next);
    const std::string again = encode(*r);
    obs_policy_free(r);
    return again;
}
const auto decode = [](const std::string &text) { return decode_bytes(text + '\0'); };

// Entries go in field order, absent ones left out, payloads as text or bytes by the format;
// decoded, every transmitted field comes back and no other does.
TEST_F(MessageCodecTest, EveryFieldIsSentInOrderAndComesBack) {
    char reqid[] = "r", name[] = "n", path[] = "p", traceid[] = "t", codec[] = "a\"c",
         raw[] = "x\xff";
    auto *owner = reinterpret_cast<obs_policy_ctx *>(0x10);
    const uint32_t marks = OBS_POLICY_FLAG_CLAIMED;
    const std::tuple<uint8_t, uint64_t, uint32_t, std::string, std::string> cases[] = {
        {0x11, 42, 4, pair("codec_val", str("a\"c")), str("x\xff")},
        {0x22, UINT64_MAX, 3, pair("codec_val", node("byte", "612263")), node("byte", "78ff00")},
        // Zero bytes have no text the other end accepts: the payload is left out.
        {0x20, uint64_t{1} << 40, 0, "", str("x\xff")}};
    for (const auto &[format, seq_id, codec_vlen, codec_pair, raw_val] : cases) {
        SCOPED_TRACE(int(format));
        obs_policy record = {7,    3,     format, codec_vlen, 3,     seq_id,  marks,  path,
                             name, codec, raw,    owner,      reqid, traceid, nullptr};
        std::vector<std::string> pairs = {pair("reqid", str("r")), pair("name", str("n")),
                                          pair("path", str("p"))};
        for (const std::string &p : integer_pairs(7, 3, format, static_cast<long long>(seq_id)))
            pairs.push_back(p);
        for (const std::string &p :
             {pair("traceid", str("t")), pair("codec_vlen", integer(codec_vlen)), codec_pair,
              pair("raw_vlen", integer(3)), pair("raw_val", raw_val)})
            if (!p.empty()) pairs.push_back(p);
        const std::string sent = encode(record);
        EXPECT_EQ(sent, kvlist(pairs));
        if (!codec_vlen) pairs.erase(pairs.begin() + 8);  // a length 0 reads as no payload
        EXPECT_EQ(decode(sent), kvlist(pairs));
        // A translated codec is an entry chain of this process's memory: it never leaves.
        record.dispatch_flags |= OBS_POLICY_FLAG_TRANSLATED;
        EXPECT_EQ(encode(record).find("codec_"), std::string::npos);
    }
}

// Whatever a message holds, its record takes no payload its length does not back, no value of
// another type than its key's, and nothing twice (ASan) or lost (LeakSanitizer).
TEST_F(MessageCodecTest, HostileMessagesGiveNoRecordOrOnlyWhatTheyBack) {
    const std::string entries = kvlist(integer_pairs(9, 9, 9, 9));
    const std::string text = str("abc"), bytes = node("byte", "616263");
    const std::string as_text = with_payloads(0x11, "", ""), as_bytes = with_payloads(0x22, "", "");
    std::vector<std::pair<std::string, std::string>> cases = {
        {kvlist({pair("reqid", integer(1)), pair("name", node("bool", "true")),
                 pair("path", joined({str("a"), str("b")})), pair("traceid", entries),
                 pair("type", str("1")), pair("op", node("double", "1.000000")),
                 pair("format", node("byte", "10")), pair("seq_id", str("7")),
                 pair("codec_vlen", str("4")), pair("codec_val", str("abc")),
                 pair("raw_vlen", integer(2)), pair("raw_val", entries)}),
         kvlist(integer_pairs(0, 0, 0, 0))},
        {kvlist({pair("type", integer(5)), pair("type", integer(6)), pair("name", integer(3)),
                 pair("name", str("late"))}),
         kvlist(integer_pairs(5, 0, 0, 0))},
        {with_payloads(0x11, integer(1), text), "="},
        {with_payloads(0x11, integer(4), text), "="},
        {with_payloads(0x11, "", text), as_text},
        {with_payloads(0x11, integer(4), ""), as_text},
        {with_payloads(0x22, integer(3), bytes), "="},
        {with_payloads(0x22, integer(2), bytes), as_bytes},
        {with_payloads(0x22, integer(4), bytes), as_bytes},
        {with_payloads(0x11, integer(3), bytes), as_text},
        {with_payloads(0x22, integer(2), str("a")), as_bytes},
    };
    // Lengths beyond the text, or whose low 32 bits alone would pass.
    for (long long vlen : {5LL, 0LL, -1LL, -4294967293LL, 4294967295LL, 4294967299LL, LLONG_MIN})
        cases.push_back({with_payloads(0x11, integer(vlen), text), as_text});
    for (std::string not_kvlist :
         {text, node("array", "1 [{int 1 1}]"), integer(5), "[" + entries + "," + entries + "]",
          std::string("{}"), std::string("garbage"), std::string()})
        cases.push_back({not_kvlist, "untouched"});
    for (const auto &[message, expected] : cases) {
        SCOPED_TRACE(message);
        EXPECT_EQ(decode(message), expected == "=" ? message : expected);
        // The decoder logs the text, and a summary of a record before it is encoded again.
        EXPECT_EQ(captured_lines().size(), expected == "untouched" ? 2u : 5u);
    }
}

TEST_F(MessageCodecTest, NothingIsReadBeyondTheLengthOrTheFirstNul) {
    char *none = nullptr;
    uint32_t len = 5;
    obs_policy *out = kUntouched;
    obs_policy_internal_encode(nullptr, &none, &len);
    obs_policy_internal_decode("{}", 0, &out);
    obs_policy_internal_decode(nullptr, 200, &out);
    EXPECT_TRUE(!none && len == 5 && out == kUntouched && captured_lines().empty());
    const std::string text =
        kvlist({pair("reqid", str("r7")), pair("type", integer(2)), pair("op", integer(4)),
                pair("format", integer(0x20)), pair("seq_id", integer(77)),
                pair("codec_vlen", integer(2)), pair("codec_val", node("byte", "00ff"))});
    EXPECT_EQ(decode_bytes(text), text);
    EXPECT_EQ(unnumbered_lines(),
              (std::vector<std::string>{"decode from:", text,
                                        "obs_policy_internal_decode:N reqid=r7 path=NA "
                                        "policy=NA codec len=2 raw len=0",
                                        "encode to:", text}));
    EXPECT_EQ(decode_bytes(text + '\0' + "{junk"), text);
    EXPECT_EQ(captured_lines()[1], text);
    // Every cut of the message, terminated or not, is refused without a read past its end.
    for (size_t n = 1; n < text.size(); ++n) {
        EXPECT_EQ(decode_bytes(text.substr(0, n)), "untouched") << n;
        EXPECT_EQ(decode(text.substr(0, n)), "untouched") << n;
    }
}

}  // namespace
