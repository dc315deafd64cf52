// Buffers, lists, queues, posted calls, pairs and arrays.
#include "support/fault.h"
#include "support/held.h"
#include "support/side_thread.h"

#include "core/array.h"
#include "core/buf.h"
#include "core/cmd.h"
#include "core/list.h"
#include "core/owned.h"
#include "core/queue.h"
#include "core/slist.h"
#include "core/value.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::string_view view(const void* data, uint32_t size) { return {static_cast<const char*>(data), size}; }

int fill(buffer_t& b, std::string_view bytes) {
    return core_buffer_set(&b, bytes.data(), static_cast<uint32_t>(bytes.size()), CORE_HERE);
}

class Buf : public testing::Test {
protected:
    ~Buf() override {
        core_buf_free(&buf);
        core_buffer_free(&span);
        core_buffer_free(&other);
    }
    buf_t buf{};
    buffer_t span{};
    buffer_t other{};
};

TEST_F(Buf, AppendsAtTheEndAndDropsFromTheFront) {
    std::string model;
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const std::string bytes(random() % 50 + 1, static_cast<char>('a' + i % 26));
        ASSERT_EQ(core_buf_read(&buf, bytes.data(), static_cast<uint32_t>(bytes.size())), bytes.size());
        const auto dropped = static_cast<uint32_t>(random() % 60);
        core_buf_ignore(&buf, dropped);
        model = (model + bytes).erase(0, dropped);
        ASSERT_EQ(view(buf.data, buf.length), model);
    }
}

TEST_F(Buf, GrowsGeometricallyForTheLineThatOpenedItAndIsCutToASize) {
    ASSERT_EQ(core_buf_respace(&buf, 8192, "opened", 3), 1);
    EXPECT_GE(buf.size, 8192U);
    const test::allocation_count allocations;
    for (int i = 0; i < 10'000; ++i)
        core_buf_read(&buf, std::string(100, 'x').data(), 100);
    EXPECT_EQ(buf.length, 1'000'000U);
    EXPECT_LE(allocations.value(), 8U);
    EXPECT_STREQ(core_mem_file(buf.data), "opened");
    EXPECT_EQ(core_mem_line(buf.data), 3);
    EXPECT_EQ(core_buf_resize(&buf, 4, CORE_HERE), 1);
    EXPECT_EQ(view(buf.data, buf.length), "xxxx");
    EXPECT_EQ(core_buf_resize(&buf, 0, CORE_HERE), 1);
    EXPECT_EQ(buf.data, nullptr);
    buf_t full{nullptr, UINT32_MAX, UINT32_MAX};
    EXPECT_EQ(core_buf_respace(&full, 1, CORE_HERE), 0);
}

TEST_F(Buf, SpansAreSetCopiedAndFilledUpWithZeros) {
    EXPECT_EQ(fill(span, "hello"), 1);
    EXPECT_EQ(core_buffer_set(&span, span.data + 1, 3, CORE_HERE), 1) << "from itself";
    EXPECT_EQ(core_buffer_copy(&other, &span, CORE_HERE), 1);
    EXPECT_EQ(core_buffer_set(&span, nullptr, 1, CORE_HERE), 0);
    for (const std::string_view bytes : {std::string_view("ell\0\0", 5), std::string_view("e")}) {
        EXPECT_EQ(buffer_resize(&other, static_cast<uint32_t>(bytes.size()), CORE_HERE), 1);
        EXPECT_EQ(view(other.data, other.size), bytes);
    }
}

TEST_F(Buf, FindsTheFirstOfASpansBytes) {
    const struct {
        std::string_view hay, needle;
        ptrdiff_t at;
    } cases[] = {{"--x--boundary", "--b", 3},     {"aaab", "aab", 1}, {"abc", "abcd", -1},
                 {{"a\0b\0c", 5}, {"\0c", 2}, 3}, {"abc", "", -1},    {"", "a", -1}};
    for (const auto& c : cases) {
        ASSERT_TRUE(fill(span, c.hay) && fill(other, c.needle));
        EXPECT_EQ(core_buffer_find(&span, &other), c.at < 0 ? nullptr : span.data + c.at) << c.needle;
    }
}

TEST_F(Buf, HexGoesBothWays) {
    EXPECT_EQ(core_buffer_unhex(&span, "00DEADbeef", CORE_HERE), 1);
    for (const char* refused : {"0", "0g", "G0", "0:", "/0", "@0", "0`", "\xff\xff"})
        EXPECT_EQ(core_buffer_unhex(&span, refused, CORE_HERE), 0);
    EXPECT_EQ(view(span.data, span.size), std::string_view("\0\xde\xad\xbe\xef", 5));
    EXPECT_STREQ(core::owned_text(core_buffer_hex(&span, CORE_HERE)).get(), "00deadbeef");
    EXPECT_EQ(core_buffer_unhex(&span, "", CORE_HERE), 1);
    EXPECT_EQ(span.size, 0U);
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
    constexpr uint32_t each = 3000;
    std::vector<uint32_t> items(4 * each);
    const test::held<slist, slist_free> list(_slist_init(CORE_HERE));
    std::atomic<uint32_t> producers = 0;
    {
        const test::side_thread all([&] {
            test::on_four_threads([&] {
                const uint32_t first = producers++ * each;
                for (uint32_t i = first; i < first + each; ++i)
                    _slist_enqueue(list.get(), &items[i], CORE_HERE);
            });
        });
        uint32_t taken[4] = {};
        for (uint32_t left = 4 * each; left > 0;) {
            const void* const item = slist_pop(list.get());
            if (!item) continue;
            const auto place = static_cast<uint32_t>(static_cast<const uint32_t*>(item) - items.data());
            ASSERT_EQ(place % each, taken[place / each]++);
            --left;
        }
    }
    EXPECT_EQ(slist_count(list.get()), 0U);
    _slist_enqueue(list.get(), &items, CORE_HERE);
    EXPECT_EQ(slist_count(list.get()), 1U);
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

TEST(Queue, HandsEachItemToOneThread) {
    queue_ctx* queue = core_queue_open(8, sizeof(uint32_t), CORE_HERE);
    test::on_four_threads([queue] {
        for (int i = 0; i < 3000; ++i) {
            auto* const item = static_cast<uint32_t*>(core_queue_get_free(queue));
            ++*item;
            EXPECT_EQ(core_queue_put_full(queue, item), 1);
            EXPECT_EQ(core_queue_put_free(queue, core_queue_get_full(queue)), 1);
        }
    });
    uint32_t sum = 0;
    for (int i = 0; i < 8; ++i)
        sum += *static_cast<uint32_t*>(core_queue_get_free(queue));
    EXPECT_EQ(sum, 12'000U);
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
    constexpr uint32_t each = 3000;
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

using list_t = test::held<value_t*, core_value_free>;

void put(list_t& list, const char* key, const char* value) {
    list.reset(core_value_put(list.release(), key, value, CORE_HERE));
}

void set(list_t& list, const char* key, const char* value) {
    list.reset(core_value_set(list.release(), key, value, CORE_HERE));
}

/// "key=value|key|"
std::string text_of(const list_t& list) {
    std::string all;
    for (value_t** pair = list.get(); pair && *pair; ++pair)
        all += std::string((*pair)->key) + ((*pair)->value ? "=" + std::string((*pair)->value) : "") + "|";
    return all;
}

TEST(Value, KeepsRepeatedKeysInOrder) {
    list_t list;
    for (const char* value : {"a", "b", "c"})
        put(list, *value == 'b' ? "via" : "Via", value);
    put(list, "none", nullptr);
    set(list, "Via", "longer than before");
    set(list, "new", "n");
    set(list, "none", "some");
    set(list, "new", list.get()[0]->value);
    EXPECT_EQ(text_of(list), "Via=longer than before|via=b|Via=c|none=some|new=longer than before|");
    EXPECT_EQ(value_count(list.get()), 5u);
    EXPECT_STREQ(value_get(list.get(), "via"), "b");
    EXPECT_STREQ(value_geti(list.get(), "via"), "longer than before");
    EXPECT_EQ(value_get(list.get(), "VIA"), nullptr);
    EXPECT_EQ(value_geti(list.get(), "vi"), nullptr);
}

TEST(Value, Numbers) {
    const struct {
        const char* text;
        uint64_t wide;
        uint32_t narrow;
    } cases[] = {{" 42;x", 42, 42},
                 {"4294967295", 4294967295, 4294967295},
                 {"4294967296", 4294967296, 0},
                 {"007", 7, 7},
                 {"18446744073709551615", UINT64_MAX, 0},
                 {"18446744073709551616", 0, 0},
                 {"1e3", 1, 1},
                 {nullptr, 0, 0},
                 {"-1", 0, 0},
                 {"", 0, 0},
                 {"+1", 0, 0},
                 {"x1", 0, 0}};
    for (const auto& c : cases) {
        list_t list;
        put(list, "Key", c.text);
        EXPECT_EQ(value_get_uint32(list.get(), "Key"), c.narrow) << c.text;
        EXPECT_EQ(value_geti_uint32(list.get(), "KEY"), c.narrow) << c.text;
        EXPECT_EQ(value_geti_uint64(list.get(), "key"), c.wide) << c.text;
        EXPECT_EQ(value_get_uint32(list.get(), "key"), 0u);
    }
}

TEST(Value, Split) {
    const struct {
        const char *text, *separator, *pair_separator, *expected;
    } cases[] = {{"a=1;;\t; b = 2 ;", ";", "=", "a=1|b=2|"},
                 {"a=b=c", ";", "=", "a=b=c|"},
                 {"a;b=;=c", ";", "=", "a|b=|=c|"},
                 {"a:1\r\nb: x y \r\n", "\r\n", ":", "a=1|b=x y|"},
                 {"a=1&b:2", "&", "=:", "a=1|b=2|"},
                 {"whole=text", nullptr, nullptr, "whole=text|"},
                 {" ; ;", ";", "=", ""}};
    for (const auto& c : cases) {
        const list_t list(core_value_split(c.text, c.separator, c.pair_separator, CORE_HERE));
        EXPECT_EQ(text_of(list), c.expected);
        EXPECT_EQ(list == nullptr, *c.expected == '\0');
    }
}

TEST(Array, KeepsItsOrder) {
    char items[] = "abcdefghij";
    void** array = nullptr;
    for (int round = 0; round < 2; ++round)
        for (char* item = items; *item; ++item)
            array = core_array_add(array, item, CORE_HERE);
    for (const size_t i : {0, 9, 4, 4, 4})
        array = core_array_rem(array, &items[i], CORE_HERE);
    std::string left;
    for (void** item = array; *item; ++item)
        left += *static_cast<const char*>(*item);
    EXPECT_EQ(left, "bcdfghiabcdfghij");
    EXPECT_EQ(core_array_length(array), left.size());
    for (const char item : left)
        array = core_array_rem(array, &items[item - 'a'], CORE_HERE);
    EXPECT_EQ(array, nullptr);
}

TEST(Array, Joins) {
    char a[] = "a";
    char bc[] = "bc";
    char empty[] = "";
    char* const texts[] = {a, empty, bc, nullptr};
    EXPECT_STREQ(core::owned_text(core_array_to_sstring(texts, ", ", CORE_HERE)).get(), "a, , bc");
    EXPECT_STREQ(core::owned_text(core_array_to_string(texts, CORE_HERE)).get(), "abc");
}

}  // namespace
