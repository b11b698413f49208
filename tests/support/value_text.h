// Texts in the value format, built piece by piece: a node, an int, a str, one key-value pair, a
// list of items and a kvlist of pairs.
#ifndef OBS_TESTS_SUPPORT_VALUE_TEXT_H
#define OBS_TESTS_SUPPORT_VALUE_TEXT_H

#include <string>
#include <vector>

namespace obs_test {

// "{type length payload}", the length off by length_error.
inline std::string node(const std::string &type, const std::string &payload, int length_error = 0) {
    return "{" + type + " " + std::to_string(static_cast<int>(payload.size()) + length_error) +
           " " + payload + "}";
}
inline std::string integer(long long value) {
    return node("int", std::to_string(value));
}
inline std::string str(const std::string &text) {
    return node("str", "\"" + text + "\"");
}
inline std::string pair(const std::string &key, const std::string &value_text) {
    return "{str " + std::to_string(key.size() + 2) + " \"" + key + "\" " +
           std::to_string(value_text.size()) + " " + value_text + "}";
}
inline std::string joined(const std::vector<std::string> &items) {
    std::string text;
    for (const std::string &item : items) text += (text.empty() ? "" : ",") + item;
    return "[" + text + "]";
}
inline std::string kvlist(const std::vector<std::string> &pairs) {
    return node("kvlist", std::to_string(pairs.size()) + " " + joined(pairs));
}

}  // namespace obs_test

#endif
