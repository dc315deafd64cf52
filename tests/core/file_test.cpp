// Files, directories, options in a file, and libraries that are loaded from one.
#include "core/file.h"

#include "platform/system.h"
#include "support/files.h"
#include "support/scratch.h"

#include "core/memory.h"
#include "core/module.h"
#include "core/option.h"
#include "core/owned.h"

#include <gtest/gtest.h>

namespace {

using options = core::owned<opt_ctx, core_opt_free>;

options open(const std::string& path) { return options(core_opt_create(path.c_str(), CORE_HERE)); }

void store(const std::string& path, const std::string& content) { test::write_file(path, test::bytes_of(content)); }

std::string loaded(const std::string& path, size_t limit) {
    size_t size = 777;
    const core::owned<uint8_t> content(core_file_load(path.c_str(), limit, &size, CORE_HERE));
    if (!content) return "(null)";
    EXPECT_EQ(content.get()[size], 0);
    return {reinterpret_cast<const char*>(content.get()), size};
}

class File : public testing::Test {
protected:
    const test::scratch dir;
    const std::string path = dir / "content";
};

using Option = File;

TEST_F(File, WritesReadsSeeksAndMoves) {
    const std::string odd = dir / "Größe 录像 😀";
    const std::string inner = odd + "/inner";
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(core_mkdir(odd.c_str()), 1) << "it may be there";
    file_ctx* file = core_fopen(inner.c_str(), "w+b", CORE_HERE);
    core_fwrite(file, "hello world", 11);
    char text[6] = {};
    EXPECT_EQ(core_fseek(file, 6), 1);
    EXPECT_EQ(core_fread(file, text, 5), 5U);
    EXPECT_STREQ(text, "world");
    EXPECT_EQ(core_fsync(file), 1);
    EXPECT_EQ(loaded(inner, 100), "hello world") << "also before the file is closed";
    EXPECT_EQ(core_fseek(file, int64_t{5} << 32), 1);
    EXPECT_EQ(core_ftell(file), int64_t{5} << 32);
    EXPECT_EQ(core_fclose(file), 1);
    store(path, "old");
    EXPECT_EQ(core_mkdir(path.c_str()), 0) << "a file is no directory";
    EXPECT_EQ(core_rmdir(odd.c_str()), 0) << "not empty";
    EXPECT_EQ(core_frename(inner.c_str(), path.c_str()), 1);
    EXPECT_EQ(core_rmdir(odd.c_str()), 1);
    EXPECT_EQ(core_fremove(path.c_str()), 1);
}

TEST_F(File, LoadIsBounded) {
    for (const size_t size : {0, 4095, 4096, 4097, 100'000}) {
        const std::string content(size, 'c');
        store(path, content);
        EXPECT_EQ(loaded(path, size), content);
        EXPECT_EQ(loaded(path, SIZE_MAX - 1), content);
        EXPECT_EQ(loaded(path, size - 1), "(null)") << size;
    }
    EXPECT_EQ(loaded(dir / "", 100), "(null)") << "a directory";
}

TEST_F(Option, FileOfAnyContentIsReadAndAnyValueComesBack) {
    store(path, std::string("a=1\r\nno option\n=no key\nb=\\q\\\na=2\n") + std::string("z=\0\0\n", 5) +
                    std::string(4, '\0') + "\n" + std::string(256, 'k') + "=long key\nlast=no line end");
    const char* const value = " one\ntwo\r\n\\n\\\\n=\x01 é\\";
    const options written = open(path);
    EXPECT_EQ(core_opt_set(written.get(), " #odd ", value), 1);
    EXPECT_EQ(core_opt_save(written.get()), 1);
    EXPECT_STREQ(core::owned_text(core_opt_get(open(path).get(), " #odd ", nullptr, CORE_HERE)).get(), value);
    EXPECT_EQ(loaded(path, 999),
              " #odd = one\\ntwo\\r\\n\\\\n\\\\\\\\n=\x01 é\\\\\na=2\nb=\\\\q\\\\\nlast=no line end\n");
}

TEST_F(Option, TakesWhatFits) {
    const options o = open(path);
    const std::pair<const char*, int64_t> cases[] = {
        {"2147483648", 2'147'483'648}, {"-2147483648", INT32_MIN}, {"9223372036854775808", 7}, {"12x", 7}};
    for (const auto& [text, number] : cases) {
        core_opt_set(o.get(), "n", text);
        EXPECT_EQ(core_opt_get_int64(o.get(), "n", 7), number) << text;
        EXPECT_EQ(core_opt_get_int(o.get(), "n", 7), number > INT32_MAX ? 7 : number) << text;
    }
    const std::string limit(255, 'k'), beyond = limit + 'k';
    core_opt_set_int64(o.get(), limit.c_str(), INT64_MIN);
    EXPECT_EQ(core_opt_get_int64(o.get(), limit.c_str(), 7), INT64_MIN);
    for (const char* key : {"", "a=b", "a\n", beyond.c_str()})
        EXPECT_EQ(core_opt_set(o.get(), key, "v"), 0) << key;
}

TEST_F(Option, IsSavedWholeOrNotAtAll) {
    const std::string full = "a=1\nb=" + std::string((1 << 20) - 7, 'x') + "\n";
    store(path, full);
    store(path + ".new", "a=left over by a crash\nb=1\n");
    const options o = open(path);
    EXPECT_EQ(core_opt_save(o.get()), 1);
    core_opt_set(o.get(), "a", "12");
    EXPECT_EQ(core_opt_save(o.get()), 0) << "it could not be read again";
    EXPECT_EQ(test::read_file(path), full);
    store(path, full + "\n");
    const options beyond = open(path);
    EXPECT_EQ(core_opt_get_int(beyond.get(), "a", 7), 7);
    EXPECT_EQ(core_opt_save(beyond.get()), 0);
    EXPECT_EQ(test::read_file(path), full + "\n") << "above the limit it is left alone";
    EXPECT_EQ(core_fremove(path.c_str()), 1);
    EXPECT_EQ(core_mkdir(path.c_str()), 1);
    core_opt_set(o.get(), "b", nullptr);
    EXPECT_EQ(core_opt_save(o.get()), 0);
    EXPECT_EQ(loaded(path + ".new", 99), "(null)");
    EXPECT_EQ(open(path), nullptr) << "it is there, but cannot be read";
}

// INET_MODULE_FIXTURE is the path of a library that stands beside this program.
TEST(Module, GivesTheEntriesOfALibraryByPathOrByBareName) {
    const std::string full =
        std::string(core::platform::library_prefix) + "inet_module_fixture" + core::platform::library_suffix;
    for (const char* name : {INET_MODULE_FIXTURE, "inet_module_fixture", full.c_str()}) {
        dll_entry_t entries[] = {{"fixture_twice", nullptr}, {"fixture_loads", nullptr}, {}};
        const core::owned<dll_ctx, core_dll_close> dll(core_dll_open(name, entries, CORE_HERE));
        ASSERT_TRUE(dll) << name;
        EXPECT_EQ(reinterpret_cast<int (*)(int)>(entries[0].function)(21), 42);
        EXPECT_EQ((*static_cast<int*>(entries[1].function))++, 0) << "a library that was unloaded starts anew";
    }
    dll_entry_t entries[] = {{"fixture_thrice", nullptr}, {"fixture_twice", nullptr}, {}};
    EXPECT_FALSE(core_dll_open(INET_MODULE_FIXTURE, entries, CORE_HERE));
    EXPECT_TRUE(!entries[0].function && entries[1].function) << "which shows what is missing";
    EXPECT_FALSE(core_dll_open("./inet_module_fixture", entries, CORE_HERE)) << "a path is not completed";
}

}  // namespace
