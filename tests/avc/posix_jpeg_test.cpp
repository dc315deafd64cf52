// Pictures of another encoder: cjpeg makes them, ffmpeg reads them behind a rebuilt header.
#include "support/program.h"

#include "avc/jpeg.h"

#include <array>
#include <gtest/gtest.h>
#include <string>

namespace {

using namespace std::string_literals;
using test::bytes_of;

/// What cjpeg makes of the picture that a command writes.
std::string coded(const std::string& picture, const std::string& options) {
    return test::run(picture + " | cjpeg " + options);
}

/// The quantisation tables, one behind the other.
std::string tables_of(const std::string& picture) {
    std::string tables;
    for (size_t at = 0; (at = picture.find("\xff\xdb\0\x43"s, at)) != picture.npos; at += 69)
        tables += picture.substr(at + 5, 64);
    return tables;
}

/// The picture behind a header made from what RTP would say of it.
std::string rebuilt(const std::string& picture, uint32_t type, const jpeg_info_t& info) {
    buf_t out;
    jpeg_rtp_header(&out, type, info.width, info.height, info.restart_interval, bytes_of(tables_of(picture)),
                    CORE_HERE);
    const std::string header(out.data, out.data + out.length);
    core_buf_free(&out);
    return header + picture.substr(picture.find("\xff\xda\0\x0c"s) + 14);
}

std::string pixels(const std::string& picture) {
    const test::scratch dir;
    const std::string path = dir / "picture.jpg";
    test::write_file(path, bytes_of(picture));
    return test::run("ffmpeg -v error -xerror -f mjpeg -i " + path + " -f rawvideo -");
}

TEST(Jpeg, AnEncodersPictureIsTheSameBehindARebuiltHeader) {
    constexpr struct {
        const char* options;
        uint32_t type, restart;
    } cases[] = {
        {"-sample 2x1", 0, 0},
        {"-sample 2x1 -restart 3B", 0, 3},
        {"-sample 2x2 -quality 95", 1, 0},
        {"-sample 2x2 -restart 1B", 1, 1},
        {"-sample 2x2 -qslots 0", 1, 0},  // one table for luma and chroma
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        const std::string source =
            coded("ffmpeg -v error -f lavfi -i testsrc=size=104x72 -frames:v 1 -f image2pipe -c:v ppm -", c.options);
        jpeg_info_t info{};
        ASSERT_EQ(jpeg_inspect(bytes_of(source), &info), 1);
        EXPECT_EQ((std::array{info.width, info.height, info.components, info.restart_interval}),
                  (std::array{104U, 72U, 3U, c.restart}));
        EXPECT_EQ(info.sampling[0], c.type == 0 ? 0x21 : 0x22);
        EXPECT_EQ(info.sampling[2], 0x11);
        const std::string want = pixels(source);
        EXPECT_EQ(want.size(), 104U * 72 * (c.type == 0 ? 4 : 3) / 2);
        EXPECT_EQ(pixels(rebuilt(source, c.type, info)), want);
    }
}

TEST(Jpeg, TablesAreThoseOfAnEncoderAtEveryQ) {
    std::array<uint8_t, 128> tables{};
    for (uint32_t q = 1; q < 100; ++q) {
        EXPECT_EQ(jpeg_rtp_tables(q, tables.data()), 1);
        const std::string source = coded("printf 'P3 1 1 255 0 0 0'", "-baseline -quality " + std::to_string(q));
        EXPECT_EQ(tables_of(source), std::string(tables.begin(), tables.end())) << q;
    }
    for (const uint32_t none : {0, 100})
        EXPECT_EQ(jpeg_rtp_tables(none, tables.data()), 0);
}

}  // namespace
