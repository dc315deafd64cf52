#include "core/time.h"

#include "support/side_thread.h"

#include "core/memory.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t moment = 1'448'466'450'042'999;  // 2015-11-25 15:47:30.042999, a Wednesday

std::atomic<uint64_t> shown;

class Time : public testing::Test {
protected:
    ~Time() override { core_time_set_clock(nullptr); }
};

std::string formatted(uint64_t us, const char* pattern) {
    char* text = core_str_from_time(us, pattern, CORE_HERE);
    std::string result = text ? text : "(null)";
    core_mfree(text);
    return result;
}

TEST_F(Time, NowNeverGoesBackwards) {
    core_time_set_clock([] { return shown.load(); });
    shown = 1000;
    EXPECT_EQ(time_now(), 1000U);
    shown = 400;
    EXPECT_EQ(time_now(), 1000U);
    shown = 1001;
    EXPECT_EQ(time_now(), 1001U);
    EXPECT_EQ(core_timer(), 1001U);
}

TEST_F(Time, NowNeverGoesBackwardsAcrossThreads) {
    // The clock jumps to and fro; whoever sees another thread's time sees no earlier one afterwards.
    static std::atomic<uint32_t> ticks;
    core_time_set_clock([] { return uint64_t{ticks += 7919} % 10'007; });
    std::atomic<uint64_t> seen = 0;
    test::on_four_threads([&seen] {
        for (int i = 0; i < 3000; ++i) {
            const uint64_t before = seen;
            const uint64_t now = time_now();
            ASSERT_GE(now, before);
            seen = now;
        }
    });
}

TEST_F(Time, SystemClocksRun) {
    const uint64_t now = time_now();
    const uint64_t timer = core_timer();
    EXPECT_NEAR(static_cast<double>(now), static_cast<double>(std::time(nullptr)) * 1e6, 3e6);
    core_sleep(2);
    EXPECT_GE(core_timer() - timer, 2000U);
}

TEST_F(Time, PatternsOfTheProtocols) {
    const struct {
        const char* pattern;
        const char* text;
    } cases[] = {
        {"%Y-%m-%dT%H:%M:%S.%sZ", "2015-11-25T15:47:30.042Z"},
        {"%a, %d %b %Y %H:%M:%S GMT", "Wed, 25 Nov 2015 15:47:30 GMT"},
        {"%s%%s%", "042%s%"},
        {"%q", "%q"},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(formatted(moment, c.pattern), c.text) << c.pattern;
    EXPECT_EQ(core_str_from_time(moment, nullptr, CORE_HERE), nullptr);
}

TEST_F(Time, FormatIsCutToTheBuffer) {
    char out[6] = "xxxxx";
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 6), 5U);
    EXPECT_STREQ(out, "2015-");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 1), 0U);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 0), 0U);
    EXPECT_EQ(time_format(moment, nullptr, out, 6), 0U);
    core_mem_set_fault([](size_t, const char*, int) { return true; });
    EXPECT_EQ(time_format(moment, "%H", out, 6), 2U);
    EXPECT_EQ(core_str_from_time(moment, "%H", CORE_HERE), nullptr);
    core_mem_set_fault(nullptr);
}

TEST_F(Time, CalendarGoesBothWaysToTheEndOfTheRange) {
    for (const uint64_t us : {uint64_t{0}, moment, 951'782'400 * second, 253'402'300'800 * second, UINT64_MAX}) {
        tm fields{};
        ASSERT_EQ(core_timeUtc(us, &fields), 1);
        EXPECT_EQ(core_timegm(&fields), static_cast<int64_t>(us / second));
    }
    EXPECT_EQ(core_timeUtc(0, nullptr), 0);
    EXPECT_EQ(time_to_FileTime(1), 116'444'736'000'000'010U);
}

}  // namespace
