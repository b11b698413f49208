#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "observability_api.h"

namespace {

std::string node(const std::string &name, const std::string &payload) {
    return "{" + name + " " + std::to_string(payload.size()) + " " + payload + "}";
}
std::string str(const std::string &text) {
    return node("str", "\"" + text + "\"");
}
std::string integer(long long value) {
    return node("int", std::to_string(value));
}

std::string pair(const std::string &key, const std::string &value_text) {
    return "{str " + std::to_string(key.size() + 2) + " \"" + key + "\" " +
           std::to_string(value_text.size()) + " " + value_text + "}";
}

std::string message(const std::vector<std::string> &pairs) {
    std::string joined;
    for (const std::string &p : pairs) joined += (joined.empty() ? "" : ",") + p;
    return node("kvlist", std::to_string(pairs.size()) + " [" + joined + "]");
}

std::vector<std::string> integer_pairs(int type, int op, int format, long long seq_id) {
    return {pair("type", integer(type)), pair("op", integer(op)), pair("format", integer(format)),
            pair("seq_id", integer(seq_id))};
}

std::vector<std::string> &log_lines() {
    static std::vector<std::string> lines;
    return lines;
}

int capture_line(int, const char *line) {
    log_lines().push_back(line);
    return 0;
}

obs_policy *const kUntouched = reinterpret_cast<obs_policy *>(0x1);

class MessageCodecTest : public ::testing::Test {
  protected:
    void SetUp() override {
        log_lines().clear();
        obs_log_callback_set(capture_line);
    }
    void TearDown() override {
        obs_log_callback_set(nullptr);
        release();
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
        log_lines().clear();
        std::unique_ptr<char[]> block(new char[bytes.size()]);
        memcpy(block.get(), bytes.data(), bytes.size());
        obs_policy_internal_decode(block.get(), static_cast<uint32_t>(bytes.size()), &decoded_);
        return decoded_ == kUntouched ? nullptr : decoded_;
    }
    obs_policy *decode(const std::string &text) { return decode_bytes(text + '\0'); }
    obs_policy *decode(const std::vector<std::string> &pairs) { return decode(message(pairs)); }
    bool payloads_taken(const std::string &vlen, const std::string &value, int format);

    uint32_t len_ = 0;
    obs_policy *decoded_ = kUntouched;
};

class MessageEncodeTest : public MessageCodecTest {};
class MessageRoundTripTest : public MessageCodecTest {};
class MessageDecodeTest : public MessageCodecTest {};

obs_policy minimal_record() {
    obs_policy record = {};
    record.type = 1;
    record.op = 1;
    return record;
}

TEST_F(MessageEncodeTest, MinimalRecordEncodesToTheFourIntegerEntries) {
    const std::string expected =
        "{kvlist 113 4 [{str 6 \"type\" 9 {int 1 1}},{str 4 \"op\" 9 {int 1 1}},"
        "{str 8 \"format\" 9 {int 1 0}},{str 8 \"seq_id\" 9 {int 1 0}}]}";
    obs_policy record = minimal_record();
    EXPECT_EQ(encode(record), expected);
    EXPECT_EQ(expected.size(), 126u);
    EXPECT_EQ(len_, 127u);
    EXPECT_EQ(log_lines(), (std::vector<std::string>{"encode to:", expected}));
}

TEST_F(MessageEncodeTest, EntriesFollowTheFieldOrderAndPayloadsTheFormat) {
    char reqid[] = "r-1", name[] = "obs", path[] = "/p/obs", traceid[] = "t-9", codec[] = "abc";
    char raw[] = {'x', '\0', 'y'};
    obs_policy record = {};
    record.type = 7;
    record.op = 3;
    record.seq_id = 42;
    record.reqid = reqid;
    record.name = name;
    record.path = path;
    record.traceid = traceid;
    record.codec_val = codec;
    record.codec_vlen = 4;
    record.raw_val = raw;
    record.raw_vlen = 3;
    std::vector<std::string> head = {pair("reqid", str("r-1")), pair("name", str("obs")),
                                     pair("path", str("/p/obs"))};
    auto expected = [&](int format, const std::string &codec_val, const std::string &raw_val) {
        std::vector<std::string> pairs = head;
        for (const std::string &p : integer_pairs(7, 3, format, 42)) pairs.push_back(p);
        for (const std::string &p :
             {pair("traceid", str("t-9")), pair("codec_vlen", integer(record.codec_vlen)),
              pair("codec_val", codec_val), pair("raw_vlen", integer(3)), pair("raw_val", raw_val)})
            pairs.push_back(p);
        return message(pairs);
    };
    EXPECT_EQ(encode(record), expected(0, str("abc"), str("x")));
    record.format = OBS_POLICY_FORMAT_CODEC_BYTES | OBS_POLICY_FORMAT_RAW_BYTES;
    record.codec_vlen = 3;
    EXPECT_EQ(encode(record), expected(0x22, node("byte", "616263"), node("byte", "780079")));
}

TEST_F(MessageEncodeTest, NothingIsWrittenForNoRecord) {
    char *text = reinterpret_cast<char *>(0x1);
    uint32_t len = 5;
    obs_policy_internal_encode(nullptr, &text, &len);
    EXPECT_EQ(text, reinterpret_cast<char *>(0x1));
    EXPECT_EQ(len, 5u);
    EXPECT_TRUE(log_lines().empty());
}

// A zero-byte payload has no text the other end accepts; the rest of the record still arrives.
TEST_F(MessageRoundTripTest, EmptyBytePayloadIsLeftOut) {
    char codec[] = "abc";
    obs_policy record = minimal_record();
    record.format = OBS_POLICY_FORMAT_CODEC_BYTES;
    record.codec_val = codec;
    obs_policy *back = decode(encode(record));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->codec_val, nullptr);
    EXPECT_EQ(back->type, 1);
}

struct round_trip_case {
    uint8_t format;
    uint64_t seq_id;
    uint32_t codec_vlen;
    uint32_t raw_vlen;
};

TEST_F(MessageRoundTripTest, EveryTransmittedFieldRoundTrips) {
    char reqid[] = "req 1", name[] = "obs", path[] = "/kuv/opa/service{svc}/scope{default}/obs";
    char traceid[] = "00-abc-01", codec[] = "x\"y", raw[] = {'\0', 'a', '\xff', 'b'};
    for (round_trip_case c :
         {round_trip_case{0x11, UINT64_MAX, 4, 4}, round_trip_case{0x22, uint64_t{1} << 40, 3, 4},
          round_trip_case{0x10, 0, 2, 2}}) {
        obs_policy record = {};
        record.type = 0xAB;
        record.op = 5;
        record.format = c.format;
        record.codec_vlen = c.codec_vlen;
        record.raw_vlen = c.raw_vlen;
        record.seq_id = c.seq_id;
        record.dispatch_flags = OBS_POLICY_FLAG_TRANSLATED | 0x20;
        record.path = path;
        record.name = name;
        record.codec_val = codec;
        record.raw_val = c.format & OBS_POLICY_FORMAT_RAW_BYTES ? raw : name;
        record.owner = reinterpret_cast<obs_policy_ctx *>(0x10);
        record.reqid = reqid;
        record.traceid = traceid;
        obs_policy *back = decode(encode(record));
        ASSERT_NE(back, nullptr) << int(c.format);
        EXPECT_EQ(back->type, 0xAB);
        EXPECT_EQ(back->op, 5);
        EXPECT_EQ(back->format, c.format);
        EXPECT_EQ(back->seq_id, c.seq_id);
        EXPECT_EQ(back->dispatch_flags, 0u);
        EXPECT_STREQ(back->reqid, reqid);
        EXPECT_STREQ(back->name, name);
        EXPECT_STREQ(back->path, path);
        EXPECT_STREQ(back->traceid, traceid);
        EXPECT_EQ(back->codec_vlen, c.codec_vlen);
        EXPECT_EQ(back->raw_vlen, c.raw_vlen);
        ASSERT_NE(back->codec_val, nullptr);
        ASSERT_NE(back->raw_val, nullptr);
        EXPECT_EQ(memcmp(back->codec_val, codec, c.codec_vlen), 0);
        EXPECT_EQ(memcmp(back->raw_val, record.raw_val, c.raw_vlen), 0);
        EXPECT_EQ(back->owner, nullptr);
        EXPECT_EQ(back->next, nullptr);
    }
}

TEST_F(MessageDecodeTest, DecodingLogsTheMessageAndWhatItCarries) {
    std::vector<std::string> pairs = integer_pairs(1, 1, 0, 0);
    pairs.insert(pairs.begin(), pair("reqid", str("r7")));
    pairs.push_back(pair("raw_vlen", integer(3)));
    pairs.push_back(pair("raw_val", str("ok")));
    ASSERT_NE(decode(pairs), nullptr);
    ASSERT_EQ(log_lines().size(), 3u);
    EXPECT_EQ(log_lines()[0], "decode from:");
    EXPECT_EQ(log_lines()[1], message(pairs));
    EXPECT_TRUE(std::regex_match(
        log_lines()[2],
        std::regex("obs_policy_internal_decode:[0-9]+ reqid=r7 path=NA policy=NA codec len=0 raw "
                   "len=3")))
        << log_lines()[2];
}

TEST_F(MessageDecodeTest, OnlyAKvlistMessageMakesARecord) {
    std::string kvlist = message(integer_pairs(1, 1, 0, 0));
    for (const std::string &text :
         {str("abc"), node("array", "1 [{int 1 1}]"), integer(5), "[" + kvlist + "," + kvlist + "]",
          std::string("{}"), std::string("garbage"), std::string()}) {
        EXPECT_EQ(decode(text), nullptr) << text;
        EXPECT_EQ(decoded_, kUntouched);
        EXPECT_EQ(log_lines(), (std::vector<std::string>{"decode from:", text}));
    }
    log_lines().clear();
    obs_policy_internal_decode(kvlist.c_str(), 0, &decoded_);
    obs_policy_internal_decode(nullptr, 200, &decoded_);
    EXPECT_EQ(decoded_, kUntouched);
}

TEST_F(MessageDecodeTest, EntriesOfAnotherTypeAreIgnored) {
    std::string kvlist = message(integer_pairs(9, 9, 9, 9));
    obs_policy *record = decode(
        {pair("reqid", integer(1)), pair("name", node("bool", "true")),
         pair("path", "[" + str("a") + "," + str("b") + "]"), pair("traceid", kvlist),
         pair("type", str("1")), pair("op", node("double", "1.000000")),
         pair("format", node("byte", "10")), pair("seq_id", str("7")), pair("codec_vlen", str("4")),
         pair("codec_val", str("abc")), pair("raw_vlen", integer(2)), pair("raw_val", kvlist)});
    ASSERT_NE(record, nullptr);
    obs_policy zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(record, &zero, sizeof zero), 0);
}

// Whether a message carrying value as both payloads, each after the length entry vlen (none when
// empty), gives a record holding them. A payload left out must take its length with it.
bool MessageCodecTest::payloads_taken(const std::string &vlen, const std::string &value,
                                      int format) {
    std::vector<std::string> pairs = integer_pairs(1, 1, format, 0);
    for (std::string prefix : {"codec_", "raw_"}) {
        if (!vlen.empty()) pairs.push_back(pair(prefix + "vlen", vlen));
        if (!value.empty()) pairs.push_back(pair(prefix + "val", value));
    }
    obs_policy *record = decode(pairs);
    if (!record) return false;
    EXPECT_EQ(record->codec_val != nullptr, record->raw_val != nullptr);
    EXPECT_EQ(record->codec_val != nullptr, record->codec_vlen != 0);
    EXPECT_EQ(record->raw_val != nullptr, record->raw_vlen != 0);
    return record->codec_val && record->raw_val;
}

TEST_F(MessageDecodeTest, PayloadIsTakenOnlyWithALengthItCanBack) {
    const std::string text = str("abc"), bytes = node("byte", "616263");
    for (long long vlen : {1LL, 3LL, 4LL}) EXPECT_TRUE(payloads_taken(integer(vlen), text, 0x11));
    for (long long vlen : {5LL, 0LL, -1LL, -4294967293LL, 4294967295LL, 4294967299LL, LLONG_MIN})
        EXPECT_FALSE(payloads_taken(integer(vlen), text, 0x11)) << vlen;
    EXPECT_TRUE(payloads_taken(integer(3), bytes, 0x22));
    for (long long vlen : {2LL, 4LL}) EXPECT_FALSE(payloads_taken(integer(vlen), bytes, 0x22));
    EXPECT_FALSE(payloads_taken("", text, 0x11));
    EXPECT_FALSE(payloads_taken(integer(4), "", 0x11));
}

TEST_F(MessageDecodeTest, PayloadMustHaveTheTypeTheFormatGives) {
    EXPECT_FALSE(payloads_taken(integer(3), node("byte", "616263"), 0x11));
    EXPECT_FALSE(payloads_taken(integer(2), str("a"), 0x22));
    EXPECT_FALSE(payloads_taken(integer(2), "[" + str("a") + "," + str("b") + "]", 0x11));
    EXPECT_FALSE(
        payloads_taken(integer(2), node("kvlist", "1 [" + pair("a", str("b")) + "]"), 0x11));
}

TEST_F(MessageDecodeTest, FirstOfDuplicateKeysWins) {
    std::vector<std::string> pairs = integer_pairs(1, 1, 0, 0);
    for (const std::string &p : {pair("reqid", str("first")), pair("reqid", str("second")),
                                 pair("name", integer(3)), pair("name", str("late"))})
        pairs.push_back(p);
    obs_policy *record = decode(pairs);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->reqid, "first");
    EXPECT_EQ(record->name, nullptr);
}

TEST_F(MessageDecodeTest, BytesBeyondTheFirstNulAreNotRead) {
    std::string text = message(integer_pairs(3, 1, 0, 0));
    ASSERT_NE(decode_bytes(text + '\0' + "{junk"), nullptr);
    EXPECT_EQ(decoded_->type, 3);
    EXPECT_EQ(log_lines()[1], text);
}

TEST_F(MessageDecodeTest, MessageWithoutTerminatorIsReadWithinItsLength) {
    std::vector<std::string> pairs = integer_pairs(2, 4, 0x20, 77);
    pairs.push_back(pair("codec_vlen", integer(2)));
    pairs.push_back(pair("codec_val", node("byte", "00ff")));
    std::string text = message(pairs);
    ASSERT_NE(decode_bytes(text), nullptr);
    EXPECT_EQ(decoded_->seq_id, 77u);
    EXPECT_EQ(log_lines()[1], text);
    // Every cut of the message, terminated or not, is refused without a read past its end.
    for (size_t n = 1; n < text.size(); ++n) {
        EXPECT_EQ(decode_bytes(text.substr(0, n)), nullptr) << n;
        EXPECT_EQ(decode(text.substr(0, n)), nullptr) << n;
    }
}

}  // namespace
