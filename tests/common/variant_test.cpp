// Maps of values: order, copies, lost memory. Values themselves are seen through AMF (tests/inet/rtmp_amf_test.cpp).
#include "common/variant.h"

#include "core/memory.h"
#include "inet/rtmp_tree.h"

#include <gtest/gtest.h>
#include <utility>

using test::tree;

namespace {

bool none_left(size_t, const char*, int) { return true; }

}  // namespace

TEST(Variant, KeepsIndexesInOnePlaceAmongTheTexts) {
    Variant map;
    for (const char* key : {"b", "A", "__index__value__07", "__index__value__", "__index__value__10"})
        map[key] = true;
    map[2] = "two";
    map[0] = 0U;
    EXPECT_EQ(tree(map), "{A:true,__index__value__:true,#0:0,#2:'two',#10:true,__index__value__07:true,b:true}");
    EXPECT_EQ(map.MapDenseSize(), 1U);
    map[1] = -1;
    EXPECT_EQ(map.MapDenseSize(), 3U);
    EXPECT_TRUE(map["__index__value__2"] == "two" && map.HasKey("a", false) && !map.HasKey("a"));
    map.RemoveAt(10);
    map.RemoveKey("__index__value__2");
    map.RemoveKey("missing");
    EXPECT_EQ(map.MapSize(), 6U);
}

TEST(Variant, CopiesAreIndependent) {
    Variant map;
    map["in"]["a"] = "a text of more than sixteen characters";
    Variant copy = map;
    Variant shared = map.Share();
    shared["in"]["a"] = 2U;
    map["in"]["a"] = true;
    EXPECT_EQ(tree(map), "{in:{a:true}}");
    EXPECT_EQ(tree(copy), "{in:{a:'a text of more than sixteen characters'}}");
    EXPECT_EQ(tree(shared), "{in:{a:2}}");
    copy = std::as_const(copy)["in"];  // a part of itself
    EXPECT_EQ(tree(copy), "{a:'a text of more than sixteen characters'}");
}

TEST(Variant, TellsThatMemoryWasOut) {
    Variant map;
    Variant& kept = map["a"];
    core_mem_set_fault(none_left);
    map["b"]["c"] = 1U;
    Variant copy = map;
    core_mem_set_fault(nullptr);
    kept = 1U;  // still there
    EXPECT_EQ(map.Type(), variant_lost);
    EXPECT_EQ(copy.Type(), variant_lost);
    EXPECT_EQ(Variant()["x"].Type(), variant_null);
    map.Reset();
    map["a"] = 1U;
    EXPECT_EQ(tree(map), "{a:1}");
}
