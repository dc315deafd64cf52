#include "core/memory.h"

#include "platform/sanitizer.h"
#include "platform/thread_local.h"

#include "core/owned.h"
#include "core/text.h"

#include <cstring>
#include <gtest/gtest.h>
#include <latch>
#include <map>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using sites_t = std::map<std::pair<std::string, int>, std::pair<size_t, size_t>>;

sites_t report() {
    sites_t sites;
    const auto visit = [](void* arg, const mem_site_t* site) {
        static_cast<sites_t*>(arg)->insert({{site->file, site->line}, {site->blocks, site->bytes}});
    };
    const size_t lines = core_mem_report(visit, &sites);
    EXPECT_EQ(lines, sites.size()) << "each line is visited once";
    return sites;
}

/// Lives longer than main(), and longer than the allocator's own thread-local parts.
struct outliving_t {
    ~outliving_t() { core_mfree(core_malloc(10, CORE_HERE)); }
    core::owned_text before_main{core_strdup("made before main", CORE_HERE)};
} outliving;

TEST(Memory, WorksBeforeMain) {
    EXPECT_STREQ(outliving.before_main.get(), "made before main");
    outliving.before_main.reset();  // what is still held after the tests is a failure
}

TEST(Memory, ReportSumsByAllocatingLine) {
    const char same_text[2][8] = {"one.cpp", "one.cpp"};  // a header's line, compiled into two sources
    void* blocks[] = {core_malloc(100, same_text[0], 7), core_malloc(0, same_text[1], 7), core_calloc(3, 5, "two", 7),
                      core_realloc(nullptr, 8, "one.cpp", 8)};
    const sites_t expected = {{{"one.cpp", 7}, {2, 100}}, {{"one.cpp", 8}, {1, 8}}, {{"two", 7}, {1, 15}}};
    EXPECT_EQ(report(), expected);
    EXPECT_EQ(core_mem_blocks(), 4u);
    EXPECT_EQ(core_mem_bytes(), 123u);
    EXPECT_STREQ(core_mem_file(blocks[2]), "two");
    EXPECT_EQ(core_mem_line(blocks[3]), 8);
    EXPECT_EQ(core_mem_size(blocks[0]), 100u);
    for (void* block : blocks) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
        core_mfree(block);
    }
    EXPECT_EQ(report(), sites_t());
    EXPECT_EQ(core_mem_bytes(), 0u);
    std::vector<core::owned<void>> many;
    for (int line = 0; line < 3000; ++line)
        many.emplace_back(core_malloc(1, "many", line));
    EXPECT_EQ(report().size(), 3000u);
    EXPECT_EQ(core_mem_line(many.back().get()), 2999);
}

TEST(Memory, ReallocKeepsContentAndMovesToTheNewLineAndRefusalsLeaveTheBlock) {
    auto* block = static_cast<uint8_t*>(core_malloc(1, "old", 1));
    for (const size_t size : {3u, 100000u, 50u, 2u, 5000u}) {
        const size_t kept = std::min(core_mem_size(block), size);
        std::iota(block, block + core_mem_size(block), uint8_t{1});
        block = static_cast<uint8_t*>(core_realloc(block, size, "new", 2));
        for (size_t i = 0; i < kept; ++i)
            ASSERT_EQ(block[i], static_cast<uint8_t>(i + 1)) << size;
        EXPECT_EQ(report(), (sites_t{{{"new", 2}, {1, size}}}));
    }
    core_mem_set_fault([](size_t size, const char*, int line) { return size == 8 && line == 3; });
    for (const size_t impossible : {size_t{8}, SIZE_MAX, SIZE_MAX - 16}) {
        EXPECT_EQ(core_realloc(block, impossible, "failed", 3), nullptr);
        EXPECT_EQ(core_malloc(impossible, "failed", 3), nullptr);
        EXPECT_EQ(core_calloc(impossible == 8 ? 4 : impossible, 2, "failed", 3), nullptr);
    }
    core_mem_set_fault(nullptr);
    EXPECT_EQ(block[1], 2);
    EXPECT_EQ(report(), (sites_t{{{"new", 2}, {1, 5000}}}));
    core_mfree(block);
}

// More threads than have counters of their own, releasing what others made, also while their thread-local objects end.
TEST(Memory, CountsAreExactAcrossThreads) {
    struct at_end_t {
        ~at_end_t() { core_mfree(block); }
        void* block = nullptr;
    };
    constexpr size_t threads = 80;
    for (int round = 0; round < 3; ++round) {
        std::vector<void*> blocks(threads);
        std::latch all_made(threads);
        std::vector<std::thread> running;
        for (size_t i = 0; i < threads; ++i)
            running.emplace_back([&, i] {
                blocks[i] = core_malloc(i, "thread", static_cast<int>(i % 7));
                if (core::platform::thread_locals_end_whole) {
                    static thread_local at_end_t at_end;
                    at_end.block = core_malloc(i, "at end", 1);
                }
                all_made.arrive_and_wait();
                for (size_t k = 0; k < 500; ++k)
                    core_mfree(core_malloc(k, "passing", static_cast<int>(k % 5)));
                core_mfree(blocks[(i + 1) % threads]);
            });
        for (std::thread& thread : running)
            thread.join();
        EXPECT_EQ(report(), sites_t());
        EXPECT_EQ(core_mem_bytes(), 0u);
    }
}

TEST(MemoryDeathTest, WhatIsNoBlockEndsTheProcess) {
    alignas(std::max_align_t) static char foreign[64] = {};
    auto* block = static_cast<char*>(core_malloc(100, CORE_HERE));
    for (char* wrong : {foreign + 32, block + 16, block + 1})
        EXPECT_DEATH(core_mfree(wrong), "core: block");
    const auto overwrite = [block] {
        volatile char* const before = block - 1;
        *before = static_cast<char>(*before ^ 1);
        core_mfree(block);
    };
    EXPECT_DEATH(overwrite(), core::platform::address_checker ? "use-after-poison" : "core: block");
    core_mfree(block);
    EXPECT_DEATH(core_mfree(block), "core: block");
    EXPECT_DEATH(core_realloc(block, 1, CORE_HERE), "core: block");
}

TEST(Owned, StorageIsNamedAfterTheLineThatMadeTheContainer) {
    core::vector<int> numbers;
    const int line = __LINE__;
    core::string joined;
    numbers = {1, 2, 3};
    joined = core::string(100, 'a') + "b";
    EXPECT_STREQ(core_mem_file(numbers.data()), __FILE__);
    EXPECT_EQ(core_mem_line(numbers.data()), line - 1);
    EXPECT_STREQ(core_mem_file(joined.data()), __FILE__);
}

}  // namespace
