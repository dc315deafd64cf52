// Files that the system makes up: full disks, and content whose size is not known beforehand.
#include "core/file.h"
#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>

namespace {

TEST(File, LostBytesShowWhenItIsClosed) {
    file_ctx* full = core_fopen("/dev/full", "wb", CORE_HERE);
    ASSERT_TRUE(full);
    EXPECT_EQ(core_fwrite(full, "x", 1), 1U);
    EXPECT_EQ(core_fclose(full), 0);
    full = core_fopen("/dev/full", "wb", CORE_HERE);
    core_fwrite(full, "x", 1);
    EXPECT_EQ(core_fsync(full), 0);
    core_fclose(full);
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
