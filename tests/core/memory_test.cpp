// Blocks of memory and what holds them: buffers, lists, queues, posted calls and pairs.
#include "core/memory.h"

#include "platform/toolchain.h"
#include "support/fault.h"
#include "support/threads.h"

#include "core/buf.h"
#include "core/cmd.h"
#include "core/list.h"
#include "core/owned.h"
#include "core/queue.h"
#include "core/slist.h"
#include "core/thread.h"
#include "core/value.h"

#include <gtest/gtest.h>
#include <latch>
#include <map>
#include <thread>
#include <vector>

namespace {

using sites_t = std::multimap<std::pair<std::string, int>, std::pair<size_t, size_t>>;

sites_t report() {
    sites_t sites;
    const auto visit = [](void* arg, const mem_site_t* site) {
        static_cast<sites_t*>(arg)->insert({{site->file, site->line}, {site->blocks, site->bytes}});
    };
    core_mem_report(visit, &sites);
    return sites;
}

/// Lives longer than main(), and longer than the allocator's own thread-local parts.
struct outliving_t {
    ~outliving_t() { core_mfree(core_malloc(10, CORE_HERE)); }
    void* before_main = core_malloc(9, "before main", 1);
} outliving;

TEST(Memory, ReportSumsByAllocatingLine) {
    EXPECT_EQ(report(), (sites_t{{{"before main", 1}, {1, 9}}}));
    core_mfree(outliving.before_main);
    const char same_text[2][8] = {"one.cpp", "one.cpp"};  // a header's line, compiled into two sources
    void* blocks[] = {core_malloc(100, same_text[0], 7), core_malloc(0, same_text[1], 7), core_calloc(3, 5, "two", 7),
                      core_realloc(nullptr, 8, "one.cpp", 8)};
    const sites_t expected = {{{"one.cpp", 7}, {2, 100}}, {{"one.cpp", 8}, {1, 8}}, {{"two", 7}, {1, 15}}};
    EXPECT_EQ(report(), expected);
    EXPECT_EQ(core_mem_blocks(), 4u);
    EXPECT_EQ(core_mem_bytes(), 123u);
    for (void* block : blocks)
        core_mfree(block);
    std::vector<core::owned<void>> many;
    for (int line = 0; line < 3000; ++line)
        many.emplace_back(core_malloc(1, "many", line));
    EXPECT_EQ(report().size(), 3000u);
    EXPECT_EQ(core_mem_line(many.back().get()), 2999);
    core::vector<int> numbers(core::allocator<int>("owner", 5));
    numbers = {1, 2, 3};
    EXPECT_EQ(core_mem_line(numbers.data()), 5) << "the line that made the container";
}

TEST(Memory, ReallocKeepsContentAndMovesToTheNewLineAndRefusalsLeaveTheBlock) {
    auto* block = static_cast<char*>(core_calloc(1, 2, "old", 1));
    *block = 'x';
    for (const size_t size : {100'000, 50, 2, 5000}) {
        block = static_cast<char*>(core_realloc(block, size, "new", 2));
        EXPECT_STREQ(block, "x");
        EXPECT_EQ(report(), (sites_t{{{"new", 2}, {1, size}}}));
    }
    core_mem_set_fault([](size_t size, const char*, int line) { return size == 8 && line == 3; });
    for (const size_t impossible : {size_t{8}, SIZE_MAX, SIZE_MAX - 16}) {
        EXPECT_EQ(core_realloc(block, impossible, "failed", 3), nullptr);
        EXPECT_EQ(core_malloc(impossible, "failed", 3), nullptr);
        EXPECT_EQ(core_calloc(impossible == 8 ? 4 : impossible, 2, "failed", 3), nullptr);
    }
    core_mem_set_fault(nullptr);
    EXPECT_EQ(report(), (sites_t{{{"new", 2}, {1, 5000}}}));
    core_mfree(block);
}

// More threads than have counters of their own, releasing what others made, also while their thread-local objects end.
TEST(Memory, CountsAreExactAcrossThreads) {
    constexpr size_t threads = 80;
    for (int round = 0; round < 3; ++round) {
        std::vector<void*> blocks(threads);
        std::latch all_made(threads);
        std::vector<std::jthread> running;
        for (size_t i = 0; i < threads; ++i)
            running.emplace_back([&, i] {
                blocks[i] = core_malloc(i, "thread", static_cast<int>(i % 7));
                if (core::platform::thread_locals_end_whole) {
                    static thread_local core::owned<void> at_end;
                    at_end.reset(core_malloc(i, "at end", 1));
                }
                all_made.arrive_and_wait();
                for (size_t k = 0; k < 500; ++k)
                    core_mfree(core_malloc(k, "passing", static_cast<int>(k % 5)));
                core_mfree(blocks[(i + 1) % threads]);
            });
        running.clear();
        EXPECT_EQ(report(), sites_t());
        EXPECT_EQ(core_mem_bytes(), 0u);
    }
}

TEST(MemoryDeathTest, WhatIsNoBlockEndsTheProcess) {
    alignas(std::max_align_t) static char foreign[64] = {};
    auto* block = static_cast<char*>(core_malloc(100, CORE_HERE));
    for (char* wrong : {foreign + 32, block + 16, block + 1})
        EXPECT_DEATH(core_mfree(wrong), "core: block");
    core_mfree(block);
    EXPECT_DEATH(core_mfree(block), "core: block");
}

TEST(Buf, GrowsInLargerAndLargerStepsDropsFromTheFrontAndIsCut) {
    buf_t buf{};
    core_buf_respace(&buf, 1, "opened", 3);
    const test::allocation_count allocations;
    for (int i = 0; i < 10'000; ++i)
        core_buf_read(&buf, "0123456789", 10);
    EXPECT_LE(allocations.value(), 20U);
    EXPECT_STREQ(core_mem_file(buf.data), "opened");
    core_buf_ignore(&buf, 99'997);
    core_buf_resize(&buf, 2, CORE_HERE);
    EXPECT_EQ(std::string(buf.data, buf.data + buf.length), "78");
    core_buf_ignore(&buf, 3);
    EXPECT_EQ(buf.length, 0U);
    core_buf_free(&buf);
    buf_t full{nullptr, UINT32_MAX, UINT32_MAX};
    EXPECT_EQ(core_buf_respace(&full, 1, CORE_HERE), 0);
}

TEST(Buf, SpansAreSetFilledUpWithZerosSearchedAndWrittenInHex) {
    buffer_t span{};
    EXPECT_EQ(core_buffer_unhex(&span, "612D00aF", CORE_HERE), 1);
    EXPECT_EQ(core_buffer_unhex(&span, "0g", CORE_HERE), 0);
    core_buffer_set(&span, span.data + 1, 3, CORE_HERE);
    buffer_resize(&span, 5, CORE_HERE);
    EXPECT_STREQ(core::owned_text(core_buffer_hex(&span, CORE_HERE)).get(), "2d00af0000");
    const buffer_t zeros{span.data + 3, 2};
    EXPECT_EQ(core_buffer_find(&span, &zeros), zeros.data);
    core_buffer_free(&span);
}

TEST(List, MayBeTakenApartDuringAWalk) {
    char items[] = "abcde";
    const core::owned<list_ctx, core_list_free> held(core_list_create(CORE_HERE));
    list_ctx* const list = held.get();
    for (const size_t i : {1, 2, 3, 1})
        core_list_enqueue(list, &items[i], CORE_HERE);
    core_list_add(list, &items[0], CORE_HERE);
    EXPECT_EQ(list_delete(list, &items[1]), 1) << "the first of both";
    std::string seen;
    list_iterate_start(list);
    while (void* item = list_next(list)) {
        seen += *static_cast<char*>(item);
        EXPECT_EQ(list_delete(list, list_find(list, item, nullptr)), 1);
        if (seen == "ac") list_delete(list, &items[3]);
        if (seen == "acb") core_list_enqueue(list, &items[4], CORE_HERE);
    }
    EXPECT_EQ(seen, "acbe");
    EXPECT_EQ(list_count(list), 0U);
}

TEST(Queue, TakesBackOnlyWhatIsOut) {
    const core::owned<queue_ctx, core_queue_close> queue(core_queue_open(2, 3, CORE_HERE));
    char* const a = static_cast<char*>(core_queue_get_free(queue.get()));
    char* const b = static_cast<char*>(core_queue_get_free(queue.get()));
    EXPECT_EQ(core_queue_get_free(queue.get()), nullptr);
    for (const auto& [item, taken] : {std::pair(b, 1), {b, 0}, {b + (b - a), 0}, {a + 1, 0}, {a, 1}})
        EXPECT_EQ(core_queue_put_full(queue.get(), item), taken);
    for (char* item : {b, a, static_cast<char*>(nullptr)})
        EXPECT_EQ(core_queue_get_full(queue.get()), item);
}

TEST(Cmd, RunsInOrderWhatWasPostedBefore) {
    std::string ran;
    cmd_ctx* cmd = core_cmd_open(&ran, CORE_HERE);
    static constexpr auto note = [](void* to, void*) { *static_cast<std::string*>(to) += '.'; };
    const auto post = [](void* to, void* posts_to) {
        *static_cast<std::string*>(to) += 'p';
        core_cmd_exec(static_cast<cmd_ctx*>(posts_to), note, nullptr);
    };
    core_cmd_exec(cmd, post, cmd);
    core_cmd_exec(cmd, note, nullptr);
    for (const uint32_t calls : {2, 1, 0})
        EXPECT_EQ(core_cmd_process(cmd), calls);
    core_cmd_exec(cmd, note, nullptr);
    core_cmd_close(cmd);
    EXPECT_EQ(ran, "p..") << "what was left is dropped";
}

TEST(Containers, LoseNothingAmongFourThreads) {
    uint32_t count = 0;
    volatile uint32_t word = 8;
    EXPECT_EQ(atomic_cas32(&word, 9, 8), 8U);
    const core::owned<queue_ctx, core_queue_close> queue(core_queue_open(4, sizeof(uint32_t), CORE_HERE));
    const core::owned<slist, slist_free> list(_slist_init(CORE_HERE));
    const core::owned<lock_ctx, core_lock_delete> lock(core_lock_create(CORE_HERE));
    test::on_four_threads([&] {
        for (uint32_t i = 0; i < 3000; ++i) {
            auto* const item = static_cast<uint32_t*>(core_queue_get_free(queue.get()));
            ++*item;
            EXPECT_EQ(core_queue_put_full(queue.get(), item), 1);
            EXPECT_EQ(core_queue_put_free(queue.get(), core_queue_get_full(queue.get())), 1);
            _slist_enqueue(list.get(), &count, CORE_HERE);
            EXPECT_EQ(slist_pop(list.get()), &count);
            atomic_inc32(&word);
            lock_enter(lock.get());
            lock_enter(lock.get());
            ++count;
            lock_leave(lock.get());
            lock_leave(lock.get());
        }
    });
    EXPECT_EQ(count + 9, atomic_get32(&word));
    for (int i = 0; i < 4; ++i)
        count -= *static_cast<uint32_t*>(core_queue_get_free(queue.get()));
    EXPECT_EQ(count, 0U);
}

TEST(Value, IsANumberWhereItFits) {
    const std::pair<const char*, uint64_t> cases[] = {{" 42;x", 42},
                                                      {"4294967295", UINT32_MAX},
                                                      {"4294967296", 4'294'967'296},
                                                      {"18446744073709551616", 0},
                                                      {nullptr, 0},
                                                      {"-1", 0}};
    for (const auto& [text, number] : cases) {
        const core::owned<value_t*, core_value_free> list(core_value_put(nullptr, "Key", text, CORE_HERE));
        EXPECT_EQ(value_geti_uint64(list.get(), "key"), number) << text;
        EXPECT_EQ(value_get_uint32(list.get(), "Key"), number > UINT32_MAX ? 0 : number) << text;
    }
}

TEST(Value, IsSplitAtAnyOfTheSeparators) {
    const core::owned<value_t*, core_value_free> list(core_value_split("a=1;;\t, b : =2 ;c;=", ";,", ":=", CORE_HERE));
    std::string pairs;
    for (value_t** pair = list.get(); *pair; ++pair)
        pairs += std::string((*pair)->key) + '>' + ((*pair)->value ? (*pair)->value : "(null)") + '|';
    EXPECT_EQ(pairs, "a>1|b>=2|c>(null)|>|");
}

}  // namespace
