#include "common/h264.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

bytes unhex(std::string_view text) {
    bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    }
    return out;
}

struct encoder_case {
    const char* name;
    const char* sps;
    uint8_t profile, level, chroma, bit_depth;
    bool frame_mbs_only;
    uint32_t width, height, ticks, time_scale;
};

// What x264 wrote for pictures of these kinds, and what ffprobe says of them.
constexpr encoder_case encoder_cases[] = {
    {"1080p cropped", "67640028acd940780227e5c044000003000400000300c83c60c658", 100, 40, 1, 8, true, 1920, 1080, 1, 50},
    {"baseline", "6742c00dd90141fb011000000300100000030320f142a480", 66, 13, 1, 8, true, 320, 240, 1, 50},
    {"main, odd crop", "674d400deca0a8cf111180880000030008000003019078a14cb0", 77, 13, 1, 8, true, 322, 178, 1, 50},
    {"4:2:2", "677a000dbcd941519e68bc0440000003004000000c83c50a6580", 122, 13, 2, 8, true, 326, 182, 1, 50},
    {"4:4:4", "67f4000d919b282a33c2119808800000030080000019078a14cb", 244, 13, 3, 8, true, 321, 181, 1, 50},
    {"10 bits", "676e001ea6cd940a02ff97011000000300100000030320f162d960", 110, 30, 1, 10, true, 640, 360, 1, 50},
    {"interlaced", "6764001eacd940b424d8088000000300800000190f8a14cb", 100, 30, 1, 8, false, 720, 576, 1, 50},
    {"interlaced, HRD", "67640028acd94078044fde022000000300200000064c90001e848003d09c98601f162d96", 100, 40, 1, 8,
     false, 1920, 1080, 1, 50},
    {"colour description", "6764000dacd9416096c0694040406940000003004000000c83c50a6580", 100, 13, 1, 8, true, 352, 288,
     1, 50},
    {"4320p", "6742c03cda00780021db011000000300100000030320f08042a0", 66, 60, 1, 8, true, 7680, 4320, 1, 50},
};

TEST(ParameterSets, OfAnEncoderSayWhatIsInThePicture) {
    for (const encoder_case& want : encoder_cases) {
        SCOPED_TRACE(want.name);
        h264_info_t got{};
        ASSERT_EQ(h264_parse_sps(unhex(want.sps), &got), 1);
        EXPECT_EQ(got.profile_idc, want.profile);
        EXPECT_EQ(got.level_idc, want.level);
        EXPECT_EQ(got.chroma_format, want.chroma);
        EXPECT_EQ(got.bit_depth, want.bit_depth);
        EXPECT_EQ(got.bit_depth_chroma, want.bit_depth);
        EXPECT_EQ(got.frame_mbs_only, want.frame_mbs_only);
        EXPECT_EQ(got.width, want.width);
        EXPECT_EQ(got.height, want.height);
        EXPECT_EQ(got.num_units_in_tick, want.ticks);
        EXPECT_EQ(got.time_scale, want.time_scale);
    }
}

TEST(ParameterSets, CutShortAnywhereAreRefused) {
    for (const encoder_case& whole : encoder_cases) {
        const bytes sps = unhex(whole.sps);
        for (size_t size = 0; size < sps.size(); ++size) {
            // A block of exactly this size: the sanitizer sees a read behind it.
            const bytes cut(sps.begin(), sps.begin() + static_cast<ptrdiff_t>(size));
            h264_info_t untouched{};
            untouched.width = 7;
            EXPECT_EQ(h264_parse_sps(cut, &untouched), 0) << whole.name << " cut to " << size;
            EXPECT_EQ(untouched.width, 7U);
        }
    }
}

// Parameter sets written field by field, for what encoders at hand do not make; 320x240 before cropping.
TEST(ParameterSets, RareFormsGiveTheCroppedSizeAndNonsenseNone) {
    struct {
        const char* name;
        const char* sps;
        uint32_t width, height;  // 0: refused
    } const cases[] = {
        {"monochrome crops by one", "67640028f32a0507f4c854", 317, 233},
        {"monochrome in fields crops by two lines", "67640028f32a0507bd52", 319, 478},
        {"4:2:0 in fields crops by four lines", "67640028acca8141ef5480", 318, 476},
        {"4:2:2 crops by two and one", "67640028bcca8141fd55", 318, 239},
        {"separate planes crop by one", "67640028939950283faaa0", 319, 239},
        {"scaling lists", "67640028ad422ba74e9d3a6ba74e9d3a6ba74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a7950283f20", 320, 240},
        {"scaling lists of 4:4:4",
         "6764002891a84574e9d3a74d74e9d3a74d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74"
         "d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74f2a0507e4",
         320, 240},
        {"picture order type 1", "67640028aca14cd340a0fc80", 320, 240},
        {"picture order type 2", "67420028da0507e4", 320, 240},
        {"both HRDs", "67640028acca8141fa0a0000030088b88a98e00000a00000088b88a98e00000303c58ba8", 320, 240},
        {"largest", "67640028acca80040000200640", 16384, 16384},
        {"too wide", "67640028acca8004011f90", 0, 0},
        {"too high in fields", "67640028acca81400402c8", 0, 0},
        {"as wide as numbers go", "67640028acca80000003003fffffffc7e4", 0, 0},
        {"cropped to nothing", "67640028acca8141fc0a2051d0", 0, 0},
        {"crop that overflows", "67640028acca8141fc0000030007fffffff8000003000ffffffffd", 0, 0},
        {"chroma format 4", "676400289732a0507e40", 0, 0},
        {"picture order type 3", "67640028ac910283f2", 0, 0},
        {"17 reference frames", "67640028acca120507e4", 0, 0},
        {"exp-Golomb of 33 zeros", "67640028acca000003000080000003004141f9", 0, 0},
        {"a PPS", "68640028acca8141f9", 0, 0},
        {"forbidden bit", "e7640028acca8141f9", 0, 0},
    };
    for (const auto& want : cases) {
        SCOPED_TRACE(want.name);
        h264_info_t got{};
        EXPECT_EQ(h264_parse_sps(unhex(want.sps), &got), want.width != 0);
        EXPECT_EQ(got.width, want.width);
        EXPECT_EQ(got.height, want.height);
    }
}

std::vector<bytes> split(std::span<const uint8_t> stream) {
    std::vector<bytes> nals;
    for (auto nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream))
        nals.emplace_back(nal.begin(), nal.end());
    return nals;
}

TEST(ByteStream, SplitsAsASearchByteByByteDoes) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        // Start codes everywhere, or a few among bytes that are passed over in blocks.
        const bool dense = round % 2;
        const std::string_view code("\0\0\1", 3);
        bytes stream(random() % (dense ? 200 : 700));
        for (uint8_t& byte : stream)
            byte = static_cast<uint8_t>(!dense || random() % 4 == 0 ? random() : random() % 2);
        for (size_t codes = random() % 5; !dense && codes > 0 && stream.size() > code.size(); --codes)
            std::ranges::copy(code, stream.begin() + static_cast<ptrdiff_t>(random() % (stream.size() - 2)));
        std::vector<bytes> want;
        const std::string_view text(reinterpret_cast<const char*>(stream.data()), stream.size());
        for (size_t at = text.find(code); at != text.npos;) {
            const size_t next = text.find(code, at + 3);
            std::string_view nal = text.substr(at + 3, next == text.npos ? next : next - at - 3);
            nal = nal.substr(0, nal.find_last_not_of('\0') + 1);
            if (!nal.empty()) want.emplace_back(nal.begin(), nal.end());
            at = next;
        }
        ASSERT_EQ(split(stream), want);
    }
}

TEST(ByteStream, FindsParameterSetsAndTheFirstSlice) {
    const bytes unit = unhex(std::string("0000000109f000000001") + encoder_cases[0].sps + "0000000168ee3c80" +
                             "00000106050100000165888400" + "00000165888401");
    std::span<const uint8_t> sps;
    std::span<const uint8_t> pps;
    h264_info_t info{};
    EXPECT_EQ(h264_parse(unit, &sps, &pps, &info), 1);
    EXPECT_EQ(h264_parse(unit, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(info.height, 1080U);
    EXPECT_TRUE(std::ranges::equal(sps, unhex(encoder_cases[0].sps)));
    EXPECT_TRUE(std::ranges::equal(pps, unhex("68ee3c80")));
    EXPECT_TRUE(std::ranges::equal(h264_find(unit, h264_sei), unhex("060501")));
    EXPECT_TRUE(h264_find(unit, h264_slice).empty());
    EXPECT_TRUE(std::ranges::equal(h264_first_slice(unit), unhex("65888400"
                                                                 "00000165888401")));

    const std::span head = std::span<const uint8_t>(unit).first(static_cast<size_t>(pps.data() - unit.data()));
    EXPECT_EQ(h264_parse(head, &sps, &pps, &info), 0);
    EXPECT_FALSE(sps.empty());
    EXPECT_TRUE(pps.empty());
    EXPECT_TRUE(h264_first_slice(head).empty());
}

TEST(ByteStream, AccessUnitsBeginAtDelimitersSetsAndFirstSlices) {
    for (const char* first : {"09f0", "67", "68", "06", "0e", "12", "6588", "4188", "2280"}) {
        EXPECT_EQ(h264_starts_access_unit(unhex(first)), 1) << first;
    }
    for (const char* inner : {"", "65", "6540", "4120", "2380", "0c80", "13", "00"}) {
        EXPECT_EQ(h264_starts_access_unit(unhex(inner)), 0) << inner;
    }
}

}  // namespace
