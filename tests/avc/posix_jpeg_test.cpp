// Pictures of another encoder: cjpeg makes them, ffmpeg reads them behind a rebuilt header.
#include "support/program.h"

#include "avc/jpeg.h"

#include <array>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

/// The quantisation tables, one behind the other.
std::string tables_of(const std::string& picture) {
    std::string tables;
    for (size_t at = 0; (at = picture.find("\xff\xdb\0\x43"s, at)) != picture.npos; at += 69)
        tables += picture.substr(at + 5, 64);
    return tables;
}

std::string pixels(const std::string& picture) {
    const test::scratch dir;
    test::write_file(dir / "picture.jpg", test::bytes_of(picture));
    return test::run("ffmpeg -v error -xerror -f mjpeg -i " + dir / "picture.jpg" + " -f rawvideo -");
}

TEST(Jpeg, AnEncodersPictureIsTheSameBehindARebuiltHeader) {
    for (const std::string options : {"2x1 -restart 3B", "2x2 -quality 95", "2x2 -qslots 0"}) {
        const std::string source = test::run(
            "ffmpeg -v error -f lavfi -i testsrc=size=104x72 -frames:v 1 -f image2pipe -c:v ppm - | cjpeg -sample " +
            options);
        jpeg_info_t info{};
        ASSERT_EQ(jpeg_inspect(test::bytes_of(source), &info), 1);
        // What RTP would say of it, and the scan behind that.
        buf_t out;
        jpeg_rtp_header(&out, info.sampling[0] - 0x21U, info.width, info.height, info.restart_interval,
                        test::bytes_of(tables_of(source)), CORE_HERE);
        const std::string header(out.data, out.data + out.length);
        core_buf_free(&out);
        EXPECT_EQ(pixels(header + source.substr(source.find("\xff\xda\0\x0c"s) + 14)), pixels(source)) << options;
    }
}

TEST(Jpeg, TablesAreThoseOfAnEncoderAtEveryQ) {
    std::array<uint8_t, 128> tables{};
    for (uint32_t q = 1; q < 100; ++q) {
        EXPECT_EQ(jpeg_rtp_tables(q, tables.data()), 1);
        const auto tiny = "printf 'P3 1 1 255 0 0 0' | cjpeg -baseline -quality " + std::to_string(q);
        EXPECT_EQ(tables_of(test::run(tiny)), std::string(tables.begin(), tables.end())) << q;
    }
    EXPECT_EQ(jpeg_rtp_tables(0, tables.data()) + jpeg_rtp_tables(100, tables.data()), 0);
}

}  // namespace
