#include "core/cmd.h"

#include "support/fault.h"
#include "support/side_thread.h"

#include "core/memory.h"

#include <gtest/gtest.h>
#include <string>

namespace {

void append(void* owner, void* arg) { *static_cast<std::string*>(owner) += static_cast<const char*>(arg); }

char a[] = "a";
char b[] = "b";

TEST(Cmd, RunsInOrderWhatWasPostedBefore) {
    struct owner_t {
        cmd_ctx* cmd = nullptr;
        std::string ran;
    } owner;
    owner.cmd = core_cmd_open(&owner, CORE_HERE);
    const auto note = [](void* o, void* arg) { static_cast<owner_t*>(o)->ran += static_cast<const char*>(arg); };
    const auto again = [](void* o, void*) {
        static_cast<owner_t*>(o)->ran += "again ";
        core_cmd_exec(
            static_cast<owner_t*>(o)->cmd, [](void* p, void*) { static_cast<owner_t*>(p)->ran += "next"; }, nullptr);
    };
    EXPECT_EQ(core_cmd_exec(owner.cmd, note, a), 1);
    EXPECT_EQ(core_cmd_exec(owner.cmd, again, nullptr), 1);
    EXPECT_EQ(core_cmd_exec(owner.cmd, note, b), 1);
    EXPECT_EQ(core_cmd_process(owner.cmd), 3U);
    EXPECT_EQ(owner.ran, "aagain b");
    EXPECT_EQ(core_cmd_process(owner.cmd), 1U);
    EXPECT_EQ(owner.ran, "aagain bnext");
    EXPECT_EQ(core_cmd_process(owner.cmd), 0U);
    EXPECT_EQ(core_cmd_exec(owner.cmd, nullptr, nullptr), 0);
    EXPECT_EQ(core_cmd_exec(nullptr, note, nullptr), 0);
    EXPECT_EQ(core_cmd_process(nullptr), 0U);
    core_cmd_exec(owner.cmd, note, a);
    core_cmd_close(owner.cmd);
    EXPECT_FALSE(owner.cmd);
    EXPECT_EQ(owner.ran, "aagain bnext") << "what was not run is dropped";
}

TEST(Cmd, QueueThatHasGrownPostsWithoutMemory) {
    std::string ran;
    cmd_ctx* cmd = core_cmd_open(&ran, CORE_HERE);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 10; ++i)
            core_cmd_exec(cmd, append, a);
        core_cmd_process(cmd);
    }
    core_mem_set_fault([](size_t, const char*, int) { return true; });
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(core_cmd_exec(cmd, append, b), 1);
        EXPECT_EQ(core_cmd_process(cmd), 10U);
    }
    core_mem_set_fault(nullptr);
    EXPECT_EQ(ran, std::string(20, 'a') + std::string(40, 'b'));
    core_cmd_close(cmd);
}

TEST(Cmd, PostWithoutMemoryIsRefused) {
    EXPECT_GT(test::fail_each_allocation([] {
                  std::string ran;
                  cmd_ctx* cmd = core_cmd_open(&ran, CORE_HERE);
                  const int posted = core_cmd_exec(cmd, append, a);
                  core_cmd_process(cmd);
                  EXPECT_EQ(ran, posted ? "a" : "");
                  core_cmd_close(cmd);
              }),
              1U);
}

TEST(Cmd, EveryThreadsCallsRunOnce) {
    uint32_t total = 0;  // touched by the processing thread alone
    cmd_ctx* cmd = core_cmd_open(&total, CORE_HERE);
    uint32_t ran = 0;
    {
        const test::side_thread posters([cmd] {
            test::on_four_threads([cmd] {
                const auto count = [](void* owner, void*) { ++*static_cast<uint32_t*>(owner); };
                for (int n = 0; n < 2000; ++n)
                    core_cmd_exec(cmd, count, nullptr);
            });
        });
        while (ran < 8000)
            ran += core_cmd_process(cmd);
    }
    EXPECT_EQ(ran + core_cmd_process(cmd), 8000U);
    EXPECT_EQ(total, 8000U);
    core_cmd_close(cmd);
}

}  // namespace
