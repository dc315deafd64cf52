// The calendar beside that of the C library, and local time by TZ.
#include "core/time.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t moment = 1'448'466'450'042'999;  // 2015-11-25 15:47:30.042999, a Wednesday

class Time : public testing::Test {
protected:
    ~Time() override { core_time_set_clock(nullptr); }
};

TEST_F(Time, EveryConversionIsThatOfStrftime) {
    const std::string conversions = "aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZ";
    // Days around the ends of years, where week numbers change years, leap days, both ends of a day.
    for (int year = 1970; year < 2110; ++year) {
        for (const int day : {-3, -1, 0, 1, 3, 58, 59, 60, 200}) {
            tm fields{};
            fields.tm_year = year - 1900;
            fields.tm_mday = 1 + day;
            const int64_t base = core_timegm(&fields);
            for (const int64_t when : {base, base + 43'200, base + 86'399}) {
                if (when < 0) continue;
                const time_t seconds = when;
                tm system{};
                gmtime_r(&seconds, &system);
                ASSERT_EQ(timegm(&system), when);
                for (const char conversion : conversions) {
                    const char pattern[] = {'%', conversion, 0};
                    char expected[100];
                    const size_t size = std::strftime(expected, sizeof expected, pattern, &system);
                    char out[100];
                    const uint32_t length = time_format(static_cast<uint64_t>(when) * second, pattern, out, sizeof out);
                    ASSERT_EQ(std::string(out, length), std::string(expected, size)) << pattern << " at " << when;
                }
            }
        }
    }
}

TEST_F(Time, CalendarGoesBothWaysToTheEndOfTheRange) {
    for (const uint64_t us : {uint64_t{0}, moment, 951'782'400 * second, 253'402'300'800 * second, UINT64_MAX}) {
        tm fields{};
        ASSERT_EQ(core_timeUtc(us, &fields), 1);
        EXPECT_EQ(core_timegm(&fields), static_cast<int64_t>(us / second));
        const auto seconds = static_cast<time_t>(us / second);
        tm system{};
        gmtime_r(&seconds, &system);
        EXPECT_EQ(fields.tm_year, system.tm_year);
        EXPECT_EQ(fields.tm_yday, system.tm_yday);
        EXPECT_EQ(fields.tm_wday, system.tm_wday);
    }
}

TEST_F(Time, FieldsOutOfRangeCarryOver) {
    for (const int month : {-25, -12, -1, 0, 11, 12, 37}) {
        for (const int day : {-400, 0, 1, 31, 800}) {
            tm fields{};
            fields.tm_year = -130;
            fields.tm_mon = month;
            fields.tm_mday = day;
            fields.tm_hour = 30;
            fields.tm_min = -90;
            fields.tm_sec = 3700;
            tm system = fields;
            EXPECT_EQ(core_timegm(&fields), timegm(&system)) << month << ' ' << day;
        }
    }
}

TEST_F(Time, LocalTimeIsShiftedByTheOffset) {
    core_time_set_clock([] { return moment; });
    setenv("TZ", "XST-5:30", 1);
    tzset();
    EXPECT_EQ(time_now_local(), moment + 19'800 * second);
    setenv("TZ", "XST+3", 1);
    tzset();
    EXPECT_EQ(time_now_local(), moment - 10'800 * second);
    unsetenv("TZ");
    tzset();
}

}  // namespace
