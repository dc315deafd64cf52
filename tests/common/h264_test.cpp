#include "common/h264.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

bytes unhex(std::string_view text) {
    bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    return out;
}

/// "profile level chroma-format bit-depth p|i widthxheight ticks/scale", empty when the set is refused.
std::string said_of(const bytes& sps) {
    h264_info_t info{};
    info.width = 7;
    if (!h264_parse_sps(sps, &info)) {
        EXPECT_EQ(info.width, 7U) << "what is refused changes nothing";
        return "";
    }
    EXPECT_EQ(info.bit_depth_chroma, info.bit_depth);
    std::ostringstream out;
    out << +info.profile_idc << ' ' << +info.level_idc << ' ' << +info.chroma_format << ' ' << +info.bit_depth << ' '
        << (info.frame_mbs_only ? 'p' : 'i') << ' ' << info.width << 'x' << info.height << ' ' << info.num_units_in_tick
        << '/' << info.time_scale;
    return out.str();
}

constexpr auto sps_1080p = "67640028acd940780227e5c044000003000400000300c83c60c658";

TEST(ParameterSets, SayWhatIsInThePicture) {
    constexpr struct {
        const char* name;
        const char* sps;
        const char* said;
    } cases[] = {
        // What x264 wrote for pictures of these kinds, and what ffprobe says of them.
        {"1080p cropped", sps_1080p, "100 40 1 8 p 1920x1080 1/50"},
        {"baseline", "6742c00dd90141fb011000000300100000030320f142a480", "66 13 1 8 p 320x240 1/50"},
        {"main, odd crop", "674d400deca0a8cf111180880000030008000003019078a14cb0", "77 13 1 8 p 322x178 1/50"},
        {"4:2:2", "677a000dbcd941519e68bc0440000003004000000c83c50a6580", "122 13 2 8 p 326x182 1/50"},
        {"4:4:4", "67f4000d919b282a33c2119808800000030080000019078a14cb", "244 13 3 8 p 321x181 1/50"},
        {"10 bits", "676e001ea6cd940a02ff97011000000300100000030320f162d960", "110 30 1 10 p 640x360 1/50"},
        {"interlaced", "6764001eacd940b424d8088000000300800000190f8a14cb", "100 30 1 8 i 720x576 1/50"},
        {"interlaced, HRD", "67640028acd94078044fde022000000300200000064c90001e848003d09c98601f162d96",
         "100 40 1 8 i 1920x1080 1/50"},
        {"colour description", "6764000dacd9416096c0694040406940000003004000000c83c50a6580",
         "100 13 1 8 p 352x288 1/50"},
        {"4320p", "6742c03cda00780021db011000000300100000030320f08042a0", "66 60 1 8 p 7680x4320 1/50"},
        // Written field by field, for what encoders at hand do not make; 320x240 before cropping.
        {"monochrome crops by one", "67640028f32a0507f4c854", "100 40 0 8 p 317x233 0/0"},
        {"monochrome in fields crops by two lines", "67640028f32a0507bd52", "100 40 0 8 i 319x478 0/0"},
        {"4:2:0 in fields crops by four lines", "67640028acca8141ef5480", "100 40 1 8 i 318x476 0/0"},
        {"4:2:2 crops by two and one", "67640028bcca8141fd55", "100 40 2 8 p 318x239 0/0"},
        {"separate planes crop by one", "67640028939950283faaa0", "100 40 3 8 p 319x239 0/0"},
        {"scaling lists", "67640028ad422ba74e9d3a6ba74e9d3a6ba74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a7950283f20",
         "100 40 1 8 p 320x240 0/0"},
        {"scaling lists of 4:4:4",
         "6764002891a84574e9d3a74d74e9d3a74d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74"
         "d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74f2a0507e4",
         "100 40 3 8 p 320x240 0/0"},
        {"picture order type 1", "67640028aca14cd340a0fc80", "100 40 1 8 p 320x240 0/0"},
        {"picture order type 2", "67420028da0507e4", "66 40 1 8 p 320x240 0/0"},
        {"both HRDs", "67640028acca8141fa0a0000030088b88a98e00000a00000088b88a98e00000303c58ba8",
         "100 40 1 8 p 320x240 0/0"},
        {"largest", "67640028acca80040000200640", "100 40 1 8 p 16384x16384 0/0"},
        {"too wide", "67640028acca8004011f90", ""},
        {"too high in fields", "67640028acca81400402c8", ""},
        {"as wide as numbers go", "67640028acca80000003003fffffffc7e4", ""},
        {"cropped to nothing", "67640028acca8141fc0a2051d0", ""},
        {"crop that overflows", "67640028acca8141fc0000030007fffffff8000003000ffffffffd", ""},
        {"chroma format 4", "676400289732a0507e40", ""},
        {"picture order type 3", "67640028ac910283f2", ""},
        {"17 reference frames", "67640028acca120507e4", ""},
        {"exp-Golomb of 33 zeros", "67640028acca000003000080000003004141f9", ""},
        {"a PPS", "68640028acca8141f9", ""},
        {"forbidden bit", "e7640028acca8141f9", ""},
    };
    for (const auto& c : cases) {
        const bytes sps = unhex(c.sps);
        EXPECT_EQ(said_of(sps), c.said) << c.name;
        for (size_t size = 0; size < sps.size(); ++size)
            EXPECT_EQ(said_of(bytes(sps.begin(), sps.begin() + static_cast<ptrdiff_t>(size))), "")
                << c.name << " cut to " << size;
    }
}

/// The NAL units of a stream, found by a search for start codes.
std::vector<std::string_view> searched(std::string_view stream) {
    constexpr std::string_view code("\0\0\1", 3);
    std::vector<std::string_view> nals;
    for (size_t at = stream.find(code); at != stream.npos;) {
        const size_t next = stream.find(code, at + 3);
        std::string_view nal = stream.substr(at + 3, next == stream.npos ? next : next - at - 3);
        nal = nal.substr(0, nal.find_last_not_of('\0') + 1);
        if (!nal.empty()) nals.push_back(nal);
        at = next;
    }
    return nals;
}

TEST(ByteStream, SplitsAsASearchDoes) {
    std::mt19937 random(7);
    for (size_t round = 0; round < 2000; ++round) {
        // Start codes everywhere, or one at each place among bytes that are passed over in blocks.
        const bool dense = round % 2;
        bytes stream(dense ? random() % 200 : 1010);
        for (uint8_t& byte : stream)
            byte = static_cast<uint8_t>(dense ? random() % 3 : 1 + random() % 255);
        if (!dense) std::ranges::copy(unhex("000001"), stream.begin() + static_cast<ptrdiff_t>(round / 2));
        std::vector<std::string_view> nals;
        std::span<const uint8_t> rest = stream;
        for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest))
            nals.emplace_back(reinterpret_cast<const char*>(nal.data()), nal.size());
        ASSERT_EQ(nals, searched({reinterpret_cast<const char*>(stream.data()), stream.size()}));
    }
}

TEST(ByteStream, FindsParameterSetsAndTheFirstSlice) {
    const bytes unit = unhex(std::string("0000000109f000000001") + sps_1080p +
                             "0000000168ee3c80000001060501000001658884000000016588840100000168ee");
    std::span<const uint8_t> sps;
    std::span<const uint8_t> pps;
    h264_info_t info{};
    EXPECT_EQ(h264_parse(unit, &sps, &pps, &info), 1);
    EXPECT_EQ(info.height, 1080U);
    EXPECT_TRUE(std::ranges::equal(sps, unhex(sps_1080p)));
    EXPECT_TRUE(std::ranges::equal(pps, unhex("68ee3c80")));
    EXPECT_TRUE(std::ranges::equal(h264_find(unit, h264_sei), unhex("060501")));
    EXPECT_TRUE(h264_find(unit, h264_slice).empty());
    EXPECT_TRUE(std::ranges::equal(h264_first_slice(unit), unhex("658884000000016588840100000168ee")));

    const std::span head = std::span(unit).first(static_cast<size_t>(pps.data() - unit.data()));
    EXPECT_EQ(h264_parse(head, &sps, &pps, nullptr), 0);
    EXPECT_FALSE(sps.empty());
    EXPECT_TRUE(pps.empty());
    EXPECT_TRUE(h264_first_slice(head).empty());
}

TEST(ByteStream, AccessUnitsBeginAtDelimitersSetsAndFirstSlices) {
    for (const char* first : {"09f0", "67", "68", "06", "0e", "12", "6588", "4188", "2280"})
        EXPECT_EQ(h264_starts_access_unit(unhex(first)), 1) << first;
    for (const char* inner : {"", "65", "6540", "4120", "2380", "0c80", "13", "00"})
        EXPECT_EQ(h264_starts_access_unit(unhex(inner)), 0) << inner;
}

}  // namespace
