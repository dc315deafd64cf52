// Paths that the system's calls would not take as they are, and files that are open elsewhere.
#include "support/files.h"
#include "support/scratch.h"

#include "core/file.h"
#include "core/memory.h"

#include <gtest/gtest.h>
#include <string>

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

}  // namespace
