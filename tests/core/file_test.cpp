#include "core/file.h"

#include "support/fault.h"
#include "support/process.h"
#include "support/scratch.h"

#include "core/memory.h"
#include "core/owned.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

class File : public testing::Test {
protected:
    static void store(const std::string& path, const std::string& content) {
        file_ctx* file = core_fopen(path.c_str(), "wb", CORE_HERE);
        ASSERT_TRUE(file);
        ASSERT_EQ(core_fwrite(file, content.data(), content.size()), content.size());
        ASSERT_EQ(core_fclose(file), 1);
        ASSERT_FALSE(file);
    }

    static std::string loaded(const std::string& path, size_t limit) {
        size_t size = 777;
        const core::owned<uint8_t> content(core_file_load(path.c_str(), limit, &size, CORE_HERE));
        if (!content) return "(null)";
        EXPECT_EQ(content.get()[size], 0);
        return {reinterpret_cast<const char*>(content.get()), size};
    }

    const test::scratch dir;
};

TEST_F(File, WritesReadsAndSeeks) {
    const std::string path = dir / "Größe 录像 😀";
    store(path, "hello world");
    file_ctx* file = core_fopen(path.c_str(), "r+b", CORE_HERE);
    ASSERT_TRUE(file);
    char text[6] = {};
    EXPECT_EQ(core_fseek(file, 6), 1);
    EXPECT_EQ(core_fread(file, text, 5), 5U);
    EXPECT_STREQ(text, "world");
    EXPECT_EQ(core_ftell(file), 11);
    EXPECT_EQ(core_fread(file, text, 5), 0U);
    EXPECT_EQ(core_fseek(file, 0), 1);
    EXPECT_EQ(core_fwrite(file, "J", 1), 1U);
    EXPECT_EQ(core_fsync(file), 1);
    EXPECT_EQ(loaded(path, 100), "Jello world") << "also before the file is closed";
    EXPECT_EQ(core_fseek(file, -1), 0);
    EXPECT_EQ(core_fseek(file, int64_t{5} << 32), 1);
    EXPECT_EQ(core_ftell(file), int64_t{5} << 32);
    EXPECT_EQ(core_fclose(file), 1);
    EXPECT_EQ(core_fclose(file), 0);
}

TEST_F(File, LoadIsBounded) {
    const std::string path = dir / "content";
    for (const size_t size : {0, 1, 4095, 4096, 4097, 100'000}) {
        const std::string content(size, 'c');
        store(path, content);
        EXPECT_EQ(loaded(path, size), content);
        EXPECT_EQ(loaded(path, size + 1), content);
        EXPECT_EQ(loaded(path, SIZE_MAX - 1), content);
        if (size == 0) continue;
        EXPECT_EQ(loaded(path, size - 1), "(null)") << size;
    }
    EXPECT_EQ(loaded(path, SIZE_MAX), "(null)");
    EXPECT_EQ(loaded(dir / "", 100), "(null)") << "a directory";
    EXPECT_EQ(loaded(dir / "missing", 100), "(null)");
    EXPECT_GT(test::fail_each_allocation([&path] { loaded(path, 100'000); }), 0U);
}

TEST_F(File, OutOfMemoryDoesNotEmptyAFile) {
    const std::string path = dir / "kept";
    store(path, "kept");
    core_mem_set_fault([](size_t, const char*, int) { return true; });
    EXPECT_EQ(core_fopen(path.c_str(), "wb", CORE_HERE), nullptr);
    core_mem_set_fault(nullptr);
    EXPECT_EQ(loaded(path, 100), "kept");
}

TEST_F(File, NamesAndDirectories) {
    const std::string sub = dir / "sub";
    EXPECT_EQ(core_mkdir(sub.c_str()), 1);
    EXPECT_EQ(core_mkdir(sub.c_str()), 1) << "it is there";
    store(dir / "sub/a", "new");
    store(dir / "b", "old");
    EXPECT_EQ(core_mkdir((dir / "b").c_str()), 0) << "a file is no directory";
    EXPECT_EQ(core_rmdir(sub.c_str()), 0) << "not empty";
    EXPECT_EQ(core_frename((dir / "sub/a").c_str(), (dir / "b").c_str()), 1);
    EXPECT_EQ(loaded(dir / "b", 10), "new");
    EXPECT_EQ(core_rmdir(sub.c_str()), 1);
    EXPECT_EQ(core_fremove((dir / "b").c_str()), 1);
    EXPECT_EQ(core_fremove((dir / "b").c_str()), 0);
    EXPECT_EQ(core_frename((dir / "b").c_str(), (dir / "c").c_str()), 0);
    EXPECT_EQ(core_fopen((dir / "b").c_str(), "rb", CORE_HERE), nullptr);
    EXPECT_EQ(core_fopen((dir / "b").c_str(), "a mode of too many letters", CORE_HERE), nullptr);
}

TEST_F(File, LibraryIsFoundWhereThisProgramIs) {
    const core::owned_text path(lib_path(CORE_HERE));
    ASSERT_TRUE(path);
    EXPECT_EQ(path.get(), test::program_path().parent_path());
}

}  // namespace
