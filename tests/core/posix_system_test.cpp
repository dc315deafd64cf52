// Option files that not everybody may read or that cannot be opened, files that the system makes up; the calendar
// beside that of the C library, and local time by TZ.
#include "support/files.h"
#include "support/scratch.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/module.h"
#include "core/option.h"
#include "core/owned.h"
#include "core/time.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

TEST(Option, SaveKeepsTheAccessRightsAndWhatCannotBeOpenedIsNotMissing) {
    const test::scratch dir;
    const std::string path = dir / "options";
    test::write_file(path, test::bytes_of("password=secret\n"));
    constexpr auto own = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;
    std::filesystem::permissions(path, own);
    const core::owned<opt_ctx, core_opt_free> opt(core_opt_create(path.c_str(), CORE_HERE));
    EXPECT_EQ(core_opt_save(opt.get()), 1);
    EXPECT_EQ(std::filesystem::status(path).permissions(), own);
    for (const char* target : {"options", "not there yet"}) {
        std::filesystem::create_symlink(target, dir / "link");
        const core::owned<opt_ctx, core_opt_free> linked(core_opt_create((dir / "link").c_str(), CORE_HERE));
        core_opt_set(linked.get(), "by", "link");
        EXPECT_EQ(core_opt_save(linked.get()), 1);
        EXPECT_TRUE(test::read_file(dir / target).starts_with("by=link\n")) << target;
        EXPECT_TRUE(std::filesystem::remove(dir / "link"));
    }
    std::filesystem::remove(path);
    std::filesystem::create_symlink(path, path);
    EXPECT_EQ(core_opt_create(path.c_str(), CORE_HERE), nullptr);
}

TEST(Module, ANameWithItsVersionIsComplete) {
    EXPECT_TRUE((core::owned<dll_ctx, core_dll_close>(core_dll_open("libm.so.6", nullptr, CORE_HERE))));
}

TEST(File, LostBytesShowWhenItIsSyncedOrClosed) {
    for (const bool synced : {false, true}) {
        file_ctx* full = core_fopen("/dev/full", "wb", CORE_HERE);
        core_fwrite(full, "x", 1);
        EXPECT_EQ(synced ? core_fsync(full) : core_fclose(full), 0);
        core_fclose(full);
    }
}

TEST(File, ContentWithoutASizeIsLoadedWithinTheBound) {
    EXPECT_EQ(core_file_load("/dev/zero", 10'000, nullptr, CORE_HERE), nullptr) << "no end";
    EXPECT_EQ(core_file_load("/proc/self/status", 10, nullptr, CORE_HERE), nullptr);
    EXPECT_TRUE(core::owned<uint8_t>(core_file_load("/proc/self/status", 100'000, nullptr, CORE_HERE)));
}

constexpr uint64_t second = 1'000'000;

void compare_with_strftime(int64_t when) {
    const auto time = static_cast<time_t>(when);
    tm system{};
    gmtime_r(&time, &system);
    for (const char conversion : std::string("aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZ")) {
        const char pattern[] = {'%', conversion, 0};
        char expected[100], out[100];
        const size_t size = std::strftime(expected, sizeof expected, pattern, &system);
        const uint32_t length = time_format(static_cast<uint64_t>(when) * second, pattern, out, sizeof out);
        ASSERT_EQ(std::string(out, length), std::string(expected, size)) << pattern << " at " << when;
    }
}

TEST(Time, CalendarAndConversionsAreThoseOfTheCLibrary) {
    // Days around the ends of years, where week numbers change years, leap days, both ends of a day; fields that carry.
    for (int year = -130; year < 210; ++year)
        for (const int month : {-25, 0, 37})
            for (const int day : {-3, -1, 0, 1, 3, 58, 59, 60})
                for (const int seconds : {0, 86'399}) {
                    tm fields{seconds - 1800, 90, -1, 1 + day, month, year, 0, 0, 0, 0, nullptr};
                    const int64_t when = core_timegm(&fields);
                    ASSERT_EQ(when, timegm(&fields));
                    if (when >= 0) compare_with_strftime(when);
                }
    compare_with_strftime(INT64_MAX / second);
    compare_with_strftime(253'402'300'800);
}

TEST(Time, LocalTimeIsShiftedByTheOffset) {
    constexpr uint64_t moment = 1'448'466'450'042'999;
    core_time_set_clock([] { return moment; });
    setenv("TZ", "XST+3", 1);
    tzset();
    EXPECT_EQ(time_now_local(), moment - 10'800 * second);
    core_time_set_clock(nullptr);
}

}  // namespace
