#include "core/buf.h"

#include "support/fault.h"

#include "core/owned.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>

namespace {

std::string_view view(const void* data, uint32_t size) { return {static_cast<const char*>(data), size}; }

int set(buffer_t& b, std::string_view bytes) {
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
    EXPECT_EQ(set(span, "hello"), 1);
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
        ASSERT_TRUE(set(span, c.hay) && set(other, c.needle));
        EXPECT_EQ(core_buffer_find(&span, &other), c.at < 0 ? nullptr : span.data + c.at) << c.needle;
    }
}

TEST_F(Buf, HexGoesBothWays) {
    EXPECT_EQ(core_buffer_unhex(&span, "00DEADbeef", CORE_HERE), 1);
    for (const char* refused : {"0", "0g", "g0", "0:", "/0", "@0", "0`", "\xff\xff"})
        EXPECT_EQ(core_buffer_unhex(&span, refused, CORE_HERE), 0);
    EXPECT_EQ(view(span.data, span.size), std::string_view("\0\xde\xad\xbe\xef", 5));
    EXPECT_STREQ(core::owned_text(core_buffer_hex(&span, CORE_HERE)).get(), "00deadbeef");
    EXPECT_EQ(core_buffer_unhex(&span, "", CORE_HERE), 1);
    EXPECT_EQ(span.size, 0U);
}

}  // namespace
