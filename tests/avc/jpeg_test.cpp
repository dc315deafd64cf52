#include "avc/jpeg.h"

#include "support/fault.h"
#include "support/files.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_literals;
using test::bytes_of;

const std::string soi = "\xff\xd8"s;
const std::string scan = "\xff\xda\0\x08\1\1\0\0\x3f\0"s;

/// Frame header of a picture of 48x32 with one component.
std::string frame_header(char code = '\xc0') { return "\xff"s + code + "\0\x0b\x08\0\x20\0\x30\1\1\x11\0"s; }

TEST(Jpeg, InspectionReadsHeadersAsFarAsTheScan) {
    struct {
        const char* name;
        std::string data;
        uint32_t width, restart;  // width 0: refused
        bool progressive;
    } const cases[] = {
        {"plain", soi + frame_header() + scan, 48, 0, false},
        {"progressive", soi + frame_header('\xc2') + scan, 48, 0, true},
        {"ends behind the frame header", soi + frame_header(), 48, 0, false},
        {"restart interval", soi + "\xff\xdd\0\4\1\2"s + frame_header() + scan, 48, 0x102, false},
        {"restart interval behind", soi + frame_header() + "\xff\xdd\0\4\0\7"s + scan, 48, 7, false},
        {"fill bytes and others before a marker", soi + "ab\xff\xff\xff"s + frame_header() + scan, 48, 0, false},
        {"a frame header inside a comment", soi + "\xff\xfe\0\x0f"s + frame_header('\xc2') + frame_header() + scan, 48,
         0, false},
        {"no SOI", frame_header() + scan, 0, 0, false},
        {"scan before a frame header", soi + scan + frame_header(), 0, 0, false},
        {"end before a frame header", soi + "\xff\xd9"s + frame_header(), 0, 0, false},
        {"Huffman table is no frame header", soi + frame_header('\xc4') + scan, 0, 0, false},
        {"segment longer than the data", soi + "\xff\xe0\xff\xff"s + frame_header(), 0, 0, false},
        {"length below its own size", soi + "\xff\xe0\0\1"s + frame_header(), 0, 0, false},
        {"no width", soi + "\xff\xc0\0\x0b\x08\0\x20\0\0\1\1\x11\0"s + scan, 0, 0, false},
        {"no height", soi + "\xff\xc0\0\x0b\x08\0\0\0\x30\1\1\x11\0"s + scan, 0, 0, false},
        {"components missing", soi + "\xff\xc0\0\x0b\x08\0\x20\0\x30\2\1\x11\0"s + scan, 0, 0, false},
    };
    for (const auto& want : cases) {
        SCOPED_TRACE(want.name);
        jpeg_info_t got{};
        EXPECT_EQ(jpeg_inspect(bytes_of(want.data), &got), want.width != 0);
        EXPECT_EQ(got.width, want.width);
        EXPECT_EQ(got.height, want.width == 0 ? 0U : 32U);
        EXPECT_EQ(got.restart_interval, want.restart);
        EXPECT_EQ(got.progressive, want.progressive);
        EXPECT_EQ(got.sampling[0], want.width == 0 ? 0 : 0x11);
        EXPECT_EQ(got.sampling[1], 0) << "there is one component";
    }
}

TEST(Jpeg, InspectionRefusesAHeaderCutAnywhere) {
    const std::string whole = soi + "\xff\xdd\0\4\0\7"s + frame_header();
    for (size_t size = 0; size < whole.size(); ++size) {
        const std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        jpeg_info_t info;
        EXPECT_EQ(jpeg_inspect(cut, &info), 0) << size;
    }
}

TEST(Jpeg, HeaderIsAppendedOrLeftOut) {
    buf_t out;
    ASSERT_EQ(core_buf_read(&out, "before", 6), 6U);
    const std::array<uint8_t, 128> tables{};
    const auto header = [&](uint32_t type, uint32_t w, uint32_t h, uint32_t restart, size_t size) {
        return jpeg_rtp_header(&out, type, w, h, restart, std::span(tables).first(size), CORE_HERE);
    };
    EXPECT_EQ(header(2, 8, 8, 0, 128), 0U);
    EXPECT_EQ(header(0, 0, 8, 0, 128), 0U);
    EXPECT_EQ(header(0, 8, 0x10000, 0, 128), 0U);
    EXPECT_EQ(header(0, 8, 8, 0x10000, 128), 0U);
    EXPECT_EQ(header(0, 8, 8, 0, 63), 0U);
    {
        const test::failing_allocation fault(1);
        EXPECT_EQ(header(0, 8, 8, 0, 128), 0U);
    }
    EXPECT_EQ(out.length, 6U);
    const uint32_t size = header(0, 8, 8, 0, 128);
    EXPECT_EQ(out.length, 6 + size);
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(out.data), 8), "before\xff\xd8");
    core_buf_free(&out);
}

TEST(Jpeg, TablesAreScaledByQ) {
    std::array<uint8_t, 128> at[100];
    for (uint32_t q = 1; q < 100; ++q)
        ASSERT_EQ(jpeg_rtp_tables(q, at[q].data()), 1);
    // The example tables begin so in zigzag order and end with 99.
    const std::array<uint8_t, 10> luma{16, 11, 12, 14, 12, 10, 16, 14, 13, 14};
    const std::array<uint8_t, 10> chroma{17, 18, 18, 24, 21, 24, 47, 26, 26, 47};
    EXPECT_TRUE(std::equal(luma.begin(), luma.end(), at[50].begin()));
    EXPECT_TRUE(std::equal(chroma.begin(), chroma.end(), at[50].begin() + 64));
    EXPECT_EQ(at[50][63], 99);
    EXPECT_EQ(at[75][0], 8);
    EXPECT_EQ(at[25][0], 32);
    EXPECT_EQ(at[99][0], 1);
    EXPECT_EQ(at[1][0], 255);
    EXPECT_EQ(jpeg_rtp_tables(0, at[0].data()), 0);
    EXPECT_EQ(jpeg_rtp_tables(100, at[0].data()), 0);
}

}  // namespace
