#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "observability_api.h"
#include "policy/key_path.h"

namespace {

const char *const kInvalidNameLine = "invalid name, '{', '}' not allowed";

std::vector<std::string> log_lines;

int capture_line(int, const char *line) {
    log_lines.emplace_back(line);
    return 0;
}

class KeySchemeTest : public testing::Test {
  protected:
    void SetUp() override {
        log_lines.clear();
        obs_log_callback_set(capture_line);
    }
    void TearDown() override { obs_log_callback_set(nullptr); }
};

// Output buffers prefilled with a sentinel, so untouched bytes stay visible.
struct outputs {
    char field[64];
    char scope[64];
    char rest[64];
    outputs() {
        memset(field, 'Z', sizeof field);
        memset(scope, 'Z', sizeof scope);
        memset(rest, 'Z', sizeof rest);
    }
};

bool untouched(const char *buffer, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
        if (buffer[i] != 'Z') return false;
    }
    return true;
}

using ValidNameTest = KeySchemeTest;

TEST_F(ValidNameTest, RejectsNullEmptyAndBracedNamesWithOneLineEach) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "{", "}", "svc{1", "svc}"}) {
        log_lines.clear();
        EXPECT_EQ(0, obs_valid_name(name)) << (name ? name : "(null)");
        EXPECT_EQ(std::vector<std::string>{kInvalidNameLine}, log_lines);
    }
}

TEST_F(ValidNameTest, AcceptsWildcardAndPlainNamesSilently) {
    for (const char *name : {"*", "default", "obs-monitor"}) {
        EXPECT_EQ(1, obs_valid_name(name)) << name;
    }
    EXPECT_TRUE(log_lines.empty());
}

using PathToFieldTest = KeySchemeTest;

TEST_F(PathToFieldTest, TakesFieldAndRestAfterTheClosingBrace) {
    char field[256] = {}, rest[256] = {};
    EXPECT_EQ(0, obs_path_to_channel_field_str("/x/service{abc}/uid", field, rest, 256));
    EXPECT_STREQ("abc", field);
    EXPECT_STREQ("uid", rest);
}

TEST_F(PathToFieldTest, NullRestGivesOnlyTheField) {
    char field[256] = {};
    EXPECT_EQ(0, obs_path_to_channel_field_str("/x/service{abc}/uid", field, nullptr, 256));
    EXPECT_STREQ("abc", field);
}

TEST_F(PathToFieldTest, BraceEndingThePathGivesEmptyRest) {
    outputs out;
    EXPECT_EQ(0, obs_path_to_channel_field_str("/x/service{abc}", out.field, out.rest, 64));
    EXPECT_STREQ("abc", out.field);
    EXPECT_STREQ("", out.rest);
    EXPECT_TRUE(untouched(out.rest, 1, sizeof out.rest));
}

TEST_F(PathToFieldTest, FailureLeavesOutputsUntouched) {
    outputs out;
    EXPECT_EQ(-1, obs_path_to_channel_field_str("/x/service/uid", out.field, out.rest, 64));
    EXPECT_EQ(-1, obs_path_to_channel_field_str("/x/service{abc/uid", out.field, out.rest, 64));
    EXPECT_EQ(-1, obs_path_to_channel_field_str("/x/}service{abc", out.field, out.rest, 64));
    EXPECT_EQ(-1, obs_path_to_channel_field_str(nullptr, out.field, out.rest, 64));
    EXPECT_EQ(-1, obs_path_to_channel_field_str("/x/service{abc}/uid", nullptr, out.rest, 64));
    EXPECT_TRUE(untouched(out.field, 0, sizeof out.field));
    EXPECT_TRUE(untouched(out.rest, 0, sizeof out.rest));
}

TEST_F(PathToFieldTest, CutsEachOutputAtSizeMinusOne) {
    outputs out;
    EXPECT_EQ(0, obs_path_to_channel_field_str("/s{abcdef}/ghijk", out.field, out.rest, 4));
    EXPECT_STREQ("abc", out.field);
    EXPECT_STREQ("ghi", out.rest);
    EXPECT_TRUE(untouched(out.field, 4, sizeof out.field));
    EXPECT_TRUE(untouched(out.rest, 4, sizeof out.rest));
}

TEST_F(PathToFieldTest, SizeZeroWritesNothing) {
    outputs out;
    EXPECT_EQ(0, obs_path_to_channel_field_str("/s{abc}/def", out.field, out.rest, 0));
    EXPECT_TRUE(untouched(out.field, 0, sizeof out.field));
    EXPECT_TRUE(untouched(out.rest, 0, sizeof out.rest));
}

TEST_F(PathToFieldTest, ConsidersOnlyTheFirst511Characters) {
    char field[256] = {}, rest[256] = {};
    // The closing brace is character 511: the path seen ends right after it.
    std::string fits = std::string(508, 'a') + "{x}/tail";
    EXPECT_EQ(0, obs_path_to_channel_field_str(fits.c_str(), field, rest, 256));
    EXPECT_STREQ("x", field);
    EXPECT_STREQ("", rest);
    // One character more pushes the closing brace out of sight.
    std::string beyond = std::string(509, 'a') + "{x}/tail";
    EXPECT_EQ(-1, obs_path_to_channel_field_str(beyond.c_str(), field, rest, 256));
}

using ParserServiceScopeTest = KeySchemeTest;

TEST_F(ParserServiceScopeTest, SplitsAPolicyKey) {
    char service[256] = {}, scope[256] = {}, rest[256] = {};
    EXPECT_EQ(0, obs_parser_service_scope(
                     "/op/observability-policy-agent/service{svc}/scope{default}/obs", service,
                     scope, rest, 256));
    EXPECT_STREQ("svc", service);
    EXPECT_STREQ("default", scope);
    EXPECT_STREQ("obs", rest);
}

TEST_F(ParserServiceScopeTest, PathWithoutServiceFailsUntouched) {
    outputs out;
    EXPECT_EQ(
        -1, obs_parser_service_scope("/op/scope{default}/obs", out.field, out.scope, out.rest, 64));
    EXPECT_EQ(-1, obs_parser_service_scope(nullptr, out.field, out.scope, out.rest, 64));
    EXPECT_EQ(-1, obs_parser_service_scope("/op/service{svc}/scope{default}/obs", nullptr,
                                           out.scope, out.rest, 64));
    EXPECT_TRUE(untouched(out.field, 0, sizeof out.field));
    EXPECT_TRUE(untouched(out.scope, 0, sizeof out.scope));
    EXPECT_TRUE(untouched(out.rest, 0, sizeof out.rest));
}

TEST_F(ParserServiceScopeTest, ScopeAskedForNeedsAScopeAfterTheService) {
    outputs out;
    EXPECT_EQ(-1,
              obs_parser_service_scope("/op/service{svc}/uid", out.field, out.scope, out.rest, 64));
    EXPECT_EQ(-1, obs_parser_service_scope("/op/x{a}/scope{c}/service{svc}/uid", out.field,
                                           out.scope, out.rest, 64));
    EXPECT_TRUE(untouched(out.field, 0, sizeof out.field));
}

TEST_F(ParserServiceScopeTest, NullScopeTakesOnlyTheService) {
    outputs out;
    EXPECT_EQ(0,
              obs_parser_service_scope("/op/service{svc}/uid", out.field, nullptr, out.rest, 64));
    EXPECT_STREQ("svc", out.field);
    EXPECT_TRUE(untouched(out.rest, 0, sizeof out.rest));
}

TEST_F(ParserServiceScopeTest, RestAskedForNeedsSomethingAfterTheScope) {
    char service[256] = {}, scope[256] = {}, rest[256] = {};
    const char *path = "/op/service{svc}/scope{default}";
    EXPECT_EQ(-1, obs_parser_service_scope(path, service, scope, rest, 256));
    EXPECT_EQ(0, obs_parser_service_scope(path, service, scope, nullptr, 256));
    EXPECT_STREQ("svc", service);
    EXPECT_STREQ("default", scope);
}

TEST_F(ParserServiceScopeTest, CutsEachNameAtSizeMinusOne) {
    outputs out;
    EXPECT_EQ(0, obs_parser_service_scope("/r/service{service-name}/scope{scope-name}/sdk-name",
                                          out.field, out.scope, out.rest, 8));
    EXPECT_STREQ("service", out.field);
    EXPECT_STREQ("scope-n", out.scope);
    EXPECT_STREQ("sdk-nam", out.rest);
    EXPECT_TRUE(untouched(out.field, 8, sizeof out.field));
    EXPECT_TRUE(untouched(out.scope, 8, sizeof out.scope));
    EXPECT_TRUE(untouched(out.rest, 8, sizeof out.rest));
}

TEST_F(ParserServiceScopeTest, TextAfterTheServiceIsCutAt255Characters) {
    char service[512] = {}, scope[512] = {}, rest[512] = {};
    // "scope{" + 240 + "}/" leaves 7 of the 255 characters for the rest.
    std::string scope_name(240, 's');
    std::string path = "/r/service{svc}/scope{" + scope_name + "}/obs-monitor";
    EXPECT_EQ(0, obs_parser_service_scope(path.c_str(), service, scope, rest, 512));
    EXPECT_EQ(scope_name, scope);
    EXPECT_STREQ("obs-mon", rest);
}

// The key-path builder is internal; these check the texts every caller gets from it.
TEST(KeyPathTest, EachTemplateGivesItsExactText) {
    const std::string root = "/op/observability-policy-agent/";
    EXPECT_EQ(root + "service_keys", obs::service_index_key().text);
    EXPECT_EQ(root + "service{svc}/uid", obs::service_uid_key("svc").text);
    EXPECT_EQ(root + "service{svc}/policysdk{obs}/version",
              obs::sdk_version_key("svc", "obs").text);
    EXPECT_EQ(root + "service{svc}/policysdk_keys", obs::sdk_index_key("svc").text);
    EXPECT_EQ(root + "service{svc}/scope{opa}/name", obs::scope_name_key("svc", "opa").text);
    EXPECT_EQ(root + "service{svc}/scope_keys", obs::scope_index_key("svc").text);
    EXPECT_EQ(root + "service{svc}/scope_keys",
              obs::scope_index_key<obs::scope_index_path>("svc").text);
    EXPECT_EQ(root + "service{svc}/scope{*}/obs", obs::policy_key("svc", "*", "obs").text);
    EXPECT_EQ(root + "service{svc}/report", obs::report_key("svc").text);
    EXPECT_STREQ("/kuv/opa/service{svc}/scope{default}/obs",
                 obs::record_path("/kuv/opa", "svc", "default", "obs").text);
    EXPECT_STREQ("/kuv/opa/service{svc}/scope{default}/obs",
                 obs::record_path_from_prefix("/kuv/opa/service", "svc", "default", "obs").text);
}

TEST(KeyPathTest, LongNamesAreCutAtTheBufferSizeMinusOne) {
    std::string name(600, 'n');
    std::string policy = "/op/observability-policy-agent/service{" + name + "}/scope{x}/obs";
    EXPECT_EQ(policy.substr(0, 511), obs::policy_key(name.c_str(), "x", "obs").text);
    std::string index = "/op/observability-policy-agent/service{" + name + "}/scope_keys";
    EXPECT_EQ(index.substr(0, 511), obs::scope_index_key(name.c_str()).text);
    EXPECT_EQ(index.substr(0, 255), obs::scope_index_key<obs::scope_index_path>(name.c_str()).text);
    std::string record = "/r/service{" + name + "}/scope{x}/obs";
    EXPECT_EQ(record.substr(0, 511), obs::record_path("/r", name.c_str(), "x", "obs").text);
}

TEST(KeyPathTest, PolicyKeyParsesBackIntoItsNames) {
    char service[256] = {}, scope[256] = {}, rest[256] = {};
    obs::key_path key = obs::policy_key("svc", "opa", "obs-monitor");
    EXPECT_EQ(0, obs_parser_service_scope(key.text, service, scope, rest, sizeof service));
    EXPECT_STREQ("svc", service);
    EXPECT_STREQ("opa", scope);
    EXPECT_STREQ("obs-monitor", rest);
}

}  // namespace
