#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "observability_api.h"

namespace {

std::string encode(const obs_any_value *head) {
    obs_sds sds = obs_any_value_encode(head);
    std::string text = sds ? sds : "<null>";
    obs_sdsfree(sds);
    return text;
}

std::string node(const std::string &name, const std::string &payload) {
    return "{" + name + " " + std::to_string(payload.size()) + " " + payload + "}";
}

std::string pair(const std::string &key, const std::string &value_text) {
    return "{str " + std::to_string(key.size() + 2) + " \"" + key + "\" " +
           std::to_string(value_text.size()) + " " + value_text + "}";
}

// A container text with its total length field off by delta.
std::string with_total(const std::string &name, const std::string &payload, int delta) {
    return "{" + name + " " + std::to_string(int(payload.size()) + delta) + " " + payload + "}";
}

std::string nested_arrays(int levels) {
    std::string text = "{int 1 1}";
    for (int i = 0; i < levels; ++i) text = node("array", "1 [" + text + "]");
    return text;
}

// Each step adds a kvlist and a list around the text: two levels.
std::string nested_pair_lists(int steps) {
    std::string text = "{int 1 1}";
    for (int i = 0; i < steps; ++i)
        text = node("kvlist", "1 [" + pair("k", "[" + text + "]") + "]");
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
    // A whole text is consumed when the value ends on its last character.
    bool consumes(const std::string &text) {
        const char *last = decode(text);
        return last && last == block_.get() + text.size() - 1;
    }
    static obs_any_value *untouched() { return reinterpret_cast<obs_any_value *>(0x1); }

    obs_any_value *chain_ = nullptr;
    std::unique_ptr<char[]> block_;
};

TEST_F(TextParserTest, EncodedTextsRoundTrip) {
    for (const char *text :
         {"{int 1 5}", "{int 2 -1}", "{str 5 \"abc\"}", "{str 6 \"a\"}b\"}", "{str 2 \"\"}",
          "{bool 4 true}", "{bool 5 false}", "{byte 6 00ff10}", "{double 8 0.000000}",
          "{double 5 1e+25}", "{array 27 2 [{int 1 1},{bool 4 true}]}",
          "[{int 1 7},{double 8 2.500000}]",
          "{kvlist 59 2 [{str 6 \"name\" 13 {str 5 \"abc\"}},{str 3 \"n\" 9 {int 1 5}}]}",
          "{kvlist 40 1 [{str 3 \"k\" 21 [{int 1 1},{int 1 2}]}]}"}) {
        ASSERT_TRUE(consumes(text)) << text;
        EXPECT_EQ(encode(chain_), text);
    }
    std::string nine = "9 [";
    for (int i = 0; i < 9; ++i) nine += std::string(i ? "," : "") + "{int 1 " + char('1' + i) + "}";
    const std::string array = node("array", nine + "]");
    ASSERT_TRUE(consumes(array));
    EXPECT_EQ(obs_any_value_get_vlen(chain_), 9u);
    EXPECT_EQ(encode(chain_), array);
}

TEST_F(TextParserTest, ScalarsTakeTheirValues) {
    ASSERT_TRUE(consumes("{str 5 xabcx}"));
    EXPECT_STREQ(obs_any_value_get_str(chain_), "abc");
    EXPECT_EQ(obs_any_value_get_vlen(chain_), 4u);
    ASSERT_TRUE(consumes("{byte 4 0aFF}"));
    EXPECT_EQ(obs_any_value_get_vlen(chain_), 2u);
    EXPECT_EQ(memcmp(obs_any_value_get_byte(chain_), "\x0a\xff", 2), 0);
    ASSERT_TRUE(consumes("{bool 6 truely}"));
    EXPECT_EQ(obs_any_value_get_bool(chain_), 1u);
    ASSERT_TRUE(consumes("{int 3 -42}"));
    EXPECT_EQ(obs_any_value_get_int(chain_), -42);
    ASSERT_TRUE(consumes("{int 20 99999999999999999999}"));
    EXPECT_EQ(obs_any_value_get_int(chain_), INT64_MAX);
    ASSERT_TRUE(consumes("{double 3 2.5}"));
    EXPECT_EQ(obs_any_value_get_double(chain_), 2.5);
    ASSERT_TRUE(consumes("{int +1xyz 5}")) << "length fields read like atoi";
    ASSERT_TRUE(consumes("{}"));
    EXPECT_EQ(obs_any_value_get_type(chain_), OBS_VALUE_NONE);
}

TEST_F(TextParserTest, RefusesLengthsBelowTheMinimumAndBadPayloads) {
    for (const std::string &text : std::initializer_list<std::string>{
             "{str 1 x}", "{str -1 x}", "{byte 0 }", "{byte 3 abc}", "{bool 3 tru}",
             "{bool 4 yes!}", "{bool 4 fals}", "{int 0 }", "{double 0 }", "{array 0 }",
             "{kvlist 0 }", "{array 3 0 []}", "{array 4 0 []}", "{kvlist 4 0 []}",
             "{int 99999999999999 5}", "{na 2 ff}", node("kvlist", "1 [" + pair("", "{}") + "]"),
             node("kvlist", "1 [{str 3 \"k\" 1 {}}]"),
             node("kvlist", "1 [" + pair("k", "x5") + "]")}) {
        EXPECT_FALSE(accepts(text)) << text;
    }
    EXPECT_FALSE(obs_any_value_decode(nullptr, 0, &chain_));
    EXPECT_TRUE(consumes(node("kvlist", "1 [" + pair("k", "{}") + "]")));
}

TEST_F(TextParserTest, RefusesCountAndLengthMismatches) {
    const std::string one = "{int 1 1}";
    const std::string entry = pair("k", one);
    for (const std::string &text : std::initializer_list<std::string>{
             node("array", "2 [" + one + "," + one + "," + one + "]"),
             node("array", "3 [" + one + "," + one + "]"),
             node("kvlist", "2 [" + entry + "," + entry + "," + entry + "]"),
             node("kvlist", "3 [" + entry + "," + entry + "]"),
             with_total("array", "1 [" + one + "]", -1), with_total("array", "1 [" + one + "]", 1),
             with_total("kvlist", "1 [" + entry + "]", -1),
             with_total("kvlist", "1 [" + entry + "]", 1), std::string("{int 1 5]"),
             "{array 13 1 [{int 1 1}]]", "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}]]}",
             "{kvlist 27 1 [{str 3 \"k\" 9 xint 1 1}}]}", "{array 13 1 [[int 1 1]]}"}) {
        EXPECT_FALSE(accepts(text)) << text;
    }
    EXPECT_TRUE(consumes(with_total("array", "1 [" + one + "]", 0)));
    EXPECT_TRUE(consumes(with_total("kvlist", "1 [" + entry + "]", 0)));
}

TEST_F(TextParserTest, ListsOnlySkipCommas) {
    ASSERT_TRUE(consumes("[{int 1 1},,{int 1 2},]"));
    EXPECT_EQ(encode(chain_), "[{int 1 1},{int 1 2}]");
    EXPECT_TRUE(consumes("[]"));
    EXPECT_EQ(chain_, nullptr);
    for (const char *text : {" {int 1 5}", "{int  1 5}", "[{int 1 1} ]", "[{int 1 1}", "", "x"}) {
        EXPECT_FALSE(accepts(text)) << text;
    }
}

TEST_F(TextParserTest, ReturnsTheLastCharacterAndIgnoresWhatFollows) {
    const char *last = decode("{int 1 5}}xyz");
    EXPECT_EQ(last, block_.get() + 8);
    last = decode("[{int 1 5}]]");
    EXPECT_EQ(last, block_.get() + 10);
}

TEST_F(TextParserTest, EveryTruncationIsRefused) {
    const std::string text =
        node("kvlist", "3 [" + pair("s", "{str 5 \"a}c\"}") + "," +
                           pair("list", "[{byte 4 0aff},{double 8 2.500000}]") + "," +
                           pair("a", nested_arrays(2)) + "]");
    ASSERT_TRUE(consumes(text));
    for (size_t n = 0; n < text.size(); ++n) EXPECT_FALSE(accepts(text.substr(0, n))) << n;
    // Headers that claim little leave the inner fields to find the end of the text themselves.
    const std::string entries = text.substr(text.find('[') + 1);
    for (size_t n = 0; n < entries.size(); ++n) {
        EXPECT_FALSE(accepts("{kvlist 4 1 [" + entries.substr(0, n))) << n;
        EXPECT_FALSE(accepts("{array 4 1 [" + entries.substr(entries.find("{byte"), n))) << n;
    }
}

TEST_F(TextParserTest, NumericFieldsAreBoundedBy127Characters) {
    const std::string digits126(126, '0');
    EXPECT_TRUE(consumes(node("int", digits126 + "7")));
    EXPECT_EQ(obs_any_value_get_int(chain_), 7);
    EXPECT_FALSE(accepts(node("int", digits126 + "07")));
    EXPECT_TRUE(consumes(node("double", digits126 + "5")));
    EXPECT_FALSE(accepts(node("double", digits126 + "05")));
    EXPECT_TRUE(consumes("{int " + digits126 + "1 5}"));
    EXPECT_FALSE(accepts("{int " + digits126 + "01 5}"));
}

TEST_F(TextParserTest, NestingIsBoundedAt64Containers) {
    EXPECT_TRUE(consumes(nested_arrays(64)));
    EXPECT_EQ(encode(chain_), nested_arrays(64));
    EXPECT_FALSE(accepts(nested_arrays(65)));
    EXPECT_TRUE(consumes(nested_pair_lists(32)));
    EXPECT_FALSE(accepts(node("array", "1 [" + nested_pair_lists(32) + "]")));
    EXPECT_FALSE(accepts("[" + nested_pair_lists(32) + "]"));
}

TEST_F(TextParserTest, StepsParseTheirOwnNodes) {
    obs_any_value array = {};
    const char *text = "{array 13 1 [{int 1 4}]}";
    EXPECT_EQ(obs_any_value_parser_array(text, 0, &array), text + 23);
    EXPECT_EQ(obs_any_value_get_int(obs_any_value_get_array(&array)), 4);
    obs_any_value_free_generic(&array, 1);
    obs_any_value kvlist = {};
    EXPECT_EQ(obs_any_value_parser_array("{kvlist 0 }", 0, &kvlist), nullptr);
    text = "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}}]}";
    EXPECT_EQ(obs_any_value_parser_kvlist(text, 0, &kvlist), text + 38);
    EXPECT_STREQ(obs_key_value_get_key(obs_any_value_get_kvlist(&kvlist)), "k");
    obs_any_value_free_generic(&kvlist, 1);
    obs_any_value_add_int(&chain_, 1);
    EXPECT_NE(obs_any_value_parser_list("[{int 1 2}]", 0, &chain_), nullptr);
    EXPECT_EQ(encode(chain_), "[{int 1 1},{int 1 2}]");
}

}  // namespace
