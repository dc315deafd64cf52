// Files, directories, and options in a file.
#include "core/file.h"

#include "support/files.h"
#include "support/held.h"
#include "support/scratch.h"
#include "support/side_thread.h"

#include "core/memory.h"
#include "core/option.h"
#include "core/owned.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

void store(const std::string& path, const std::string& content) { test::write_file(path, test::bytes_of(content)); }

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
    const std::string new_path = dir / "content.new";
};

using Option = File;

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
        store(path, content);
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
    store(inner, "new");
    store(path, "old");
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

using options = test::held<opt_ctx, core_opt_free>;

options open(const std::string& path) { return options(core_opt_create(path.c_str(), CORE_HERE)); }

std::string get(const options& from, const char* key) {
    return core::owned_text(core_opt_get(from.get(), key, "(missing)", CORE_HERE)).get();
}

TEST_F(Option, AnyValueComesBackFromTheFile) {
    const std::pair<const char*, std::string> cases[] = {
        {"plain", "value"},           {"empty", ""},          {"equals", "a=b=c"},    {"lines", "one\ntwo\r\nthree\n"},
        {"slash", "C:\\new\\road\\"}, {"escape", "\\n\\\\n"}, {"blank key ", "  x "}, {"#odd", "\x01\x7f\xff é"}};
    {
        const options written = open(path);
        for (const auto& [key, value] : cases)
            EXPECT_EQ(core_opt_set(written.get(), key, value.c_str()), 1);
        EXPECT_EQ(core_opt_save(written.get()), 1);
    }
    const options read = open(path);
    for (const auto& [key, value] : cases)
        EXPECT_EQ(get(read, key), value) << key;
    EXPECT_EQ(get(read, "Plain"), "(missing)");
    EXPECT_EQ(core_opt_set(read.get(), "plain", nullptr), 1);
    EXPECT_EQ(get(read, "plain"), "(missing)");
}

TEST_F(Option, FileOfAnyContentIsRead) {
    store(path, std::string("a=1\r\nno option\n=no key\nb=\\q\\\na=2\n") + std::string("z=\0\0\n", 5) +
                    std::string(4, '\0') + "\n" + std::string(256, 'k') + "=long key\nlast=no line end");
    const options read = open(path);
    EXPECT_EQ(core_opt_save(read.get()), 1);
    EXPECT_EQ(test::read_file(path), "a=2\nb=\\\\q\\\\\nlast=no line end\n");
}

TEST_F(Option, TakesWhatFits) {
    const options o = open(path);
    const struct {
        const char* text;
        int32_t number;
        int64_t large;
    } cases[] = {{"-17", -17, -17},
                 {"2147483647", INT32_MAX, INT32_MAX},
                 {"2147483648", 7, 2'147'483'648},
                 {"-9223372036854775808", 7, INT64_MIN},
                 {"9223372036854775808", 7, 7},
                 {"12x", 7, 7},
                 {" 12", 7, 7},
                 {"", 7, 7},
                 {nullptr, 7, 7}};
    for (const auto& c : cases) {
        core_opt_set(o.get(), "n", c.text);
        EXPECT_EQ(core_opt_get_int(o.get(), "n", 7), c.number) << c.text;
        EXPECT_EQ(core_opt_get_int64(o.get(), "n", 7), c.large) << c.text;
    }
    EXPECT_EQ(core_opt_set_int(o.get(), "n", INT32_MIN), 1);
    EXPECT_EQ(core_opt_get_int(o.get(), "n", 7), INT32_MIN);
    EXPECT_EQ(core_opt_set_int64(o.get(), "n", INT64_MIN), 1);
    EXPECT_EQ(get(o, "n"), "-9223372036854775808");
    const std::string limit(255, 'k');
    EXPECT_EQ(core_opt_set(o.get(), limit.c_str(), "v"), 1);
    for (const std::string& key :
         {std::string(), limit + 'k', std::string("a=b"), std::string("a\n"), std::string("\r")})
        EXPECT_EQ(core_opt_set(o.get(), key.c_str(), "v"), 0) << key;
}

TEST_F(Option, IsSavedWholeOrNotAtAll) {
    store(path, "a=old\n");
    store(new_path, "a=left over by a crash\nb=1\n");
    const options o = open(path);
    EXPECT_EQ(core_opt_save(o.get()), 1);
    EXPECT_EQ(test::read_file(path), "a=old\n");
    EXPECT_FALSE(std::filesystem::exists(new_path));
    core_opt_set(o.get(), "a", "new");
    // A directory in the place of the new file fails for every user, also for root.
    std::filesystem::create_directory(new_path);
    EXPECT_EQ(core_opt_save(o.get()), 0);
    std::filesystem::remove(new_path);
    core_opt_set(o.get(), "big", std::string(1 << 20, 'x').c_str());
    EXPECT_EQ(core_opt_save(o.get()), 0) << "it could not be read again";
    EXPECT_EQ(test::read_file(path), "a=old\n");
    core_opt_set(o.get(), "big", nullptr);
    EXPECT_EQ(core_opt_save(o.get()), 1);
    EXPECT_EQ(test::read_file(path), "a=new\n");
}

TEST_F(Option, FileAboveTheLimitCountsAsMissingAndOneThatCannotBeReadDoesNot) {
    const std::string full = "a=1\nb=" + std::string(1024 * 1024 - 6, 'x');
    store(path, full);
    EXPECT_EQ(get(open(path), "a"), "1");
    store(path, full + 'x');
    EXPECT_EQ(get(open(path), "a"), "(missing)");
    EXPECT_EQ(core_opt_create((dir / "").c_str(), CORE_HERE), nullptr) << "a directory";
}

TEST_F(Option, ThreadsShareAHandle) {
    const options shared = open(path);
    test::on_four_threads([&shared] {
        for (int i = 0; i < 6; ++i) {
            core_opt_set_int(shared.get(), i % 2 ? "odd" : "even", i);
            core_opt_get_int(shared.get(), "odd", 0);
            EXPECT_EQ(core_opt_save(shared.get()), 1);
        }
    });
    EXPECT_EQ(test::read_file(path), "even=4\nodd=5\n");
}

}  // namespace
