#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "observability_api.h"
#include "policy/key_path.h"
#include "support/log_capture.h"

namespace {

using KeySchemeTest = obs_test::LogCaptureTest;

// An output the call may or may not have written; its content is not checked.
const char *const kAnything = "<anything>";

// Output buffers prefilled with a sentinel, so bytes a call must not write stay visible.
struct outputs {
    static constexpr size_t kSize = 300;
    char field[kSize], scope[kSize], rest[kSize];
    outputs() {
        for (char *buffer : {field, scope, rest}) memset(buffer, 'Z', kSize);
    }
};

// Null expected: the call wrote nothing to out. Otherwise out holds expected and nothing was
// written from byte size on.
void expect_output(const char *out, const char *expected, size_t size) {
    if (expected == kAnything) return;
    size_t from = expected ? std::min(size, outputs::kSize) : 0;
    EXPECT_STREQ(expected, expected ? out : nullptr);
    EXPECT_EQ(std::string(outputs::kSize - from, 'Z'),
              std::string(out + from, outputs::kSize - from));
}

TEST_F(KeySchemeTest, ValidNameRejectsNullEmptyAndBracesWithOneLineEach) {
    for (const char *name : {"*", "default", "obs-monitor"}) EXPECT_EQ(1, obs_valid_name(name));
    EXPECT_TRUE(lines().empty());
    for (const char *name : {static_cast<const char *>(nullptr), "", "{", "}", "svc{1", "svc}"}) {
        obs_test::clear_captured_lines();
        EXPECT_EQ(0, obs_valid_name(name));
        EXPECT_EQ(std::vector<std::string>{"invalid name, '{', '}' not allowed"}, lines());
    }
}

TEST_F(KeySchemeTest, PathToChannelFieldTakesTheFirstBracedNameAndWhatFollows) {
    // The closing brace as character 511 is the last one seen; one character more hides it.
    const std::string fits = std::string(508, 'a') + "{x}/tail";
    const std::string beyond = std::string(509, 'a') + "{x}/tail";
    const struct {
        const char *path;
        unsigned size;
        bool with_rest;
        int rc;
        const char *field, *rest;
    } cases[] = {
        {"/x/service{abc}/uid", 256, true, 0, "abc", "uid"},
        {"/x/service{abc}/uid", 256, false, 0, "abc", nullptr},
        {"/x/service{abc}", 64, true, 0, "abc", ""},
        {"/s{abcdef}/ghijk", 4, true, 0, "abc", "ghi"},
        {"/s{abc}/def", 0, true, 0, nullptr, nullptr},
        {fits.c_str(), 256, true, 0, "x", ""},
        {beyond.c_str(), 256, true, -1, nullptr, nullptr},
        {"/x/service/uid", 64, true, -1, nullptr, nullptr},
        {"/x/service{abc/uid", 64, true, -1, nullptr, nullptr},
        {"/x/}service{abc", 64, true, -1, nullptr, nullptr},
        {nullptr, 64, true, -1, nullptr, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path ? c.path : "(null)");
        outputs out;
        EXPECT_EQ(c.rc, obs_path_to_channel_field_str(c.path, out.field,
                                                      c.with_rest ? out.rest : nullptr, c.size));
        expect_output(out.field, c.field, c.size);
        expect_output(out.rest, c.rest, c.size);
    }
    EXPECT_EQ(-1, obs_path_to_channel_field_str("/x/s{abc}/uid", nullptr, nullptr, 64));
}

TEST_F(KeySchemeTest, ParserServiceScopeNeedsEachPartItIsAskedFor) {
    // "scope{" + 240 + "}/" leaves 7 of the 255 characters after the service for the rest.
    const std::string long_scope =
        "/r/service{svc}/scope{" + std::string(240, 's') + "}/obs-monitor";
    const std::string scope_240(240, 's');
    const struct {
        const char *path;
        unsigned size;
        bool with_scope, with_rest;
        int rc;
        const char *service, *scope, *rest;
    } cases[] = {
        {"/op/observability-policy-agent/service{svc}/scope{default}/obs", 256, true, true, 0,
         "svc", "default", "obs"},
        {"/r/service{service-name}/scope{scope-name}/sdk-name", 8, true, true, 0, "service",
         "scope-n", "sdk-nam"},
        {long_scope.c_str(), 300, true, true, 0, "svc", scope_240.c_str(), "obs-mon"},
        {"/op/service{svc}/uid", 64, false, true, 0, "svc", nullptr, nullptr},
        {"/op/service{svc}/scope{default}", 64, true, false, 0, "svc", "default", nullptr},
        {"/op/service{svc}/scope{default}", 64, true, true, -1, kAnything, kAnything, kAnything},
        {"/op/scope{default}/obs", 64, true, true, -1, nullptr, nullptr, nullptr},
        {"/op/service{svc}/uid", 64, true, true, -1, nullptr, nullptr, nullptr},
        {"/op/x{a}/scope{c}/service{svc}/uid", 64, true, true, -1, nullptr, nullptr, nullptr},
        {nullptr, 64, true, true, -1, nullptr, nullptr, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path ? c.path : "(null)");
        outputs out;
        EXPECT_EQ(c.rc,
                  obs_parser_service_scope(c.path, out.field, c.with_scope ? out.scope : nullptr,
                                           c.with_rest ? out.rest : nullptr, c.size));
        expect_output(out.field, c.service, c.size);
        expect_output(out.scope, c.scope, c.size);
        expect_output(out.rest, c.rest, c.size);
    }
    EXPECT_EQ(
        -1, obs_parser_service_scope("/op/service{s}/scope{d}/obs", nullptr, nullptr, nullptr, 64));
}

// The key-path builder is internal; these check the texts every caller gets from it.
TEST(KeyPathTest, EachTemplateGivesItsExactText) {
    const std::string root = "/op/observability-policy-agent/";
    const std::pair<std::string, std::string> cases[] = {
        {obs::service_index_key().text, root + "service_keys"},
        {obs::service_uid_key("svc").text, root + "service{svc}/uid"},
        {obs::sdk_version_key("svc", "obs").text, root + "service{svc}/policysdk{obs}/version"},
        {obs::sdk_index_key("svc").text, root + "service{svc}/policysdk_keys"},
        {obs::scope_name_key("svc", "opa").text, root + "service{svc}/scope{opa}/name"},
        {obs::scope_index_key("svc").text, root + "service{svc}/scope_keys"},
        {obs::scope_index_key<obs::scope_index_path>("svc").text, root + "service{svc}/scope_keys"},
        {obs::policy_key("svc", "*", "obs").text, root + "service{svc}/scope{*}/obs"},
        {obs::report_key("svc").text, root + "service{svc}/report"},
        {obs::record_path("/kuv/opa", "svc", "default", "obs").text,
         "/kuv/opa/service{svc}/scope{default}/obs"},
        {obs::record_path_from_prefix("/kuv/opa/service", "svc", "default", "obs").text,
         "/kuv/opa/service{svc}/scope{default}/obs"},
    };
    for (const auto &c : cases) EXPECT_EQ(c.second, c.first);
}

TEST(KeyPathTest, LongNamesAreCutAtTheBufferSizeMinusOne) {
    const std::string name(600, 'n');
    const std::string key = "/op/observability-policy-agent/service{" + name + "}/scope_keys";
    EXPECT_EQ(key.substr(0, 511), obs::scope_index_key(name.c_str()).text);
    EXPECT_EQ(key.substr(0, 255), obs::scope_index_key<obs::scope_index_path>(name.c_str()).text);
}

}  // namespace
