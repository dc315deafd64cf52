#include "core/option.h"

#include "support/fault.h"
#include "support/files.h"
#include "support/scratch.h"
#include "support/side_thread.h"

#include "core/memory.h"
#include "core/owned.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

struct options {
    explicit options(const std::string& path) : opt(core_opt_create(path.c_str(), CORE_HERE)) {}
    options(const options&) = delete;
    options& operator=(const options&) = delete;
    ~options() { core_opt_free(opt); }

    std::string get(const char* key) const {
        const core::owned_text value(core_opt_get(opt, key, "(missing)", CORE_HERE));
        return value ? value.get() : "(null)";
    }
    opt_ctx* opt;
};

void store(const std::string& path, const std::string& content) { test::write_file(path, test::bytes_of(content)); }

class Option : public testing::Test {
protected:
    const test::scratch dir;
    const std::string path = dir / "options";
    const std::string new_path = dir / "options.new";
};

TEST_F(Option, AnyValueComesBackFromTheFile) {
    const std::pair<const char*, std::string> cases[] = {
        {"plain", "value"},           {"empty", ""},          {"equals", "a=b=c"},    {"lines", "one\ntwo\r\nthree\n"},
        {"slash", "C:\\new\\road\\"}, {"escape", "\\n\\\\n"}, {"blank key ", "  x "}, {"#odd", "\x01\x7f\xff é"},
    };
    {
        const options written(path);
        for (const auto& [key, value] : cases)
            EXPECT_EQ(core_opt_set(written.opt, key, value.c_str()), 1);
        EXPECT_EQ(core_opt_save(written.opt), 1);
        EXPECT_EQ(core_opt_path(written.opt), path);
    }
    const options read(path);
    for (const auto& [key, value] : cases)
        EXPECT_EQ(read.get(key), value) << key;
    EXPECT_EQ(read.get("Plain"), "(missing)");
    EXPECT_EQ(core_opt_get(read.opt, "Plain", nullptr, CORE_HERE), nullptr);
    EXPECT_EQ(core_opt_set(read.opt, "plain", nullptr), 1);
    EXPECT_EQ(read.get("plain"), "(missing)");
    EXPECT_FALSE(std::filesystem::exists(new_path));
}

TEST_F(Option, FileOfAnyContentIsRead) {
    store(path, std::string("a=1\r\nno option\n=no key\nb=\\q\\\na=2\n") + std::string("z=\0\0\n", 5) +
                    std::string(4, '\0') + "\n" + std::string(256, 'k') + "=long key\nlast=no line end");
    const options read(path);
    EXPECT_EQ(read.get("a"), "2");
    EXPECT_EQ(read.get("b"), "\\q\\");
    EXPECT_EQ(read.get("last"), "no line end");
    EXPECT_EQ(core_opt_save(read.opt), 1);
    EXPECT_EQ(test::read_file(path), "a=2\nb=\\\\q\\\\\nlast=no line end\n");
}

TEST_F(Option, Numbers) {
    const options o(path);
    const struct {
        const char* text;
        int32_t number;
        int64_t large;
    } cases[] = {
        {"0", 0, 0},
        {"-17", -17, -17},
        {"2147483647", INT32_MAX, INT32_MAX},
        {"2147483648", 7, 2'147'483'648},
        {"-9223372036854775808", 7, INT64_MIN},
        {"9223372036854775808", 7, 7},
        {"12x", 7, 7},
        {" 12", 7, 7},
        {"", 7, 7},
        {"0x10", 7, 7},
    };
    for (const auto& c : cases) {
        core_opt_set(o.opt, "n", c.text);
        EXPECT_EQ(core_opt_get_int(o.opt, "n", 7), c.number) << c.text;
        EXPECT_EQ(core_opt_get_int64(o.opt, "n", 7), c.large) << c.text;
    }
    EXPECT_EQ(core_opt_set_int(o.opt, "n", INT32_MIN), 1);
    EXPECT_EQ(core_opt_get_int(o.opt, "n", 7), INT32_MIN);
    EXPECT_EQ(core_opt_set_int64(o.opt, "n", INT64_MIN), 1);
    EXPECT_EQ(core_opt_get_int64(o.opt, "n", 7), INT64_MIN);
    EXPECT_EQ(core_opt_get_int(o.opt, "missing", 7), 7);
}

TEST_F(Option, UnusableKeysAreRefused) {
    const options o(path);
    const std::string limit(255, 'k');
    EXPECT_EQ(core_opt_set(o.opt, limit.c_str(), "v"), 1);
    EXPECT_EQ(o.get(limit.c_str()), "v");
    for (const std::string& key :
         {std::string(), limit + 'k', std::string("a=b"), std::string("a\n"), std::string("\r")})
        EXPECT_EQ(core_opt_set(o.opt, key.c_str(), "v"), 0) << key;
    EXPECT_EQ(core_opt_set(o.opt, nullptr, "v"), 0);
    EXPECT_EQ(core_opt_set(nullptr, "k", "v"), 0);
    EXPECT_EQ(core_opt_create(nullptr, CORE_HERE), nullptr);
}

TEST_F(Option, FileThatCannotBeReadIsNotTakenForAMissingOne) {
    EXPECT_EQ(core_opt_create((dir / "").c_str(), CORE_HERE), nullptr) << "a directory";
}

TEST_F(Option, LeftoverOfACrashIsNeitherReadNorInTheWay) {
    store(path, "a=old\n");
    for (const char* leftover : {"", "a=torn", "a=complete but not renamed\nb=1\n"}) {
        store(new_path, leftover);
        const options o(path);
        EXPECT_EQ(o.get("a"), "old");
        EXPECT_EQ(core_opt_save(o.opt), 1);
        EXPECT_EQ(test::read_file(path), "a=old\n");
        EXPECT_FALSE(std::filesystem::exists(new_path));
    }
}

TEST_F(Option, FailedSaveLeavesTheOldFile) {
    store(path, "a=old\n");
    const options o(path);
    core_opt_set(o.opt, "a", "new");
    // A directory in the place of the new file fails for every user, also for root.
    std::filesystem::create_directory(new_path);
    EXPECT_EQ(core_opt_save(o.opt), 0);
    EXPECT_EQ(test::read_file(path), "a=old\n");
    std::filesystem::remove(new_path);
    core_opt_set(o.opt, "big", std::string(1 << 20, 'x').c_str());
    EXPECT_EQ(core_opt_save(o.opt), 0) << "it could not be read again";
    EXPECT_EQ(test::read_file(path), "a=old\n");
    core_opt_set(o.opt, "big", nullptr);
    EXPECT_EQ(core_opt_save(o.opt), 1);
    EXPECT_EQ(test::read_file(path), "a=new\n");
    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/full");
    EXPECT_EQ(core_opt_save(o.opt), 0);
    EXPECT_FALSE(std::filesystem::exists(new_path)) << "nothing is left lying about";
    const options nowhere(dir / "missing/options");
    EXPECT_EQ(core_opt_save(nowhere.opt), 0);
}

TEST_F(Option, FileAboveTheLimitCountsAsMissing) {
    const std::string full = "a=1\nb=" + std::string(1024 * 1024 - 6, 'x');
    store(path, full);
    EXPECT_EQ(options(path).get("a"), "1");
    store(path, full + 'x');
    EXPECT_EQ(options(path).get("a"), "(missing)");
}

TEST_F(Option, LackOfMemoryNeverLosesAnOption) {
    const std::string content = "a=1\nb=" + std::string(5000, 'b') + "\n";
    store(path, content);
    EXPECT_GT(test::fail_each_allocation([&] {
                  const options o(path);
                  core_mfree(core_opt_get(o.opt, "a", nullptr, CORE_HERE));
                  const int set = core_opt_set(o.opt, "a", std::string(100, '1').c_str());
                  if (core_opt_save(o.opt)) {
                      EXPECT_EQ(test::read_file(path).size(), content.size() + (set ? 99 : 0));
                  }
                  store(path, content);
              }),
              5U);
}

TEST_F(Option, ThreadsShareAHandle) {
    const options shared(path);
    test::on_four_threads([&shared] {
        for (int i = 0; i < 6; ++i) {
            core_opt_set_int(shared.opt, i % 2 ? "odd" : "even", i);
            core_opt_get_int(shared.opt, "odd", 0);
            EXPECT_EQ(core_opt_save(shared.opt), 1);
        }
    });
    EXPECT_EQ(test::read_file(path), "even=4\nodd=5\n");
}

}  // namespace
