// Paths that the system's calls would not take as they are, and files that are open elsewhere.
#include "support/scratch.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>

namespace {

bool has_content(const std::string& path, const std::string& content) {
    size_t size = 0;
    const core::owned<uint8_t> loaded(core_file_load(path.c_str(), 100, &size, CORE_HERE));
    return loaded && content == std::string(reinterpret_cast<const char*>(loaded.get()), size);
}

void store(const std::string& path, const std::string& content) {
    file_ctx* file = core_fopen(path.c_str(), "w", CORE_HERE);
    ASSERT_TRUE(file) << path;
    core_fwrite(file, content.data(), content.size());
    EXPECT_EQ(core_fclose(file), 1);
}

TEST(File, PathsBeyondTheOldBound) {
    const test::scratch dir;
    std::string path = dir / "records";
    for (int depth = 0; depth < 8; ++depth) {
        ASSERT_EQ(core_mkdir(path.c_str()), 1) << path.size();
        path += '/' + std::string(60, static_cast<char>('a' + depth));
    }
    store(path, "far\ndown");
    EXPECT_TRUE(has_content(path, "far\ndown")) << "line ends stay as they are";
    EXPECT_EQ(core_frename(path.c_str(), (path + ".old").c_str()), 1);
    EXPECT_EQ(core_fremove((path + ".old").c_str()), 1);
    EXPECT_FALSE(core_fopen((dir / "").append(5000, 'x').c_str(), "w", CORE_HERE));
    EXPECT_FALSE(core_fopen((dir / "\xff").c_str(), "w", CORE_HERE)) << "not UTF-8";
}

TEST(File, OpenFileIsReplacedAndRemovedAllTheSame) {
    const test::scratch dir;
    const std::string path = dir / "log";
    store(path, "first");
    file_ctx* reader = core_fopen(path.c_str(), "r", CORE_HERE);
    ASSERT_TRUE(reader);
    file_ctx* writer = core_fopen(path.c_str(), "a", CORE_HERE);
    ASSERT_TRUE(writer) << "two at a time";
    EXPECT_EQ(core_fwrite(writer, " second", 7), 7U);
    EXPECT_EQ(core_fclose(writer), 1);
    char text[16] = {};
    EXPECT_EQ(core_fread(reader, text, sizeof text), 12U);
    EXPECT_STREQ(text, "first second");
    EXPECT_EQ(core_frename(path.c_str(), (dir / "log.1").c_str()), 1);
    EXPECT_EQ(core_fremove((dir / "log.1").c_str()), 1);
    EXPECT_EQ(core_fclose(reader), 1);
    EXPECT_FALSE(core_fopen((dir / "log.1").c_str(), "r", CORE_HERE));
}

}  // namespace
