// Option files that a process is killed over, that nobody may read, that cannot be opened.
#include "support/files.h"
#include "support/scratch.h"

#include "core/memory.h"
#include "core/option.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Option : public testing::Test {
protected:
    const test::scratch dir;
    const std::string path = dir / "options";
};

TEST_F(Option, FileThatCannotBeOpenedIsNotTakenForAMissingOne) {
    std::filesystem::create_symlink(path, path);
    EXPECT_EQ(core_opt_create(path.c_str(), CORE_HERE), nullptr);
}

/// Saves two contents in turn for ever; a byte in the pipe says that it has begun.
[[noreturn]] void save_for_ever(const std::string& path, int started) {
    opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
    for (char digit = '1';; digit = digit == '1' ? '2' : '1') {
        core_opt_set(opt, "a", std::string(100'000, digit).c_str());
        core_opt_save(opt);
        if (write(started, "", 1) != 1) _exit(1);
    }
}

TEST_F(Option, KilledWhileSavingLeavesTheOldOrTheNewContent) {
    const std::string contents[] = {"a=" + std::string(100'000, '1') + "\n", "a=" + std::string(100'000, '2') + "\n"};
    for (useconds_t lifetime = 0; lifetime < 4000; lifetime += 500) {
        int started[2];
        ASSERT_EQ(pipe(started), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) save_for_ever(path, started[1]);
        char byte = 0;
        ASSERT_EQ(read(started[0], &byte, 1), 1);
        usleep(lifetime);  // to another point of a save each time
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        close(started[0]);
        close(started[1]);
        const std::string now = test::read_file(path);
        ASSERT_TRUE(now == contents[0] || now == contents[1]) << now.size() << " bytes after " << lifetime << " us";
    }
}

TEST_F(Option, SaveKeepsTheAccessRights) {
    test::write_file(path, test::bytes_of("password=secret\n"));
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
    EXPECT_EQ(core_opt_save(opt), 1);
    core_opt_free(opt);
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

}  // namespace
