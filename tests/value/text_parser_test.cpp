#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/value_text.h"

namespace {

using namespace obs_test;

// Takes the chain over.
std::string encoded(obs_any_value *chain) {
    obs_sds sds = obs_any_value_encode(chain);
    std::string text = sds ? sds : "<null>";
    obs_sdsfree(sds);
    obs_any_value_free(chain);
    return text;
}

// "<offset of the value's last character> <encoding of the chain read>", or "refused" when the
// output was left as it was. The text lies in a heap block of its exact size, so that ASan
// catches any read past it.
std::string parsed(const std::string &text) {
    const std::vector<char> block(text.c_str(), text.c_str() + text.size() + 1);
    obs_any_value *const untouched = reinterpret_cast<obs_any_value *>(1), *out = untouched;
    const char *last = obs_any_value_decode(block.data(), 0, &out);
    if (!last) return out == untouched ? "refused" : "refused, output touched";
    return std::to_string(last - block.data()) + " " + encoded(out);
}

// levels containers around one node: arrays, or kvlists each holding a list (two levels a step).
std::string nested(int levels, bool arrays = true) {
    std::string text = "{int 1 1}";
    for (int i = 0; i < levels; i += arrays ? 1 : 2)
        text = arrays ? node("array", "1 [" + text + "]")
                      : node("kvlist", "1 [" + pair("k", "[" + text + ",{int 1 2}]") + "]");
    return text;
}

TEST(TextParserTest, TextsAreReadWholeAsTheirCanonicalEncodingAndEveryTruncationIsRefused) {
    std::string nine = "9 [{int 1 1}";
    for (char digit = '2'; digit <= '9'; ++digit) nine += std::string(",{int 1 ") + digit + "}";
    const std::string zeros(126, '0');  // fields of 127 characters, nesting of 64 containers
    const std::string pairs = "3 [" + pair("s", "{str 5 \"a}c\"}") + "," +
                              pair("list", "[{byte 4 0aff},{double 8 2.500000}]") + "," +
                              pair("a", nested(2)) + "]";
    // Texts and what they read as; an empty encoding when the text is canonical.
    const std::pair<std::string, std::string> cases[] = {
        {"[{int 2 -1},{str 6 \"a\"}b\"},{str 2 \"\"},{bool 5 false},{double 5 1e+25},"
         "{byte 6 00ff10},{kvlist 40 1 [{str 3 \"k\" 21 [{int 1 1},{int 1 2}]}]}," +
             node("array", nine + "]") + "]",
         ""},
        {"[{str 5 xabcx},{byte 4 0aFF},{bool 6 truely},{int 20 99999999999999999999},"
         "{double 3 2.5},,{int +1xyz 5},{},{kvlist 20 1 [{str 3 \"k\" 2 {}}]},]",
         "[{str 5 \"abc\"},{byte 4 0aff},{bool 4 true},{int 19 9223372036854775807},"
         "{double 8 2.500000},{int 1 5},{na 2 ff},{kvlist 27 1 [{str 3 \"k\" 9 {na 2 ff}}]}]"},
        {node("kvlist", pairs), ""},
        {node("int", zeros + "7"), "{int 1 7}"},
        {node("double", zeros + "5"), "{double 8 5.000000}"},
        {"{int " + zeros + "1 5}", "{int 1 5}"},
        {nested(64), ""},
        {nested(64, false), ""},
        {"{byte 30 /:@G`g\xff"
         "00123456789abcdefABCDEF}",
         "{byte 30 000000000123456789abcdefabcdef}"},
        {"[]", "<null>"}};
    for (const auto &[text, encoding] : cases) {
        SCOPED_TRACE(text.substr(0, 100));
        EXPECT_EQ(parsed(text),
                  std::to_string(text.size() - 1) + " " + (encoding.empty() ? text : encoding));
        for (size_t n = 0; n < text.size(); ++n)
            EXPECT_EQ(parsed(text.substr(0, n)), "refused") << n;
    }
    EXPECT_EQ(parsed("{int 1 5}}xyz"), "8 {int 1 5}");  // what follows the value is not looked at
    // Headers that claim little leave the inner fields to find the end of the text themselves.
    for (size_t n = 0; n + 3 < pairs.size(); ++n) {
        EXPECT_EQ(parsed("{kvlist 4 1 [" + pairs.substr(3, n)), "refused") << n;
        EXPECT_EQ(parsed("{array 4 1 [" + pairs.substr(pairs.find("{byte"), n)), "refused") << n;
    }
}

TEST(TextParserTest, MalformedTextsFieldsOver127CharactersAndNestingOver64AreRefused) {
    const std::string one = "{int 1 1}", two = one + "," + one, entry = pair("k", one),
                      entries = entry + "," + entry, zeros(126, '0');
    const std::string refused[] = {
        // lengths below the minimum, bad payloads
        "{str 1 x}", "{str -1 x}", "{byte 0 }", "{byte 3 abc}", "{bool 3 tru}", "{bool 4 yes!}",
        "{bool 4 fals}", "{int 0 }", "{double 0 }", "{array 0 }", "{kvlist 0 }", "{array 3 0 []}",
        "{array 4 0 []}", "{kvlist 4 0 []}", "{int 99999999999999 5}", "{na 2 ff}",
        node("kvlist", "1 [" + pair("", "{}") + "]"), node("kvlist", "1 [{str 3 \"k\" 1 {}}]"),
        node("kvlist", "1 [" + pair("k", "x5") + "]"),
        // counts and lengths that do not match
        node("array", "2 [" + two + "," + one + "]"), node("array", "3 [" + two + "]"),
        node("kvlist", "2 [" + entries + "," + entry + "]"), node("kvlist", "3 [" + entries + "]"),
        node("array", "1 [" + one + "]", -1), node("array", "1 [" + one + "]", 1),
        node("kvlist", "1 [" + entry + "]", -1), node("kvlist", "1 [" + entry + "]", 1),
        // closing characters misplaced or missing, blanks, nothing
        "{int 1 5]", "{array 13 1 [{int 1 1}]]", "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}]]}",
        "{kvlist 27 1 [{str 3 \"k\" 9 xint 1 1}}]}", "{array 13 1 [[int 1 1]]}", " {int 1 5}",
        "{int  1 5}", "[{int 1 1} ]", "[{int 1 1}", "", "x",
        // one character or one container too many
        node("int", zeros + "07"), node("double", zeros + "05"), "{int " + zeros + "01 5}",
        nested(65), node("array", "1 [" + nested(64, false) + "]"), "[" + nested(64, false) + "]"};
    for (const std::string &text : refused) EXPECT_EQ(parsed(text), "refused") << text;
}

TEST(TextParserTest, StepsParseTheirOwnNodesAndTheListStepAppends) {
    obs_any_value *chain = nullptr;
    EXPECT_EQ(obs_any_value_decode(nullptr, 0, &chain), nullptr);
    obs_any_value_add_int(&chain, 1);
    EXPECT_NE(obs_any_value_parser_list("[{int 1 2}]", 0, &chain), nullptr);
    for (const std::string text :
         {"{array 13 1 [{int 1 4}]}", "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}}]}"}) {
        auto *read = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
        const auto step = text[1] == 'a' ? obs_any_value_parser_array : obs_any_value_parser_kvlist;
        EXPECT_EQ(step(text.c_str(), 0, read) - text.c_str(), text.size() - 1);
        obs_any_value_add_list(&chain, read);
    }
    EXPECT_EQ(encoded(chain),
              "[{int 1 1},{int 1 2},{array 13 1 [{int 1 4}]},"
              "{kvlist 27 1 [{str 3 \"k\" 9 {int 1 1}}]}]");
}

}  // namespace
