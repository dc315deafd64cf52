// Headers of JPEG pictures. posix_jpeg_test.cpp has pictures of another encoder.
#include "avc/jpeg.h"

#include "support/files.h"

#include <array>
#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(Jpeg, InspectionReadsHeadersAsFarAsTheScan) {
    const std::string soi = "\xff\xd8"s;
    const std::string scan = "\xff\xda\0\x08\1\1\0\0\x3f\0"s;
    const std::string frame = "\xff\xc0\0\x0b\x08\0\x20\0\x30\1\1\x11\0"s;
    const std::string progressive = "\xff\xc2\0\x0b\x08\0\x20\0\x30\1\1\x11\0"s;
    const std::string whole = soi + "\xff\xdd\0\4\1\2"s + frame;
    using said_t = std::array<uint32_t, 5>;  // width, height, components and sampling, restart interval, progressive
    const said_t plain{48, 32, 0x11100, 0, 0};
    const std::pair<std::string, said_t> cases[] = {
        {whole + scan, {48, 32, 0x11100, 258, 0}},
        {soi + progressive + "\xff\xdd\0\4\0\7"s + scan, {48, 32, 0x11100, 7, 1}},
        {soi + "ab\xff\xff\xff"s + frame + scan, plain},
        {soi + "\xff\xfe\0\x0f"s + progressive + frame, plain},  // one in a comment
        {frame + scan, {}},
        {soi + scan + frame, {}},
        {soi + "\xff\xd9"s + frame, {}},
        {soi + "\xff\xc4\0\x0b\x08\0\x20\0\x30\1\1\x11\0"s + scan, {}},  // a Huffman table
        {soi + "\xff\xe0\xff\xff"s + frame, {}},
        {soi + "\xff\xe0\0\1"s + frame, {}},
        {soi + "\xff\xc0\0\x0b\x08\0\x20\0\0\1\1\x11\0"s + scan, {}},
        {soi + "\xff\xc0\0\x0b\x08\0\0\0\x30\1\1\x11\0"s + scan, {}},
        {soi + "\xff\xc0\0\x0b\x08\0\x20\0\x30\2\1\x11\0"s + scan, {}},
    };
    for (const auto& [data, said] : cases) {
        jpeg_info_t info{};
        const bool taken = jpeg_inspect(test::bytes_of(data), &info) == 1;
        const uint32_t sampling = info.components << 16 | info.sampling[0] << 8 | info.sampling[1];
        const said_t read{info.width, info.height, sampling, info.restart_interval, info.progressive};
        EXPECT_EQ(taken ? read : said_t{}, said) << testing::PrintToString(data);
    }
}
