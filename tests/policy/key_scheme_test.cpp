#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "observability_api.h"

namespace {

// An output buffer prefilled with 'Z' as a call left it: "-" when untouched, else "[text]",
// followed by "!" when anything was written from byte size on.
std::string shown(const std::string &out, size_t size) {
    if (out.find_first_not_of('Z') == std::string::npos) return "-";
    const bool overrun = out.find_first_not_of('Z', std::min(size, out.size())) != out.npos;
    return "[" + std::string(out.c_str()) + "]" + (overrun ? "!" : "");
}

// Each call gets the outputs outs names; "*": the outputs are undefined.
TEST(KeySchemeTest, PathsGiveTheBracedNamesAndTheRestOrNothing) {
    // The closing brace as character 511 is the last one seen; one character more hides it.
    const std::string fits = std::string(508, 'a') + "{x}/tail";
    const std::string beyond = std::string(509, 'a') + "{x}/tail";
    // "scope{" + 240 + "}/" leaves 7 of the 255 characters after the service for the rest.
    const std::string scope_240(240, 's');
    const std::string long_scope = "/r/service{svc}/scope{" + scope_240 + "}/obs-monitor";
    // f: obs_path_to_channel_field_str, p: obs_parser_service_scope.
    const std::tuple<char, const char *, unsigned, const char *, std::string> cases[] = {
        {'f', "/x/service{abc}/uid", 256, "r", "0 [abc] - [uid]"},
        {'f', "/x/service{abc}/uid", 256, "", "0 [abc] - -"},
        {'f', "/x/service{abc}", 64, "r", "0 [abc] - []"},
        {'f', "/s{abcdef}/ghijk", 4, "r", "0 [abc] - [ghi]"},
        {'f', "/s{abc}/def", 0, "r", "0 - - -"},
        {'f', fits.c_str(), 256, "r", "0 [x] - []"},
        {'f', beyond.c_str(), 256, "r", "-1 - - -"},
        {'f', "/x/service/uid", 64, "r", "-1 - - -"},
        {'f', "/x/service{abc/uid", 64, "r", "-1 - - -"},
        {'f', "/x/}service{abc", 64, "r", "-1 - - -"},
        {'f', nullptr, 64, "r", "-1 - - -"},
        {'p', "/op/observability-policy-agent/service{svc}/scope{default}/obs", 256, "sr",
         "0 [svc] [default] [obs]"},
        {'p', "/r/service{service-name}/scope{scope-name}/sdk-name", 8, "sr",
         "0 [service] [scope-n] [sdk-nam]"},
        {'p', long_scope.c_str(), 300, "sr", "0 [svc] [" + scope_240 + "] [obs-mon]"},
        {'p', "/op/service{svc}/uid", 64, "r", "0 [svc] - -"},
        {'p', "/op/service{svc}/scope{default}", 64, "s", "0 [svc] [default] -"},
        {'p', "/op/service{svc}/scope{default}", 64, "sr", "-1 *"},
        {'p', "/op/scope{default}/obs", 64, "sr", "-1 - - -"},
        {'p', "/op/service{svc}/uid", 64, "sr", "-1 - - -"},
        {'p', "/op/x{a}/scope{c}/service{svc}/uid", 64, "sr", "-1 - - -"},
        {'p', nullptr, 64, "sr", "-1 - - -"},
    };
    for (const auto &[call, path, size, outs, expected] : cases) {
        SCOPED_TRACE(path ? path : "(null)");
        std::string field(300, 'Z'), scope = field, rest = field;
        char *scope_out = strchr(outs, 's') ? &scope[0] : nullptr;
        char *rest_out = strchr(outs, 'r') ? &rest[0] : nullptr;
        const int rc = call == 'f'
                           ? obs_path_to_channel_field_str(path, &field[0], rest_out, size)
                           : obs_parser_service_scope(path, &field[0], scope_out, rest_out, size);
        const std::string got = std::to_string(rc) + " " + shown(field, size) + " " +
                                shown(scope, size) + " " + shown(rest, size);
        EXPECT_EQ(expected.back() == '*' ? std::to_string(rc) + " *" : got, expected);
    }
    EXPECT_TRUE(obs_path_to_channel_field_str("/s{a}/b", nullptr, nullptr, 64) == -1 &&
                obs_parser_service_scope("/service{s}", nullptr, nullptr, nullptr, 64) == -1);
}

}  // namespace
