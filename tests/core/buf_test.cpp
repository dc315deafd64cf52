#include "core/buf.h"

#include "support/fault.h"
#include "support/scratch.h"

#include "core/owned.h"

#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>

namespace {

template <class Record, void (*release)(Record*) noexcept>
struct held : Record {
    held() = default;
    held(const held&) = delete;
    held& operator=(const held&) = delete;
    ~held() { release(this); }
};
using held_buf_t = held<buf_t, core_buf_free>;
using held_buffer_t = held<buffer_t, core_buffer_free>;

uint32_t add(buf_t& buf, std::string_view bytes) {
    return core_buf_read(&buf, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

int set(buffer_t& b, std::string_view bytes) {
    return core_buffer_set(&b, bytes.data(), static_cast<uint32_t>(bytes.size()), CORE_HERE);
}

std::string_view text(const buf_t& buf) { return {reinterpret_cast<const char*>(buf.data), buf.length}; }
std::string_view text(const buffer_t& b) { return {reinterpret_cast<const char*>(b.data), b.size}; }

}  // namespace

TEST(Buf, AppendsAtTheEndAndDropsFromTheFront) {
    held_buf_t buf;
    std::string model;
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const std::string bytes(random() % 50 + 1, static_cast<char>('a' + i % 26));
        ASSERT_EQ(add(buf, bytes), bytes.size());
        model += bytes;
        const auto dropped = static_cast<uint32_t>(random() % 60);
        core_buf_ignore(&buf, dropped);
        model.erase(0, dropped);
        ASSERT_EQ(text(buf), model);
    }
}

TEST(Buf, GrowsGeometricallyForTheLineThatOpenedIt) {
    held_buf_t buf;
    ASSERT_EQ(core_buf_respace(&buf, 10, "opened", 3), 1);
    const test::allocation_count allocations;
    const std::string bytes(100, 'x');
    for (int i = 0; i < 10000; ++i)
        add(buf, bytes);
    EXPECT_EQ(buf.length, 1000000u);
    EXPECT_LE(allocations.value(), 20u);
    EXPECT_STREQ(core_mem_file(buf.data), "opened");
    EXPECT_EQ(core_mem_line(buf.data), 3);
}

TEST(Buf, RoomAndSize) {
    held_buf_t buf;
    add(buf, "abcdef");
    ASSERT_EQ(core_buf_respace(&buf, 8192, CORE_HERE), 1);
    EXPECT_GE(buf.size - buf.length, 8192u);
    uint8_t* before = buf.data;
    EXPECT_EQ(core_buf_respace(&buf, 8192, CORE_HERE), 1);
    EXPECT_EQ(buf.data, before) << "there was room";
    EXPECT_EQ(core_buf_resize(&buf, 4, CORE_HERE), 1);
    EXPECT_EQ(text(buf), "abcd");
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
    EXPECT_EQ(core_buf_read(&full, nullptr, 1), 0u);
    EXPECT_EQ(core_buf_read(nullptr, "a", 1), 0u);
}

TEST(Buf, DumpReplacesTheFile) {
    const test::scratch dir;
    const std::string path = dir / "dump";
    held_buf_t buf;
    add(buf, "longer");
    EXPECT_EQ(core_buf_dump(&buf, path.c_str()), 1);
    core_buf_ignore(&buf, 4);
    EXPECT_EQ(core_buf_dump(&buf, path.c_str()), 1);
    std::string line;
    std::getline(std::ifstream(path), line);
    EXPECT_EQ(line, "er");
    EXPECT_EQ(core_buf_dump(&buf, (path + "/no/such").c_str()), 0);
}

TEST(Buffer, Copies) {
    held_buffer_t a;
    EXPECT_EQ(set(a, "hello"), 1);
    EXPECT_EQ(core_buffer_set(&a, a.data + 1, 3, CORE_HERE), 1) << "from itself";
    EXPECT_EQ(text(a), "ell");
    held_buffer_t b;
    EXPECT_EQ(core_buffer_copy(&b, &a, CORE_HERE), 1);
    EXPECT_EQ(text(b), "ell");
    EXPECT_EQ(buffer_resize(&b, 5, CORE_HERE), 1);
    EXPECT_EQ(text(b), std::string_view("ell\0\0", 5));
    EXPECT_EQ(buffer_resize(&b, 1, CORE_HERE), 1);
    EXPECT_EQ(text(b), "e");
    EXPECT_EQ(set(b, ""), 1);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(core_buffer_set(&a, nullptr, 1, CORE_HERE), 0);
    EXPECT_EQ(core_buffer_copy(&a, nullptr, CORE_HERE), 0);
    EXPECT_EQ(text(a), "ell");
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
        held_buffer_t hay;
        held_buffer_t needle;
        ASSERT_TRUE(set(hay, c.hay) && set(needle, c.needle));
        EXPECT_EQ(core_buffer_find(&hay, &needle), c.at < 0 ? nullptr : hay.data + c.at) << c.needle;
    }
}

TEST(Buffer, Hex) {
    held_buffer_t bytes;
    set(bytes, {"\x00\x1f\xfa", 3});
    EXPECT_STREQ(core::owned_text(core_buffer_hex(&bytes, CORE_HERE)).get(), "001ffa");
    for (const char* refused : {"0", "0g", "g0", "00 1", "\xff\xff"}) {
        EXPECT_EQ(core_buffer_unhex(&bytes, refused, CORE_HERE), 0);
        EXPECT_EQ(bytes.size, 3u);
    }
    EXPECT_EQ(core_buffer_unhex(&bytes, "DEADbeef00", CORE_HERE), 1);
    EXPECT_EQ(text(bytes), std::string_view("\xde\xad\xbe\xef\0", 5));
    EXPECT_EQ(core_buffer_unhex(&bytes, "", CORE_HERE), 1);
    EXPECT_EQ(bytes.size, 0u);
    EXPECT_STREQ(core::owned_text(core_buffer_hex(&bytes, CORE_HERE)).get(), "");
}

TEST(Buf, NoMemoryLeavesBytesAsTheyWere) {
    test::fail_each_allocation([] {
        held_buf_t buf;
        const std::string bytes(60, 'b');
        std::string model;
        for (int i = 0; i < 4; ++i)
            if (add(buf, bytes)) model += bytes;
        EXPECT_EQ(text(buf), model);
        if (!core_buf_resize(&buf, 1000, CORE_HERE)) {
            EXPECT_EQ(text(buf), model);
        }
        held_buffer_t span;
        const std::string_view expected = set(span, "abc") ? "abc" : "";
        if (!set(span, "other")) {
            EXPECT_EQ(text(span), expected);
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
