#include "core/time.h"

#include "support/side_thread.h"

#include "core/owned.h"

#include <atomic>
#include <gtest/gtest.h>

namespace {

constexpr uint64_t moment = 1'448'466'450'042'999;  // 2015-11-25 15:47:30.042999, a Wednesday

TEST(Time, NowNeverGoesBackwards) {
    static std::atomic<uint64_t> shown;
    core_time_set_clock([] { return shown.load(); });
    for (const uint64_t clock : {1000, 400, 1001}) {
        shown = clock;
        EXPECT_EQ(time_now(), std::max<uint64_t>(clock, 1000));
        EXPECT_EQ(core_timer(), clock);
    }
    // The clock jumps to and fro; whoever sees another thread's time sees no earlier one afterwards.
    core_time_set_clock([] { return (shown += 7919) % 10'007; });
    std::atomic<uint64_t> seen = 0;
    test::on_four_threads([&seen] {
        for (int i = 0; i < 3000; ++i) {
            const uint64_t before = seen;
            const uint64_t now = time_now();
            ASSERT_GE(now, before);
            seen = now;
        }
    });
    core_time_set_clock(nullptr);
}

TEST(Time, SystemClocksRun) {
    const uint64_t timer = core_timer();
    EXPECT_NEAR(static_cast<double>(time_now()), static_cast<double>(std::time(nullptr)) * 1e6, 3e6);
    core_sleep(2);
    EXPECT_GE(core_timer() - timer, 2000U);
    EXPECT_EQ(time_to_FileTime(1), 116'444'736'000'000'010U);
}

TEST(Time, PatternsOfTheProtocols) {
    const struct {
        const char* pattern;
        const char* text;
    } cases[] = {{"%Y-%m-%dT%H:%M:%S.%sZ", "2015-11-25T15:47:30.042Z"},
                 {"%a, %d %b %Y %H:%M:%S GMT", "Wed, 25 Nov 2015 15:47:30 GMT"},
                 {"%s%%s%", "042%s%"},
                 {"%q", "%q"},
                 {"", ""}};
    for (const auto& c : cases)
        EXPECT_STREQ(core::owned_text(core_str_from_time(moment, c.pattern, CORE_HERE)).get(), c.text);
}

TEST(Time, FormatIsCutToTheBuffer) {
    char out[6] = "xxxxx";
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 6), 5U);
    EXPECT_STREQ(out, "2015-");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 1), 0U);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 0), 0U);
    EXPECT_EQ(time_format(moment, nullptr, out, 6), 0U);
}

}  // namespace
