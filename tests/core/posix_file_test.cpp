// Files that nobody may read, that cannot be opened, that the system makes up.
#include "support/files.h"
#include "support/scratch.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/option.h"
#include "core/owned.h"

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

}  // namespace
