#include "core/list.h"

#include "support/fault.h"

#include "core/queue.h"
#include "core/slist.h"

#include <array>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t producers = 4;
constexpr size_t consumers = 3;
constexpr size_t each = 5000;

struct item_t {
    size_t producer;
    size_t number;
};

/// Producers and consumers at once. Each consumer must see the items of one producer in their order; an item that two
/// of them get comes out of order, or the sum of all is wrong.
void run_both(auto produce, auto take, auto give_back) {
    std::atomic<size_t> taken{0};
    std::atomic<size_t> sum{0};
    const auto consume = [&] {
        std::array<size_t, producers> last{};
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
    for (size_t i = 0; i < consumers; ++i)
        threads.emplace_back(consume);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(taken, producers * each);
    EXPECT_EQ(sum, producers * (each * (each + 1) / 2));
}

std::string walk(list_ctx* list) {
    std::string all;
    list_iterate_start(list);
    while (const void* item = list_next(list))
        all += *static_cast<const char*>(item);
    return all;
}

}  // namespace

TEST(List, FrontEndAndCursor) {
    char items[] = "abcdef";
    list_ctx* list = core_list_create(CORE_HERE);
    EXPECT_EQ(walk(list), "");
    for (const size_t i : {1, 2, 3})
        EXPECT_EQ(core_list_enqueue(list, &items[i], CORE_HERE), 1);
    EXPECT_EQ(core_list_add(list, &items[0], CORE_HERE), 1);
    EXPECT_EQ(core_list_enqueue(list, &items[1], CORE_HERE), 1);
    EXPECT_EQ(walk(list), "abcdb");
    EXPECT_EQ(list_delete(list, &items[1]), 1) << "the first of both";
    EXPECT_EQ(walk(list), "acdb");
    EXPECT_EQ(list_delete(list, &items[5]), 0);
    EXPECT_EQ(list_find(list, &items[3], nullptr), &items[3]);
    EXPECT_EQ(list_find(list, "d", [](const void* item, const void* key) { return std::memcmp(item, key, 1); }),
              &items[3]);
    EXPECT_EQ(list_find(list, &items[4], nullptr), nullptr);
    EXPECT_EQ(list_pop(list), &items[0]);
    EXPECT_EQ(list_count(list), 3u);
    core_list_free(list);
    EXPECT_EQ(list, nullptr);
}

TEST(List, MayChangeDuringAWalk) {
    char items[] = "abcdef";
    list_ctx* list = core_list_create(CORE_HERE);
    for (size_t i = 0; i < 4; ++i)
        core_list_enqueue(list, &items[i], CORE_HERE);
    std::string seen;
    list_iterate_start(list);
    while (void* item = list_next(list)) {
        seen += *static_cast<char*>(item);
        EXPECT_EQ(list_delete(list, item), 1);
        if (seen == "ab") list_delete(list, &items[2]);
        if (seen == "abd") core_list_enqueue(list, &items[4], CORE_HERE);
    }
    EXPECT_EQ(seen, "abde");
    EXPECT_EQ(list_count(list), 0u);
    core_list_free(list);
}

TEST(Slist, FirstInFirstOut) {
    std::array<int, 3> items{};
    slist* list = _slist_init(CORE_HERE);
    for (int round = 0; round < 2; ++round) {
        for (int& item : items)
            EXPECT_EQ(_slist_enqueue(list, &item, CORE_HERE), 1);
        EXPECT_EQ(_slist_enqueue(list, nullptr, CORE_HERE), 0);
        EXPECT_EQ(slist_count(list), 3u);
        for (int& item : items)
            EXPECT_EQ(slist_pop(list), &item);
        EXPECT_EQ(slist_pop(list), nullptr);
    }
    _slist_enqueue(list, &items, CORE_HERE);
    slist_free(list);
    EXPECT_EQ(list, nullptr);
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
    slist_free(list);
}

TEST(Queue, TravelsBetweenBothLists) {
    EXPECT_EQ(core_queue_open(0, 1, CORE_HERE), nullptr);
    EXPECT_EQ(core_queue_open(1, 0, CORE_HERE), nullptr);
    queue_ctx* queue = core_queue_open(2, 3, CORE_HERE);
    char* a = static_cast<char*>(core_queue_get_free(queue));
    char* b = static_cast<char*>(core_queue_get_free(queue));
    EXPECT_EQ(core_queue_get_free(queue), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % alignof(std::max_align_t), 0u);
    EXPECT_EQ(a[0] + b[2], 0);
    EXPECT_EQ(core_queue_put_full(queue, b), 1);
    EXPECT_EQ(core_queue_put_full(queue, b), 0) << "not out";
    EXPECT_EQ(core_queue_put_full(queue, a + 1), 0) << "no item";
    EXPECT_EQ(core_queue_put_full(queue, &queue), 0) << "no item";
    EXPECT_EQ(core_queue_put_full(queue, a), 1);
    EXPECT_EQ(core_queue_get_full(queue), b);
    EXPECT_EQ(core_queue_get_full(queue), a);
    EXPECT_EQ(core_queue_get_full(queue), nullptr);
    EXPECT_EQ(core_queue_put_free(queue, a), 1);
    EXPECT_EQ(core_queue_put_free(queue, a), 0) << "not out";
    EXPECT_EQ(core_queue_put_free(queue, b), 1);
    EXPECT_EQ(core_queue_get_free(queue), a) << "free longest";
    core_queue_close(queue);
    EXPECT_EQ(queue, nullptr);
    EXPECT_EQ(core_queue_get_free(queue), nullptr);
    EXPECT_EQ(core_queue_put_free(queue, a), 0);
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

TEST(List, NoMemoryAddsNothing) {
    test::fail_each_allocation([] {
        int item = 0;
        list_ctx* list = core_list_create(CORE_HERE);
        slist* single = _slist_init(CORE_HERE);
        queue_ctx* queue = core_queue_open(3, 10, CORE_HERE);
        const int added = core_list_add(list, &item, CORE_HERE) + core_list_enqueue(list, &item, CORE_HERE);
        EXPECT_EQ(list_count(list), static_cast<uint32_t>(added));
        const int queued = _slist_enqueue(single, &item, CORE_HERE);
        EXPECT_EQ(slist_pop(single), queued ? &item : nullptr);
        EXPECT_EQ(core_queue_get_free(queue) != nullptr, queue != nullptr);
        core_list_free(list);
        slist_free(single);
        core_queue_close(queue);
    });
}
