#include "core/memory.h"

#include "core/owned.h"

#include <gtest/gtest.h>

TEST(Memory, BlocksKnowTheirLine) {
    void* block = core_malloc(100, "here.cpp", 7);
    EXPECT_STREQ(core_mem_file(block), "here.cpp");
    EXPECT_EQ(core_mem_line(block), 7);
    EXPECT_EQ(core_mem_blocks(), 1u);
    EXPECT_EQ(core_mem_bytes(), 100u);
    core_mfree(block);
    EXPECT_EQ(core_mem_blocks(), 0u);
}

TEST(MemoryDeathTest, DoubleFree) {
    void* block = core_malloc(100, "here.cpp", 7);
    core_mfree(block);
    EXPECT_DEATH(core_mfree(block), "core: block");
}

TEST(Owned, ContainersAreNamedAfterTheLineThatMadeThem) {
    core::vector<int> numbers;
    numbers = {1, 2, 3};
    EXPECT_STREQ(core_mem_file(numbers.data()), __FILE__);
    EXPECT_EQ(core_mem_line(numbers.data()), __LINE__ - 3);
    const core::string text(100, 'a');
    EXPECT_EQ(core_mem_line(text.data()), __LINE__ - 1);
    core::string more = text + "b";
    core::string again;
    again = text + "b";
    again = "x";
    again = text.substr(1);
    again += more;
    core::vector<core::string> texts;
    texts.push_back("abc");
    texts.emplace_back(text);
}
