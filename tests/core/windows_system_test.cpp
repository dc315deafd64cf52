// Paths that the system's calls would not take as they are, files that are open elsewhere, option files that not
// everybody may read, and local time by the rules that the system has for each year. Runs with the zone of Berlin.
#include "platform/windows_path.h"
#include "support/files.h"
#include "support/scratch.h"
#include "support/threads.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/option.h"
#include "core/owned.h"
#include "core/time.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>
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
    EXPECT_EQ(core_ftell(file), 8) << "line ends stay as they are";
    EXPECT_EQ(core_fclose(file), 1);
    EXPECT_EQ(core_frename(path.c_str(), (path + ".old").c_str()), 1);
    EXPECT_EQ(core_fremove((path + ".old").c_str()), 1);
    EXPECT_FALSE(core_fopen((dir / "").append(5000, 'x').c_str(), "w", CORE_HERE));
    EXPECT_FALSE(core_fopen((dir / "\xff").c_str(), "w", CORE_HERE)) << "not UTF-8";
}

TEST(File, ARelativePathInADeepFolderGetsTheLongForm) {
    const test::scratch dir;
    const std::string deep = dir / std::string(150, 'd').c_str();
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    ASSERT_EQ(core_mkdir(deep.c_str()), 1);
    ASSERT_TRUE(SetCurrentDirectoryW(core::platform::wide_path(deep.c_str()).get()));
    const std::string name(150, 'n');
    EXPECT_STREQ(core::platform::wide_path("short").get(), L"short");
    EXPECT_EQ(std::wstring_view(core::platform::wide_path(name.c_str()).get()).substr(0, 4), L"\\\\?\\");
    test::write_file(name, {});
    EXPECT_EQ(core_fremove(name.c_str()), 1);
    SetCurrentDirectoryW(before);
}

/// As a scanner would: shared with nobody, for a moment.
TEST(File, AFileThatIsHeldForAMomentIsReplacedThereafter) {
    const test::scratch dir;
    const std::string path = dir / "options";
    test::write_file(path, test::bytes_of("a=1\n"));
    const core::owned<opt_ctx, core_opt_free> opt(core_opt_create(path.c_str(), CORE_HERE));
    core_opt_set(opt.get(), "a", "2");
    const HANDLE scanner = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    const std::jthread done([&] { Sleep(30), CloseHandle(scanner); });
    EXPECT_EQ(core_opt_save(opt.get()), 1);
    EXPECT_EQ(test::read_file(path), "a=2\n");
}

TEST(File, OpenFileIsReplacedAndRemovedAllTheSame) {
    const test::scratch dir;
    const std::string path = dir / "log", moved = dir / "log.1";
    test::write_file(path, test::bytes_of("first"));
    file_ctx* reader = core_fopen(path.c_str(), "r", CORE_HERE);
    file_ctx* writer = core_fopen(path.c_str(), "a", CORE_HERE);
    core_fwrite(writer, " second", 7);
    core_fclose(writer);
    char text[16] = {};
    EXPECT_EQ(core_fread(reader, text, sizeof text), 12U);
    for (const char* content : {"third", "fourth"}) {
        test::write_file(moved, test::bytes_of(content));
        EXPECT_EQ(core_frename(moved.c_str(), path.c_str()), 1);
        EXPECT_EQ(test::read_file(path), content);
    }
    EXPECT_EQ(core_frename(path.c_str(), moved.c_str()), 1);
    EXPECT_EQ(core_fremove(moved.c_str()), 1);
    core_fclose(reader);
}

/// The rights on a file, as the system keeps them.
std::string rights_of(const std::wstring& path) {
    char rights[1000];
    DWORD size = 0;
    GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, rights, sizeof rights, &size);
    return {rights, size};
}

TEST(Option, SaveKeepsTheAccessRights) {
    const test::scratch dir;
    const std::string path = dir / "options";
    const std::wstring wide(path.begin(), path.end());
    test::write_file(path, test::bytes_of("password=secret\n"));
    const std::string others = rights_of(wide);
    PSECURITY_DESCRIPTOR own = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;FA;;;BA)(A;;FA;;;OW)", SDDL_REVISION_1, &own,
                                                         nullptr);
    const core::owned<void, LocalFree> held(own);
    ASSERT_TRUE(SetFileSecurityW(wide.c_str(), DACL_SECURITY_INFORMATION, own));
    const std::string kept = rights_of(wide);
    const core::owned<opt_ctx, core_opt_free> opt(core_opt_create(path.c_str(), CORE_HERE));
    EXPECT_EQ(core_opt_save(opt.get()), 1);
    EXPECT_EQ(rights_of(wide), kept);
    EXPECT_NE(others, kept);
}

TEST(Time, LocalTimeIsShiftedByTheOffsetOfThatMoment) {
    static uint64_t moment = 1'459'040'400'000'000;  // summer begins in 2016
    core_time_set_clock([] { return moment--; });
    EXPECT_EQ(time_now_local(), 1'459'040'400'000'000 + 7'200'000'000);
    core_time_set_clock([] { return moment; });
    EXPECT_EQ(time_now_local(), 1'459'040'399'999'999 + 3'600'000'000);
    core_time_set_clock(nullptr);
}

}  // namespace
