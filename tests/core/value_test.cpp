#include "core/value.h"

#include "support/fault.h"

#include "core/array.h"
#include "core/owned.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

struct list_t {
    explicit list_t(value_t** from = nullptr) : pairs(from) {}
    list_t(const list_t&) = delete;
    list_t& operator=(const list_t&) = delete;
    ~list_t() { core_value_free(pairs); }
    void put(const char* key, const char* value) { pairs = core_value_put(pairs, key, value, CORE_HERE); }
    void set(const char* key, const char* value) { pairs = core_value_set(pairs, key, value, CORE_HERE); }
    /// "key=value|key|"
    std::string text() const {
        std::string all;
        for (value_t** pair = pairs; pair && *pair; ++pair)
            all += std::string((*pair)->key) + ((*pair)->value ? "=" + std::string((*pair)->value) : "") + "|";
        return all;
    }
    value_t** pairs;
};

}  // namespace

TEST(Value, KeepsRepeatedKeysInOrder) {
    list_t list;
    EXPECT_EQ(value_count(list.pairs), 0u);
    list.put("Via", "a");
    list.put("via", "b");
    list.put("Via", "c");
    list.put(nullptr, "x");
    list.put("none", nullptr);
    EXPECT_EQ(list.text(), "Via=a|via=b|Via=c|none|");
    list.set("Via", "longer than before");
    list.set("new", "n");
    list.set("none", "some");
    list.set("new", list.pairs[0]->value);
    EXPECT_EQ(list.text(), "Via=longer than before|via=b|Via=c|none=some|new=longer than before|");
    EXPECT_EQ(value_count(list.pairs), 5u);
}

TEST(Value, Get) {
    list_t list;
    list.put("key", "lower");
    list.put("KEY", "upper");
    EXPECT_STREQ(value_get(list.pairs, "KEY"), "upper");
    EXPECT_STREQ(value_geti(list.pairs, "KEY"), "lower");
    EXPECT_EQ(value_get(list.pairs, "Key"), nullptr);
    EXPECT_EQ(value_geti(list.pairs, "ke"), nullptr);
    EXPECT_EQ(value_get(nullptr, "key"), nullptr);
    EXPECT_EQ(value_get(list.pairs, nullptr), nullptr);
}

TEST(Value, Numbers) {
    const struct {
        const char* text;
        uint64_t wide;
        uint32_t narrow;
    } cases[] = {
        {"0", 0, 0},   {"42", 42, 42}, {" 42;x", 42, 42}, {"4294967295", 4294967295, 4294967295},
        {"007", 7, 7}, {"-1", 0, 0},   {"", 0, 0},        {"4294967296", 4294967296, 0},
        {"x1", 0, 0},  {"0x10", 0, 0}, {nullptr, 0, 0},   {"18446744073709551615", UINT64_MAX, 0},
        {"+1", 0, 0},  {"1e3", 1, 1},  {"- 1", 0, 0},     {"18446744073709551616", 0, 0},
    };
    for (const auto& c : cases) {
        list_t list;
        list.put("Key", c.text);
        EXPECT_EQ(value_get_uint32(list.pairs, "Key"), c.narrow) << c.text;
        EXPECT_EQ(value_geti_uint32(list.pairs, "KEY"), c.narrow) << c.text;
        EXPECT_EQ(value_geti_uint64(list.pairs, "key"), c.wide) << c.text;
        EXPECT_EQ(value_get_uint32(list.pairs, "key"), 0u);
    }
}

TEST(Value, Split) {
    const struct {
        const char *text, *separator, *pair_separator, *expected;
    } cases[] = {
        {"a=1; b=2", ";", "=", "a=1|b=2|"},
        {"a=1;;\t; b = 2 ;", ";", "=", "a=1|b=2|"},
        {"a=b=c", ";", "=", "a=b=c|"},
        {"a;b=;=c", ";", "=", "a|b=|=c|"},
        {"a:1\r\nb: x y \r\n", "\r\n", ":", "a=1|b=x y|"},
        {"a=1&b:2", "&", "=:", "a=1|b=2|"},
        {"whole text", "", "", "whole text|"},
        {"whole=text", nullptr, nullptr, "whole=text|"},
        {"", ";", "=", ""},
        {" ; ;", ";", "=", ""},
        {nullptr, ";", "=", ""},
    };
    for (const auto& c : cases) {
        const list_t list(core_value_split(c.text, c.separator, c.pair_separator, CORE_HERE));
        EXPECT_EQ(list.text(), c.expected);
        EXPECT_EQ(list.pairs == nullptr, *c.expected == '\0');
    }
}

TEST(Array, FollowsAModel) {
    static char items[40];
    void** array = nullptr;
    std::vector<void*> model;
    std::mt19937 random(2);
    for (int i = 0; i < 5000; ++i) {
        void* item = &items[random() % std::size(items)];
        // Grows for a while, shrinks for a while.
        if (random() % 4 < (i / 500 % 2 ? 1u : 3u)) {
            array = core_array_add(array, item, CORE_HERE);
            model.push_back(item);
        } else {
            array = core_array_rem(array, item, CORE_HERE);
            const auto found = std::find(model.begin(), model.end(), item);
            if (found != model.end()) model.erase(found);
        }
        ASSERT_EQ(array == nullptr, model.empty());
        ASSERT_EQ(core_array_length(array), model.size());
        ASSERT_TRUE(std::equal(model.begin(), model.end(), array));
    }
    EXPECT_EQ(core_array_add(array, nullptr, CORE_HERE), array);
    core_array_free(array);
    core_array_free(nullptr);
}

TEST(Array, Joins) {
    char a[] = "a";
    char bc[] = "bc";
    char empty[] = "";
    char* const texts[] = {a, empty, bc, nullptr};
    EXPECT_STREQ(core::owned_text(core_array_to_string(texts, CORE_HERE)).get(), "abc");
    EXPECT_STREQ(core::owned_text(core_array_to_sstring(texts, ", ", CORE_HERE)).get(), "a, , bc");
    EXPECT_STREQ(core::owned_text(core_array_to_sstring(texts + 2, ", ", CORE_HERE)).get(), "bc");
    EXPECT_STREQ(core::owned_text(core_array_to_sstring(texts, nullptr, CORE_HERE)).get(), "abc");
    EXPECT_EQ(core_array_to_string(nullptr, CORE_HERE), nullptr);
}

TEST(Value, NoMemoryLeavesTheListAsItWas) {
    test::fail_each_allocation([] {
        list_t list(core_value_split("a=1;b=2;c=3", ";", "=", CORE_HERE));
        const uint32_t before = value_count(list.pairs);
        EXPECT_TRUE(before == 0 || before == 3) << "all or nothing";
        uint32_t count = before;
        for (int i = 0; i < 6; ++i) {
            list.put("key", "value");
            EXPECT_LE(value_count(list.pairs), count + 1);
            count = value_count(list.pairs);
        }
        list.set("key", "other");
        const std::string_view value = value_get(list.pairs, "key");
        EXPECT_TRUE(value == "value" || value == "other");
        EXPECT_LE(value_count(list.pairs), count) << "set replaces";
    });
}
