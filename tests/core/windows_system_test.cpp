// Paths that the system's calls would not take as they are, files that are open elsewhere, option files that not
// everybody may read, and local time by the rules that the system has for each year. Runs with the zone of Berlin.
#include "support/files.h"
#include "support/held.h"
#include "support/scratch.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/option.h"
#include "core/time.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <string>
#include <windows.h>

namespace {

TEST(File, PathsBeyondTheOldBound) {
    const test::scratch dir;
    std::string path = dir / "records";
    for (int depth = 0; depth < 8; ++depth) {
        ASSERT_EQ(core_mkdir(path.c_str()), 1) << path.size();
        path += '/' + std::string(60, static_cast<char>('a' + depth));
    }
    file_ctx* file = core_fopen(path.c_str(), "w", CORE_HERE);
    core_fwrite(file, "far\ndown", 8);
    EXPECT_EQ(core_fclose(file), 1);
    size_t size = 0;
    core_mfree(core_file_load(path.c_str(), 100, &size, CORE_HERE));
    EXPECT_EQ(size, 8U) << "line ends stay as they are";
    EXPECT_EQ(core_frename(path.c_str(), (path + ".old").c_str()), 1);
    EXPECT_EQ(core_fremove((path + ".old").c_str()), 1);
    EXPECT_FALSE(core_fopen((dir / "").append(5000, 'x').c_str(), "w", CORE_HERE));
    EXPECT_FALSE(core_fopen((dir / "\xff").c_str(), "w", CORE_HERE)) << "not UTF-8";
}

TEST(File, OpenFileIsReplacedAndRemovedAllTheSame) {
    const test::scratch dir;
    const std::string path = dir / "log";
    const std::string moved = dir / "log.1";
    test::write_file(path, test::bytes_of("first"));
    file_ctx* reader = core_fopen(path.c_str(), "r", CORE_HERE);
    file_ctx* writer = core_fopen(path.c_str(), "a", CORE_HERE);
    EXPECT_EQ(core_fwrite(writer, " second", 7), 7U);
    EXPECT_EQ(core_fclose(writer), 1);
    char text[16] = {};
    EXPECT_EQ(core_fread(reader, text, sizeof text), 12U);
    EXPECT_EQ(core_frename(path.c_str(), moved.c_str()), 1);
    EXPECT_EQ(core_fremove(moved.c_str()), 1);
    EXPECT_EQ(core_fclose(reader), 1);
    EXPECT_FALSE(core_fopen(moved.c_str(), "r", CORE_HERE));
}

/// The rights on a file as text, beginning with "D:".
std::wstring rights_of(const std::wstring& path) {
    PSECURITY_DESCRIPTOR found = nullptr;
    GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr,
                          &found);
    const test::held<void, LocalFree> held(found);
    wchar_t* text = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorW(found, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                         nullptr);
    const test::held<wchar_t, LocalFree> held_text(text);
    return text ? text : L"";
}

TEST(Option, SaveKeepsTheAccessRights) {
    const test::scratch dir;
    const std::string path = dir / "options";
    const std::wstring wide(path.begin(), path.end());
    test::write_file(path, test::bytes_of("password=secret\n"));
    const std::wstring others = rights_of(wide);
    PSECURITY_DESCRIPTOR own = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;FA;;;BA)(A;;FA;;;OW)", SDDL_REVISION_1,
                                                                     &own, nullptr));
    const test::held<void, LocalFree> held(own);
    ASSERT_TRUE(SetFileSecurityW(wide.c_str(), DACL_SECURITY_INFORMATION, own));
    const std::wstring kept = rights_of(wide);
    ASSERT_NE(kept, others);
    opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
    EXPECT_EQ(core_opt_save(opt), 1);
    core_opt_free(opt);
    EXPECT_EQ(rights_of(wide), kept);
}

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
