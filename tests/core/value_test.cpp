#include "core/value.h"

#include "support/held.h"

#include "core/array.h"
#include "core/owned.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

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
    core_array_free(array);
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
