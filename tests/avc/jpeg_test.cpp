// Headers of JPEG pictures. posix_jpeg_test.cpp has pictures of another encoder.
#include "avc/jpeg.h"

#include "support/exact.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace {

using namespace std::string_literals;

const std::string soi = "\xff\xd8"s;
const std::string scan = "\xff\xda\0\x08\1\1\0\0\x3f\0"s;

/// Frame header of a picture of 48x32 with one component.
std::string frame_header(char code = '\xc0') { return "\xff"s + code + "\0\x0b\x08\0\x20\0\x30\1\1\x11\0"s; }

/// "widthxheight/restart interval" with " progressive" behind it; empty when the data is refused.
std::string said_of(std::string_view data) {
    const test::exact_bytes bytes(data);
    jpeg_info_t info{};
    if (!jpeg_inspect({reinterpret_cast<uint8_t*>(bytes.data()), bytes.size()}, &info)) return "";
    EXPECT_EQ(info.components, 1U);
    EXPECT_EQ(info.sampling[0], 0x11);
    EXPECT_EQ(info.sampling[1], 0) << "there is one component";
    return std::to_string(info.width) + 'x' + std::to_string(info.height) + '/' +
           std::to_string(info.restart_interval) + (info.progressive ? " progressive" : "");
}

TEST(Jpeg, InspectionReadsHeadersAsFarAsTheScan) {
    const struct {
        const char* name;
        std::string data;
        const char* said;
    } cases[] = {
        {"plain", soi + frame_header() + scan, "48x32/0"},
        {"progressive", soi + frame_header('\xc2') + scan, "48x32/0 progressive"},
        {"restart interval", soi + "\xff\xdd\0\4\1\2"s + frame_header() + scan, "48x32/258"},
        {"restart interval behind", soi + frame_header() + "\xff\xdd\0\4\0\7"s + scan, "48x32/7"},
        {"fill bytes and others before a marker", soi + "ab\xff\xff\xff"s + frame_header() + scan, "48x32/0"},
        {"a frame header inside a comment", soi + "\xff\xfe\0\x0f"s + frame_header('\xc2') + frame_header(), "48x32/0"},
        {"no SOI", frame_header() + scan, ""},
        {"scan before a frame header", soi + scan + frame_header(), ""},
        {"end before a frame header", soi + "\xff\xd9"s + frame_header(), ""},
        {"Huffman table is no frame header", soi + frame_header('\xc4') + scan, ""},
        {"segment longer than the data", soi + "\xff\xe0\xff\xff"s + frame_header(), ""},
        {"length below its own size", soi + "\xff\xe0\0\1"s + frame_header(), ""},
        {"no width", soi + "\xff\xc0\0\x0b\x08\0\x20\0\0\1\1\x11\0"s + scan, ""},
        {"no height", soi + "\xff\xc0\0\x0b\x08\0\0\0\x30\1\1\x11\0"s + scan, ""},
        {"components missing", soi + "\xff\xc0\0\x0b\x08\0\x20\0\x30\2\1\x11\0"s + scan, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said_of(c.data), c.said) << c.name;
    const std::string whole = soi + "\xff\xdd\0\4\0\7"s + frame_header();
    for (size_t size = 0; size <= whole.size(); ++size)
        EXPECT_EQ(said_of(std::string_view(whole).substr(0, size)), size < whole.size() ? "" : "48x32/7") << size;
}

}  // namespace
