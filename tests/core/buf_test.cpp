#include "core/buf.h"

#include "support/fault.h"

#include "core/owned.h"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace {

struct held_buf_t : buf_t {
    held_buf_t() = default;
    held_buf_t(const held_buf_t&) = delete;
    held_buf_t& operator=(const held_buf_t&) = delete;
    ~held_buf_t() { core_buf_free(this); }
    std::string_view text() const { return {reinterpret_cast<const char*>(data), length}; }
    uint32_t add(std::string_view bytes) {
        return core_buf_read(this, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
};

struct held_buffer_t : buffer_t {
    held_buffer_t() = default;
    explicit held_buffer_t(std::string_view bytes) { set(bytes); }
    held_buffer_t(const held_buffer_t&) = delete;
    held_buffer_t& operator=(const held_buffer_t&) = delete;
    ~held_buffer_t() { core_buffer_free(this); }
    std::string_view text() const { return {reinterpret_cast<const char*>(data), size}; }
    int set(std::string_view bytes) {
        return core_buffer_set(this, bytes.data(), static_cast<uint32_t>(bytes.size()), CORE_HERE);
    }
};

}  // namespace

TEST(Buf, AppendsAtTheEndAndDropsFromTheFront) {
    held_buf_t buf;
    std::string model;
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const std::string bytes(random() % 50 + 1, static_cast<char>('a' + i % 26));
        ASSERT_EQ(buf.add(bytes), bytes.size());
        model += bytes;
        const auto dropped = static_cast<uint32_t>(random() % 60);
        core_buf_ignore(&buf, dropped);
        model.erase(0, dropped);
        ASSERT_EQ(buf.text(), model);
    }
}

TEST(Buf, GrowsGeometricallyForTheLineThatOpenedIt) {
    held_buf_t buf;
    ASSERT_EQ(core_buf_respace(&buf, 10, "opened", 3), 1);
    const test::allocation_count allocations;
    const std::string bytes(100, 'x');
    for (int i = 0; i < 10000; ++i)
        buf.add(bytes);
    EXPECT_EQ(buf.length, 1000000u);
    EXPECT_LE(allocations.value(), 20u);
    EXPECT_STREQ(core_mem_file(buf.data), "opened");
    EXPECT_EQ(core_mem_line(buf.data), 3);
}

TEST(Buf, RoomAndSize) {
    held_buf_t buf;
    buf.add("abcdef");
    ASSERT_EQ(core_buf_respace(&buf, 8192, CORE_HERE), 1);
    EXPECT_GE(buf.size - buf.length, 8192u);
    uint8_t* before = buf.data;
    EXPECT_EQ(core_buf_respace(&buf, 8192, CORE_HERE), 1);
    EXPECT_EQ(buf.data, before) << "there was room";
    EXPECT_EQ(core_buf_resize(&buf, 4, CORE_HERE), 1);
    EXPECT_EQ(buf.text(), "abcd");
    EXPECT_EQ(buf.size, 4u);
    EXPECT_EQ(core_buf_resize(&buf, 0, CORE_HERE), 1);
    EXPECT_EQ(buf.data, nullptr);
    core_buf_ignore(&buf, 1);
    EXPECT_EQ(buf.length, 0u);
}

TEST(Buf, RefusesWhatDoesNotFitOrIsNot) {
    buf_t full{nullptr, UINT32_MAX, UINT32_MAX};
    EXPECT_EQ(core_buf_respace(&full, 1, CORE_HERE), 0);
    EXPECT_EQ(core_buf_read(&full, "a", 1), 0u);
    held_buf_t buf;
    EXPECT_EQ(core_buf_read(&buf, nullptr, 1), 0u);
    EXPECT_EQ(core_buf_read(nullptr, "a", 1), 0u);
    EXPECT_EQ(core_buf_respace(nullptr, 1, CORE_HERE), 0);
    EXPECT_EQ(core_buf_resize(nullptr, 1, CORE_HERE), 0);
    core_buf_ignore(nullptr, 1);
    core_buf_free(nullptr);
}

TEST(Buf, Dump) {
    const std::string path = testing::TempDir() + "core_buf_test.dump";
    held_buf_t buf;
    for (const std::string_view bytes : {std::string_view(), std::string_view("a\0\n\xff", 4)}) {
        if (!bytes.empty()) buf.add(bytes);
        ASSERT_EQ(core_buf_dump(&buf, path.c_str()), 1);
        std::ifstream in(path, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes);
    }
    std::remove(path.c_str());
    EXPECT_EQ(core_buf_dump(&buf, (path + "/no/such").c_str()), 0);
    EXPECT_EQ(core_buf_dump(&buf, nullptr), 0);
    EXPECT_EQ(core_buf_dump(nullptr, path.c_str()), 0);
}

TEST(Buffer, Copies) {
    held_buffer_t a;
    EXPECT_EQ(a.set("hello"), 1);
    EXPECT_EQ(core_buffer_set(&a, a.data + 1, 3, CORE_HERE), 1) << "from itself";
    EXPECT_EQ(a.text(), "ell");
    held_buffer_t b;
    EXPECT_EQ(core_buffer_copy(&b, &a, CORE_HERE), 1);
    EXPECT_EQ(b.text(), "ell");
    EXPECT_EQ(buffer_resize(&b, 5, CORE_HERE), 1);
    EXPECT_EQ(b.text(), std::string_view("ell\0\0", 5));
    EXPECT_EQ(buffer_resize(&b, 1, CORE_HERE), 1);
    EXPECT_EQ(b.text(), "e");
    EXPECT_EQ(b.set(""), 1);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(core_buffer_set(&a, nullptr, 1, CORE_HERE), 0);
    EXPECT_EQ(core_buffer_copy(&a, nullptr, CORE_HERE), 0);
    EXPECT_EQ(a.text(), "ell");
}

TEST(Buffer, Find) {
    const struct {
        std::string_view hay, needle;
        ptrdiff_t at;
    } cases[] = {
        {"--x--boundary", "--b", 3},     {"aaab", "aab", 1}, {"abc", "abc", 0}, {"abc", "abcd", -1}, {"abc", "c", 2},
        {{"a\0b\0c", 5}, {"\0c", 2}, 3}, {"abc", "", -1},    {"", "a", -1},
    };
    for (const auto& c : cases) {
        const held_buffer_t hay(c.hay);
        const held_buffer_t needle(c.needle);
        EXPECT_EQ(core_buffer_find(&hay, &needle), c.at < 0 ? nullptr : hay.data + c.at) << c.needle;
    }
    EXPECT_EQ(core_buffer_find(nullptr, nullptr), nullptr);
}

TEST(Buffer, Hex) {
    held_buffer_t bytes(std::string_view("\x00\x1f\xfa", 3));
    const core::owned_text text(core_buffer_hex(&bytes, CORE_HERE));
    EXPECT_STREQ(text.get(), "001ffa");
    for (const char* refused : {"0", "0g", "g0", "00 1", "\xff\xff"}) {
        EXPECT_EQ(core_buffer_unhex(&bytes, refused, CORE_HERE), 0);
        EXPECT_EQ(bytes.size, 3u);
    }
    EXPECT_EQ(core_buffer_unhex(&bytes, "DEADbeef00", CORE_HERE), 1);
    EXPECT_EQ(bytes.text(), std::string_view("\xde\xad\xbe\xef\0", 5));
    EXPECT_EQ(core_buffer_unhex(&bytes, "", CORE_HERE), 1);
    EXPECT_EQ(bytes.size, 0u);
    const core::owned_text empty(core_buffer_hex(&bytes, CORE_HERE));
    EXPECT_STREQ(empty.get(), "");
}

TEST(Buf, NoMemoryLeavesBytesAsTheyWere) {
    test::fail_each_allocation([] {
        held_buf_t buf;
        const std::string bytes(60, 'b');
        std::string model;
        for (int i = 0; i < 4; ++i)
            if (buf.add(bytes)) model += bytes;
        EXPECT_EQ(buf.text(), model);
        if (!core_buf_resize(&buf, 1000, CORE_HERE)) {
            EXPECT_EQ(buf.text(), model);
        }
        held_buffer_t span;
        const std::string_view expected = span.set("abc") ? "abc" : "";
        if (!span.set("other")) {
            EXPECT_EQ(span.text(), expected);
        }
        const uint32_t size = span.size;
        if (!buffer_resize(&span, 100, CORE_HERE)) {
            EXPECT_EQ(span.size, size);
        }
        if (!core_buffer_unhex(&span, "00", CORE_HERE)) {
            EXPECT_GE(span.size, size);
        }
    });
}
