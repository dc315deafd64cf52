// Pictures behind a rebuilt header, decoded by ffmpeg.
#include "support/program.h"

#include "avc/jpeg.h"

#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

using namespace std::string_literals;
using test::bytes_of;

std::string rtp_header(uint32_t type, uint32_t width, uint32_t height, uint32_t restart, const std::string& tables) {
    buf_t out;
    const uint32_t size = jpeg_rtp_header(&out, type, width, height, restart, bytes_of(tables), CORE_HERE);
    EXPECT_EQ(size, out.length);
    std::string header(reinterpret_cast<const char*>(out.data), out.length);
    core_buf_free(&out);
    return header;
}

std::string decode(const test::scratch& dir, const std::string& jpeg, const std::string& format) {
    const std::string path = dir / "picture.jpg";
    test::write_file(path, bytes_of(jpeg));
    return test::run("ffmpeg -v error -xerror -f mjpeg -i " + path + " -f rawvideo -pix_fmt " + format + " -");
}

TEST(Jpeg, AnEncodersPictureIsTheSameBehindARebuiltHeader) {
    const test::scratch dir;
    const std::string path = dir / "source.jpg";
    test::run(
        "ffmpeg -v error -f lavfi -i testsrc=size=104x72 -frames:v 1 -c:v mjpeg -huffman default -q:v 3 "
        "-pix_fmt yuvj420p " +
        path);
    const std::string source = test::read_file(path);
    jpeg_info_t info{};
    ASSERT_EQ(jpeg_inspect(bytes_of(source), &info), 1);
    EXPECT_EQ(info.width, 104U);
    EXPECT_EQ(info.height, 72U);
    EXPECT_EQ(info.components, 3U);

    const size_t table = source.find("\xff\xdb\0\x43\0"s);
    const size_t scan_header = source.find("\xff\xda\0\x0c"s);
    ASSERT_TRUE(table != source.npos && scan_header != source.npos);
    const std::string rebuilt =
        rtp_header(1, 104, 72, 0, source.substr(table + 5, 64)) + source.substr(scan_header + 14);
    for (const auto& [marker, size] : {std::pair("\xff\xc4\0\x1f"s, 29), std::pair("\xff\xc4\0\xb5"s, 179)}) {
        const size_t luma = rebuilt.find(marker);
        const size_t chroma = rebuilt.find(marker, luma + 4);
        ASSERT_NE(chroma, rebuilt.npos);
        EXPECT_NE(source.find(rebuilt.substr(luma + 4, size)), source.npos);
        EXPECT_NE(source.find(rebuilt.substr(chroma + 4, size)), source.npos);
    }
    const std::string want = decode(dir, source, "yuvj420p");
    EXPECT_EQ(want.size(), 104U * 72 * 3 / 2);
    EXPECT_EQ(decode(dir, rebuilt, "yuvj420p"), want);
}

/// Writes scan data of blocks of one shade each, with the codes of the standard tables (T.81, K.3) written out.
class flat_scan {
public:
    void block(size_t component, int dc) {
        constexpr const char* dc_codes[2][8] = {{"00", "010", "011", "100", "101", "110", "1110", "11110"},
                                                {"00", "01", "10", "110", "1110", "11110", "111110", "1111110"}};
        constexpr const char* end_of_block[] = {"1010", "00"};
        const int difference = dc - std::exchange(last_[component], dc);
        int category = 0;
        while (std::abs(difference) >> category != 0)
            ++category;
        const int amplitude = difference < 0 ? difference - 1 : difference;
        bits_ += dc_codes[component != 0][category];
        for (int bit = category; bit-- > 0;)
            bits_ += (amplitude >> bit & 1) != 0 ? '1' : '0';
        bits_ += end_of_block[component != 0];
    }
    void restart(int number) {
        flush();
        bytes_ += {'\xff', static_cast<char>(0xd0 + number % 8)};
        last_ = {};
    }
    std::string finish() {
        flush();
        return bytes_ + "\xff\xd9";
    }

private:
    void flush() {
        while (bits_.size() % 8 != 0)
            bits_ += '1';
        for (size_t i = 0; i < bits_.size(); i += 8) {
            bytes_ += static_cast<char>(std::stoi(bits_.substr(i, 8), nullptr, 2));
            if (bytes_.back() == '\xff') bytes_ += '\0';
        }
        bits_.clear();
    }

    std::string bits_;
    std::string bytes_;
    std::array<int, 3> last_{};
};

int shade(size_t component, uint32_t x, uint32_t y) {
    return static_cast<int>((x * 17 + y * 29 + component * 41) % 101) - 50;
}

constexpr uint32_t width = 64;
constexpr uint32_t height = 48;

/// The planes of the picture that flat_picture() codes: luma tables of 8 make a DC step one shade, chroma's of 16 two.
std::string flat_planes(uint32_t type) {
    std::string out;
    for (size_t component = 0; component < 3; ++component) {
        const uint32_t columns = component == 0 ? width : width / 2;
        const uint32_t rows = component == 0 || type == 0 ? height : height / 2;
        for (uint32_t i = 0; i < rows * columns; ++i) {
            const int step = shade(component, i % columns / 8, i / columns / 8);
            out += static_cast<char>(128 + (component == 0 ? step : 2 * step));
        }
    }
    return out;
}

std::string flat_picture(uint32_t type, uint32_t restart) {
    const uint32_t blocks_high = type == 0 ? 1 : 2;
    flat_scan out;
    uint32_t units = 0;
    for (uint32_t y = 0; y < height / 8 / blocks_high; ++y) {
        for (uint32_t x = 0; x < width / 16; ++x, ++units) {
            if (restart != 0 && units != 0 && units % restart == 0) out.restart(static_cast<int>(units / restart) - 1);
            for (uint32_t row = 0; row < blocks_high; ++row) {
                out.block(0, shade(0, 2 * x, y * blocks_high + row));
                out.block(0, shade(0, 2 * x + 1, y * blocks_high + row));
            }
            out.block(1, shade(1, x, y));
            out.block(2, shade(2, x, y));
        }
    }
    return rtp_header(type, width, height, restart, std::string(64, '\x08') + std::string(64, '\x10')) + out.finish();
}

TEST(Jpeg, EveryTypeWithAndWithoutRestartsDecodesToItsShades) {
    const test::scratch dir;
    for (uint32_t type : {0U, 1U}) {
        for (uint32_t restart : {0U, 1U, 3U}) {
            const std::string picture = flat_picture(type, restart);
            jpeg_info_t info{};
            EXPECT_EQ(jpeg_inspect(bytes_of(picture), &info), 1);
            EXPECT_EQ(info.restart_interval, restart);
            EXPECT_EQ(decode(dir, picture, type == 0 ? "yuvj422p" : "yuvj420p"), flat_planes(type))
                << "type " << type << " restart " << restart;
        }
    }
}

}  // namespace
