#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "observability_api.h"
#include "support/value_text.h"

namespace {

using obs_test::node;
using obs_test::pair;

std::string encode(const obs_any_value *head) {
    obs_sds sds = obs_any_value_encode(head);
    std::string text = sds ? sds : "<null>";
    obs_sdsfree(sds);
    return text;
}

// levels containers around one node: arrays, or kvlists each holding a list (two levels a step).
std::string nested(int levels, bool arrays = true) {
    std::string text = "{int 1 1}";
    for (int i = 0; i < levels; i += arrays ? 1 : 2)
        text = arrays ? node("array", "1 [" + text + "]")
                      : node("kvlist", "1 [" + pair("k", "[" + text + ",{int 1 2}]") + "]");
    return text;
}

class TextParserTest : public ::testing::Test {
  protected:
    void TearDown() override { obs_any_value_free(chain_); }

    // Decodes text from a heap block of exactly its size, so ASan catches any read past it. A
    // refusal must leave the output as it was.
    const char *decode(const std::string &text) {
        obs_any_value_free(chain_);
        block_.reset(new char[text.size() + 1]);
        memcpy(block_.get(), text.c_str(), text.size() + 1);
        obs_any_value *out = untouched();
        const char *last = obs_any_value_decode(block_.get(), 0, &out);
        if (!last) {
            EXPECT_EQ(out, untouched()) << text;
        }
        chain_ = last ? out : nullptr;
        return last;
    }
    bool accepts(const std::string &text) { return decode(text) != nullptr; }
    // The whole text is read (the value ends on its last character) into what encodes as encoded.
    void expect_read(const std::string &text, const std::string &encoded) {
        SCOPED_TRACE(text.substr(0, 100));
        const char *last = decode(text);
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(last, block_.get() + text.size() - 1);
        EXPECT_EQ(encode(chain_), encoded);
    }
    static obs_any_value *untouched() { return reinterpret_cast<obs_any_value *>(0x1); }

    obs_any_value *chain_ = nullptr;
    std::unique_ptr<char[]> block_;
};

TEST_F(TextParserTest, TextsReadAsTheirCanonicalEncodingUpToTheirLastCharacter) {
    std::string nine = "9 [{int 1 1}";
    for (char digit = '2'; digit <= '9'; ++digit) nine += std::string(",{int 1 ") + digit + "}";
    const std::string encoded =
        "[{int 2 -1},{str 6 \"a\"}b\"},{str 2 \"\"},{bool 5 false},{double 5 1e+25},"
        "{byte 6 00ff10},{kvlist 40 1 [{str 3 \"k\" 21 [{int 1 1},{int 1 2}]}]}," +
        node("array", nine + "]") + "]";
    expect_read(encoded, encoded);
    expect_read(
        "[{str 5 xabcx},{byte 4 0aFF},{bool 6 truely},{int 20 99999999999999999999},"
        "{double 3 2.5},,{int +1xyz 5},{},{kvlist 20 1 [{str 3 \"k\" 2 {}}]},]",
        "[{str 5 \"abc\"},{byte 4 0aff},{bool 4 true},{int 19 9223372036854775807},"
        "{double 8 2.500000},{int 1 5},{na 2 ff},"
        "{kvlist 27 1 [{str 3 \"k\" 9 {na 2 ff}}]}]");
    expect_read("[]", "<null>");
    const char *last = decode("{int 1 5}}xyz");  // what follows the value is not looked at
    EXPECT_EQ(last, block_.get() + 8);
    expect_read("{str 5 \"abc\"}", "{str 5 \"abc\"}");
    EXPECT_EQ(obs_any_value_get_vlen(chain_), 4u);
}

TEST_F(TextParserTest, RefusesMalformedTexts) {
    const std::string one = "{int 1 1}", entry = pair("k", one);
    const std::string refused[] = {
        // lengths below the minimum, bad payloads
        "{str 1 x}", "{str -1 x}", "{byte 0 }", "{byte 3 abc}", "{bool 3 tru}", "{bool 4 yes!}",
        "{bool 4 fals}", "{int 0 }", "{double 0 }", "{array 0 }", "{kvlist 0 }", "{array 3 0 []}",
        "{array 4 0 []}", "{kvlist 4 0 []}", "{int 99999999999999 5}", "{na 2 ff}",
        node("kvlist", "1 [" + pair("", "{}") + "]"), node("kvlist", "1 [{str 3 \"k\" 1 {}}]"),
        node("kvlist", "1 [" + pair("k", "x5") + "]"),
        // counts and lengths that do not match
        node("array", "2 [" + one + "," + one + "," + one + "]"),
        node("array", "3 [" + one + "," + one + "]"),
        node("kvlist", "2 [" + entry + "," + entry + "," + entry + "]"),
        node("kvlist", "3 [" + entry + "," + entry + "]"), node("array", "1 [" + one + "]", -1),
        node("array", "1 [" + one + "]", 1), node("kvlist", "1 [" + entry + "]", -1),
        node("kvlist", "1 [" + entry + "]", 1),
        // closing characters misplaced or missing, blanks, nothing
        "{int 1 5]", "{array 13 1 [{int 1 1}]]", "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}]]}",
        "{kvlist 27 1 [{str 3 \"k\" 9 xint 1 1}}]}", "{array 13 1 [[int 1 1]]}", " {int 1 5}",
        "{int  1 5}", "[{int 1 1} ]", "[{int 1 1}", "", "x"};
    for (const std::string &text : refused) EXPECT_FALSE(accepts(text)) << text;
    EXPECT_EQ(obs_any_value_decode(nullptr, 0, &chain_), nullptr);
}

TEST_F(TextParserTest, EveryTruncationIsRefused) {
    const std::string text =
        node("kvlist", "3 [" + pair("s", "{str 5 \"a}c\"}") + "," +
                           pair("list", "[{byte 4 0aff},{double 8 2.500000}]") + "," +
                           pair("a", nested(2)) + "]");
    expect_read(text, text);
    for (size_t n = 0; n < text.size(); ++n) EXPECT_FALSE(accepts(text.substr(0, n))) << n;
    // Headers that claim little leave the inner fields to find the end of the text themselves.
    const std::string entries = text.substr(text.find('[') + 1);
    for (size_t n = 0; n < entries.size(); ++n) {
        EXPECT_FALSE(accepts("{kvlist 4 1 [" + entries.substr(0, n))) << n;
        EXPECT_FALSE(accepts("{array 4 1 [" + entries.substr(entries.find("{byte"), n))) << n;
    }
}

TEST_F(TextParserTest, FieldsAreBoundedBy127CharactersAndNestingBy64Containers) {
    const std::string zeros(126, '0');
    expect_read(node("int", zeros + "7"), "{int 1 7}");
    expect_read(node("double", zeros + "5"), "{double 8 5.000000}");
    expect_read("{int " + zeros + "1 5}", "{int 1 5}");
    expect_read(nested(64), nested(64));
    expect_read(nested(64, false), nested(64, false));
    const std::string refused[] = {node("int", zeros + "07"),
                                   node("double", zeros + "05"),
                                   "{int " + zeros + "01 5}",
                                   nested(65),
                                   node("array", "1 [" + nested(64, false) + "]"),
                                   "[" + nested(64, false) + "]"};
    for (const std::string &text : refused) EXPECT_FALSE(accepts(text)) << text.size();
}

TEST_F(TextParserTest, StepsParseTheirOwnNodes) {
    obs_any_value array = {}, kvlist = {};
    const char *text = "{array 13 1 [{int 1 4}]}";
    EXPECT_EQ(obs_any_value_parser_array(text, 0, &array), text + 23);
    text = "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}}]}";
    EXPECT_EQ(obs_any_value_parser_kvlist(text, 0, &kvlist), text + 38);
    EXPECT_EQ(encode(&array) + encode(&kvlist), "{array 13 1 [{int 1 4}]}" + std::string(text));
    obs_any_value_free_generic(&array, 1);
    obs_any_value_free_generic(&kvlist, 1);
    obs_any_value_add_int(&chain_, 1);
    EXPECT_NE(obs_any_value_parser_list("[{int 1 2}]", 0, &chain_), nullptr);
    EXPECT_EQ(encode(chain_), "[{int 1 1},{int 1 2}]");
}

}  // namespace
