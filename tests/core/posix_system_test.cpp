// Files that nobody may read, that cannot be opened, that the system makes up; the calendar beside that of the C
// library, and local time by TZ.
#include "support/files.h"
#include "support/scratch.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/option.h"
#include "core/owned.h"
#include "core/time.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(Option, SaveKeepsTheAccessRights) {
    const test::scratch dir;
    const std::string path = dir / "options";
    test::write_file(path, test::bytes_of("password=secret\n"));
    constexpr auto own = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;
    std::filesystem::permissions(path, own);
    opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
    EXPECT_EQ(core_opt_save(opt), 1);
    core_opt_free(opt);
    EXPECT_EQ(std::filesystem::status(path).permissions(), own);
}

TEST(Option, FileThatCannotBeOpenedIsNotTakenForAMissingOne) {
    const test::scratch dir;
    const std::string path = dir / "loop";
    std::filesystem::create_symlink(path, path);
    EXPECT_EQ(core_opt_create(path.c_str(), CORE_HERE), nullptr);
}

TEST(File, LostBytesShowWhenItIsSyncedOrClosed) {
    for (const bool synced : {false, true}) {
        file_ctx* full = core_fopen("/dev/full", "wb", CORE_HERE);
        EXPECT_EQ(core_fwrite(full, "x", 1), 1U);
        EXPECT_EQ(synced ? core_fsync(full) : core_fclose(full), 0);
        core_fclose(full);
    }
}

TEST(File, ContentWithoutASizeIsLoadedWithinTheBound) {
    const auto loads = [](const char* path, size_t limit) {
        return core::owned<uint8_t>(core_file_load(path, limit, nullptr, CORE_HERE)) != nullptr;
    };
    EXPECT_FALSE(loads("/dev/zero", 10'000)) << "no end";
    EXPECT_TRUE(loads("/proc/self/status", 100'000));
    EXPECT_FALSE(loads("/proc/self/status", 10));
}

constexpr uint64_t second = 1'000'000;

void compare_with_strftime(time_t when) {
    tm system{};
    gmtime_r(&when, &system);
    for (const char conversion : std::string("aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZ")) {
        const char pattern[] = {'%', conversion, 0};
        char expected[100];
        const size_t size = std::strftime(expected, sizeof expected, pattern, &system);
        char out[100];
        const uint32_t length = time_format(static_cast<uint64_t>(when) * second, pattern, out, sizeof out);
        ASSERT_EQ(std::string(out, length), std::string(expected, size)) << pattern << " at " << when;
    }
}

TEST(Time, EveryConversionIsThatOfStrftime) {
    // Days around the ends of years, where week numbers change years, leap days, both ends of a day.
    for (int year = 70; year < 210; ++year) {
        for (const int day : {-3, -1, 0, 1, 3, 58, 59, 60, 200}) {
            tm fields{};
            fields.tm_year = year;
            fields.tm_mday = 1 + day;
            const int64_t base = core_timegm(&fields);
            ASSERT_EQ(base, timegm(&fields));
            for (const int64_t when : {base, base + 43'200, base + 86'399})
                if (when >= 0) compare_with_strftime(when);
        }
    }
}

TEST(Time, CalendarGoesBothWaysToTheEndOfTheRange) {
    for (const uint64_t us : {uint64_t{0}, 951'782'400 * second, 253'402'300'800 * second, UINT64_MAX}) {
        tm fields{};
        ASSERT_EQ(core_timeUtc(us, &fields), 1);
        EXPECT_EQ(core_timegm(&fields), static_cast<int64_t>(us / second));
        compare_with_strftime(static_cast<time_t>(us / second));
    }
}

TEST(Time, FieldsOutOfRangeCarryOver) {
    for (const int month : {-25, -12, -1, 0, 11, 12, 37}) {
        for (const int day : {-400, 0, 1, 31, 800}) {
            tm fields{3700, -90, 30, day, month, -130, 0, 0, 0, 0, nullptr};
            const int64_t seconds = core_timegm(&fields);
            EXPECT_EQ(seconds, timegm(&fields)) << month << ' ' << day;
        }
    }
}

TEST(Time, LocalTimeIsShiftedByTheOffset) {
    constexpr uint64_t moment = 1'448'466'450'042'999;
    core_time_set_clock([] { return moment; });
    setenv("TZ", "XST-5:30", 1);
    tzset();
    EXPECT_EQ(time_now_local(), moment + 19'800 * second);
    setenv("TZ", "XST+3", 1);
    tzset();
    EXPECT_EQ(time_now_local(), moment - 10'800 * second);
    core_time_set_clock(nullptr);
}

}  // namespace
