#include "core/file.h"

#include "support/files.h"
#include "support/scratch.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>

namespace {

class File : public testing::Test {
protected:
    static std::string loaded(const std::string& path, size_t limit) {
        size_t size = 777;
        const core::owned<uint8_t> content(core_file_load(path.c_str(), limit, &size, CORE_HERE));
        if (!content) return "(null)";
        EXPECT_EQ(content.get()[size], 0);
        return {reinterpret_cast<const char*>(content.get()), size};
    }

    const test::scratch dir;
    const std::string path = dir / "content";
};

TEST_F(File, WritesReadsAndSeeks) {
    const std::string odd = dir / "Größe 录像 😀";
    file_ctx* file = core_fopen(odd.c_str(), "w+b", CORE_HERE);
    ASSERT_TRUE(file);
    EXPECT_EQ(core_fwrite(file, "hello world", 11), 11U);
    char text[6] = {};
    EXPECT_EQ(core_fseek(file, 6), 1);
    EXPECT_EQ(core_fread(file, text, 5), 5U);
    EXPECT_STREQ(text, "world");
    EXPECT_EQ(core_ftell(file), 11);
    EXPECT_EQ(core_fread(file, text, 5), 0U);
    EXPECT_EQ(core_fseek(file, 0), 1);
    EXPECT_EQ(core_fwrite(file, "J", 1), 1U);
    EXPECT_EQ(core_fsync(file), 1);
    EXPECT_EQ(loaded(odd, 100), "Jello world") << "also before the file is closed";
    EXPECT_EQ(core_fseek(file, -1), 0);
    EXPECT_EQ(core_fseek(file, int64_t{5} << 32), 1);
    EXPECT_EQ(core_ftell(file), int64_t{5} << 32);
    EXPECT_EQ(core_fclose(file), 1);
    EXPECT_EQ(core_fclose(file), 0);
}

TEST_F(File, LoadIsBounded) {
    for (const size_t size : {0, 1, 4095, 4096, 4097, 100'000}) {
        const std::string content(size, 'c');
        test::write_file(path, test::bytes_of(content));
        EXPECT_EQ(loaded(path, size), content);
        EXPECT_EQ(loaded(path, SIZE_MAX - 1), content);
        if (size > 0) {
            EXPECT_EQ(loaded(path, size - 1), "(null)") << size;
        }
    }
    EXPECT_EQ(loaded(path, SIZE_MAX), "(null)");
    EXPECT_EQ(loaded(dir / "", 100), "(null)") << "a directory";
    EXPECT_EQ(loaded(dir / "missing", 100), "(null)");
}

TEST_F(File, NamesAndDirectories) {
    const std::string sub = dir / "sub";
    const std::string inner = dir / "sub/inner";
    EXPECT_EQ(core_mkdir(sub.c_str()), 1);
    EXPECT_EQ(core_mkdir(sub.c_str()), 1) << "it is there";
    test::write_file(inner, test::bytes_of("new"));
    test::write_file(path, test::bytes_of("old"));
    EXPECT_EQ(core_mkdir(path.c_str()), 0) << "a file is no directory";
    EXPECT_EQ(core_rmdir(sub.c_str()), 0) << "not empty";
    EXPECT_EQ(core_frename(inner.c_str(), path.c_str()), 1);
    EXPECT_EQ(loaded(path, 10), "new");
    EXPECT_EQ(core_rmdir(sub.c_str()), 1);
    EXPECT_EQ(core_fremove(path.c_str()), 1);
    EXPECT_EQ(core_fremove(path.c_str()), 0);
    EXPECT_EQ(core_fopen(path.c_str(), "rb", CORE_HERE), nullptr);
    EXPECT_EQ(core_fopen(path.c_str(), "w mode of too many letters", CORE_HERE), nullptr);
}

}  // namespace
