#include "core/memory.h"
#include "core/text.h"

#include <gtest/gtest.h>

namespace {

TEST(Text, FormatterThatGivesUpLeavesNothing) {
    // No multibyte form in the C locale. MinGW-w64's formatter passes over such a character.
    EXPECT_EQ(core_sprintf(CORE_HERE, "%ls", L"\x7fffffff"), nullptr);
}

}  // namespace
