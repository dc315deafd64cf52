// Local time by the rules that the system has for each year. Runs with the zone of Berlin.
#include "core/time.h"

#include <gtest/gtest.h>

namespace {

TEST(Time, LocalTimeIsShiftedByTheOffsetOfThatMoment) {
    static uint64_t moment;
    core_time_set_clock([] { return moment; });
    constexpr struct {
        uint64_t seconds;
        uint64_t offset;
    } cases[] = {
        {1'448'466'450, 3600},                         // November 2015
        {1'459'040'399, 3600},                         // the last second of winter in 2016
        {1'459'040'400, 7200}, {1'467'331'200, 7200},  // July 2016
        {4'118'515'200, 7200},                         // July 2100
    };
    for (const auto& c : cases) {
        moment = c.seconds * 1'000'000;
        EXPECT_EQ(time_now_local(), moment + c.offset * 1'000'000) << c.seconds;
    }
    core_time_set_clock(nullptr);
}

}  // namespace
