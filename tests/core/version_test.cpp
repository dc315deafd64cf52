#include "core/version.h"

#include <gtest/gtest.h>

namespace {

TEST(Version, IsFormedFromTheBuildDateAndTime) {
    const struct {
        const char* date;
        const char* time;
        const char* version;
    } cases[] = {
        {"Nov 25 2015", "15:47:30", "2015.11.25.154730"},
        {"Jan  5 2026", "00:00:00", "2026.01.05.000000"},
        {"Dec 31 9999", "23:59:59", "9999.12.31.235959"},
        {"anF 25 2015", "15:47:30", ""},  // found in the table of months, but not at a month
        {"Nov 25 15", "15:47:30", ""},
        {"Nov 25 2015", "15:47", ""},
        {"Nov 2x 2015", "15:47:30", ""},
        {"Nov 25 2015", nullptr, ""},
        {nullptr, "15:47:30", ""},
    };
    for (const auto& c : cases) {
        char out[32] = "old";
        EXPECT_EQ(core_get_version(c.date, c.time, out), out);
        EXPECT_STREQ(out, c.version);
    }
    char out[32];
    EXPECT_STRNE(core_get_version(__DATE__, __TIME__, out), "");
}

}  // namespace
