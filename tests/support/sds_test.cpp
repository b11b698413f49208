#include <gtest/gtest.h>

#include <string>

#include "observability_api.h"

namespace {

TEST(SdsTest, GrowsOnlyWhenTheTerminatorNoLongerFitsAndKeepsWhatRefusalsAndClearLeave) {
    // Bytes appended, capacity afterwards (the word directly in front of the first character).
    const std::pair<uint32_t, uint32_t> rows[] = {{0, 1024}, {1023, 1024}, {1, 2048}, {3000, 5049}};
    obs_sds s = obs_sdsempty();
    std::string expected;
    for (const auto &[appended, alloc] : rows) {
        SCOPED_TRACE(expected.size());
        const std::string part(appended, char('a' + expected.size() % 26));
        s = obs_sdscat(s, part.data(), appended);
        expected += part;
        EXPECT_EQ(std::string(s, obs_sdslen(s) + 1), expected + '\0');
        EXPECT_EQ(reinterpret_cast<uint32_t *>(s)[-1], alloc);
    }
    s = obs_sdscatstr(obs_sdscat(s, nullptr, 1), "de");  // a null source appends counted NULs
    EXPECT_EQ(obs_sdsMakeRoomFor(s, UINT32_MAX), nullptr);
    EXPECT_EQ(obs_sdscat(s, nullptr, UINT32_MAX - 1), nullptr);
    EXPECT_EQ(obs_sdscat(s, nullptr, UINT32_MAX), nullptr);
    EXPECT_EQ(std::string(s, obs_sdslen(s) + 1), expected + std::string("\0de", 4));
    obs_sdsclear(s);
    EXPECT_EQ(std::string(s, obs_sdslen(s) + 1), std::string(1, '\0'));
    EXPECT_EQ(reinterpret_cast<uint32_t *>(s)[-1], 5049u);
    obs_sdsfree(s);
    obs_sdsclear(nullptr);
    obs_sdsfree(nullptr);
    EXPECT_EQ(obs_sdslen(nullptr), 0u);
}

}  // namespace
