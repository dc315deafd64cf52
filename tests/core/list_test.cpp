// Lists, queues and posted calls.
#include "core/list.h"

#include "support/fault.h"
#include "support/held.h"
#include "support/side_thread.h"

#include "core/cmd.h"
#include "core/queue.h"
#include "core/slist.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t producers = 4;
constexpr size_t each = 3000;

struct item_t {
    size_t producer;
    size_t number;
};

/// Four threads produce, two consume. Each consumer must see the items of one producer in their order; an item that
/// both of them get comes out of order, or the sum of all is wrong.
void run_both(auto produce, auto take, auto give_back) {
    std::atomic<size_t> taken = 0;
    std::atomic<size_t> sum = 0;
    const auto consume = [&] {
        size_t last[producers] = {};
        while (taken < producers * each) {
            auto* item = static_cast<item_t*>(take());
            if (!item) {
                std::this_thread::yield();
                continue;
            }
            ++taken;
            sum += item->number;
            ASSERT_GT(item->number, last[item->producer]);
            last[item->producer] = item->number;
            give_back(item);
        }
    };
    std::vector<std::thread> threads;
    for (size_t i = 0; i < producers; ++i)
        threads.emplace_back([&produce, i] {
            for (size_t number = 1; number <= each; ++number)
                produce(item_t{i, number});
        });
    threads.emplace_back(consume);
    consume();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sum, producers * (each * (each + 1) / 2));
}

TEST(List, FrontEndAndCursor) {
    char items[] = "abcdef";
    const test::held<list_ctx, core_list_free> held(core_list_create(CORE_HERE));
    list_ctx* const list = held.get();
    for (const size_t i : {1, 2, 3, 1})
        EXPECT_EQ(core_list_enqueue(list, &items[i], CORE_HERE), 1);
    EXPECT_EQ(core_list_add(list, &items[0], CORE_HERE), 1);
    EXPECT_EQ(list_delete(list, &items[1]), 1) << "the first of both";
    EXPECT_EQ(list_delete(list, &items[5]), 0);
    EXPECT_EQ(list_count(list), 4u);
    EXPECT_EQ(list_find(list, &items[3], nullptr), &items[3]);
    const auto compare = [](const void* item, const void* key) { return std::memcmp(item, key, 1); };
    EXPECT_EQ(list_find(list, "d", compare), &items[3]);
    EXPECT_EQ(list_find(list, &items[4], nullptr), nullptr);
    // The walk takes the list apart, and puts one more to its end.
    std::string seen;
    list_iterate_start(list);
    while (void* item = list_next(list)) {
        seen += *static_cast<char*>(item);
        EXPECT_EQ(list_delete(list, item), 1);
        if (seen == "ac") list_delete(list, &items[3]);
        if (seen == "acb") core_list_enqueue(list, &items[4], CORE_HERE);
    }
    EXPECT_EQ(seen, "acbe");
    for (const size_t i : {2, 3})
        core_list_enqueue(list, &items[i], CORE_HERE);
    EXPECT_EQ(list_pop(list), &items[2]);
}

TEST(Slist, KeepsEachProducersOrderAmongThreads) {
    std::vector<item_t> items(producers * each);
    slist* list = _slist_init(CORE_HERE);
    run_both(
        [&](item_t made) {
            item_t& item = items[made.producer * each + made.number - 1] = made;
            ASSERT_EQ(_slist_enqueue(list, &item, CORE_HERE), 1);
        },
        [&] { return slist_pop(list); }, [](void*) {});
    EXPECT_EQ(slist_count(list), 0u);
    _slist_enqueue(list, &items, CORE_HERE);
    EXPECT_EQ(slist_count(list), 1u);
    slist_free(list);
}

TEST(Queue, TravelsBetweenBothLists) {
    queue_ctx* queue = core_queue_open(2, 3, CORE_HERE);
    char* a = static_cast<char*>(core_queue_get_free(queue));
    char* b = static_cast<char*>(core_queue_get_free(queue));
    EXPECT_EQ(core_queue_get_free(queue), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % alignof(std::max_align_t), 0u);
    EXPECT_EQ(core_queue_put_full(queue, b), 1);
    EXPECT_EQ(core_queue_put_full(queue, b), 0) << "not out";
    for (void* foreign : {static_cast<void*>(a + 1), static_cast<void*>(b + (b - a)), static_cast<void*>(&queue)})
        EXPECT_EQ(core_queue_put_full(queue, foreign), 0) << "no item";
    EXPECT_EQ(core_queue_put_full(queue, a), 1);
    EXPECT_EQ(core_queue_get_full(queue), b);
    EXPECT_EQ(core_queue_get_full(queue), a);
    EXPECT_EQ(core_queue_get_full(queue), nullptr);
    EXPECT_EQ(core_queue_put_free(queue, a), 1);
    EXPECT_EQ(core_queue_put_free(queue, a), 0) << "not out";
    EXPECT_EQ(core_queue_put_free(queue, b), 1);
    EXPECT_EQ(core_queue_get_free(queue), a) << "free longest";
    core_queue_close(queue);
    EXPECT_EQ(core_queue_get_free(queue), nullptr);
}

TEST(Queue, HandsEachItemToOneThreadWithoutAllocating) {
    queue_ctx* queue = core_queue_open(8, sizeof(item_t), CORE_HERE);
    const test::allocation_count allocations;
    run_both(
        [&](item_t made) {
            void* item = core_queue_get_free(queue);
            for (; !item; item = core_queue_get_free(queue))
                std::this_thread::yield();
            *static_cast<item_t*>(item) = made;
            ASSERT_EQ(core_queue_put_full(queue, item), 1);
        },
        [&] { return core_queue_get_full(queue); },
        [&](void* item) { ASSERT_EQ(core_queue_put_free(queue, item), 1); });
    EXPECT_EQ(allocations.value(), 0u);
    core_queue_close(queue);
}

TEST(Cmd, RunsInOrderWhatWasPostedBeforeAndDropsTheRest) {
    struct owner_t {
        std::string ran;
        cmd_ctx* cmd = nullptr;
    } owner;
    char letters[] = "abc";
    static constexpr auto note = [](void* to, void* arg) {
        static_cast<owner_t*>(to)->ran += *static_cast<const char*>(arg);
    };
    const auto post_again = [](void* to, void* arg) {
        core_cmd_exec(static_cast<owner_t*>(to)->cmd, note, arg);
        note(to, arg);
    };
    owner.cmd = core_cmd_open(&owner, CORE_HERE);
    EXPECT_EQ(core_cmd_exec(owner.cmd, note, &letters[0]), 1);
    EXPECT_EQ(core_cmd_exec(owner.cmd, post_again, &letters[1]), 1);
    EXPECT_EQ(core_cmd_exec(owner.cmd, note, &letters[2]), 1);
    for (const uint32_t calls : {3, 1, 0})
        EXPECT_EQ(core_cmd_process(owner.cmd), calls);
    core_cmd_exec(owner.cmd, note, letters);
    core_cmd_close(owner.cmd);
    EXPECT_EQ(owner.ran, "abcb");
}

TEST(Cmd, EveryThreadsCallsRunOnceAndAGrownQueueAllocatesNothing) {
    uint32_t total = 0;  // touched by the processing thread alone
    cmd_ctx* cmd = core_cmd_open(&total, CORE_HERE);
    const auto post = [cmd] {
        for (uint32_t i = 0; i < each; ++i)
            core_cmd_exec(
                cmd, [](void* owner, void*) { ++*static_cast<uint32_t*>(owner); }, nullptr);
    };
    for (int round = 0; round < 4; ++round) {
        const test::allocation_count allocations;
        for (int i = 0; i < 4; ++i)
            post();
        EXPECT_EQ(core_cmd_process(cmd), 4 * each);
        EXPECT_TRUE(round < 2 || allocations.value() == 0);
    }
    const test::side_thread posters([&post] { test::on_four_threads(post); });
    for (uint32_t ran = 0; ran < 4 * each;)
        ran += core_cmd_process(cmd);
    EXPECT_EQ(total, 20 * each);
    core_cmd_close(cmd);
}

}  // namespace
