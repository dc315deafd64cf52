#include "common/h264.h"

#include "support/files.h"

#include <array>
#include <gtest/gtest.h>
#include <random>

namespace {

std::string unhex(std::string_view text) {
    std::string out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
    return out;
}

std::string text_of(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

// Profile, level, chroma format, bit depth of luma and chroma, whole frames, width, height, ticks, scale.
using said_t = std::array<uint32_t, 10>;

/// Nothing when the set is refused.
said_t said_of(const std::string& sps) {
    h264_info_t info{};
    EXPECT_FALSE(h264_parse_sps(test::bytes_of(sps), &info) == 0 && info.width > 0);
    return {info.profile_idc,    info.level_idc, info.chroma_format, info.bit_depth,         info.bit_depth_chroma,
            info.frame_mbs_only, info.width,     info.height,        info.num_units_in_tick, info.time_scale};
}

constexpr auto sps_1080p = "67640028acd940780227e5c044000003000400000300c83c60c658";

TEST(ParameterSets, SayWhatIsInThePicture) {
    constexpr std::pair<const char*, said_t> taken[] = {
        // What x264 wrote, and what ffprobe says of it.
        {sps_1080p, {100, 40, 1, 8, 8, 1, 1920, 1080, 1, 50}},
        {"67f4000d919b282a33c2119808800000030080000019078a14cb", {244, 13, 3, 8, 8, 1, 321, 181, 1, 50}},
        {"6764000dacd9416096c0694040406940000003004000000c83c50a6580", {100, 13, 1, 8, 8, 1, 352, 288, 1, 50}},
        // Written field by field, for what encoders at hand do not make; 320x240 before cropping.
        {"67640028f32a0507bd52", {100, 40, 0, 8, 8, 0, 319, 478, 0, 0}},    // monochrome in fields
        {"67640028bcca8141fd55", {100, 40, 2, 8, 8, 1, 318, 239, 0, 0}},    // 4:2:2
        {"67640028939950283faaa0", {100, 40, 3, 8, 8, 1, 319, 239, 0, 0}},  // separate planes
        {"67640028ad422ba74e9d3a6ba74e9d3a6ba74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a7950283f20",
         {100, 40, 1, 8, 8, 1, 320, 240, 0, 0}},  // eight scaling lists, then twelve
        {"6764002891a84574e9d3a74d74e9d3a74d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74"
         "d74e9d3a74e9d3a74e9d3a74e9d3a74e9d3a74f2a0507e4",
         {100, 40, 3, 8, 8, 1, 320, 240, 0, 0}},
        {"67640028acca80040000200640", {100, 40, 1, 8, 8, 1, 16384, 16384, 0, 0}},  // the largest
        {"67640028aca14cd340a0fc80", {100, 40, 1, 8, 8, 1, 320, 240, 0, 0}},        // picture order type 1
    };
    for (const auto& [sps, said] : taken) {
        const std::string whole = unhex(sps);
        EXPECT_EQ(said_of(whole), said) << sps;
        // Cut within the VUI, which only these have, it says all but the time.
        said_t untimed = said;
        untimed[8] = untimed[9] = 0;
        for (size_t size = 0; size < whole.size(); ++size) {
            const said_t cut = said_of(whole.substr(0, size));
            EXPECT_TRUE(cut == said_t{} || (said[8] && (cut == untimed || cut == said))) << sps << " cut to " << size;
        }
        EXPECT_EQ(said_of(whole.substr(0, whole.size() - 1)), said[8] ? said : said_t{}) << sps;
    }
    // Too wide, too high in fields, cropped to nothing, a crop and a width beyond 32 bits, 33 zeros before a number,
    // chroma format 4, picture order type 3, 17 reference frames, a PPS, the forbidden bit.
    for (const char* sps :
         {"67640028acca8004011f90", "67640028acca81400402c8", "67640028acca8141fc0a2051d0",
          "67640028acca8141fc0000030007fffffff8000003000ffffffffd", "67640028acca80000003003fffffffc7e4",
          "67640028acca000003000080000003004141f9", "676400289732a0507e40", "67640028ac910283f2",
          "67640028acca120507e4", "68640028acca8141f9", "e7640028acca8141f9"})
        EXPECT_EQ(said_of(unhex(sps)), said_t{}) << sps;
}

TEST(ByteStream, SplitsAsASearchDoes) {
    const std::string code("\0\0\1", 3);
    std::mt19937 random(7);
    for (size_t round = 0; round < 2000; ++round) {
        // Start codes everywhere, or one at each place among bytes that are passed over in blocks.
        const bool dense = round % 2;
        std::string stream(dense ? random() % 200 : 1010, '\0');
        for (char& byte : stream)
            byte = static_cast<char>(dense ? random() % 3 : 1 + random() % 255);
        if (!dense) stream.replace(round / 2, 3, code);
        auto rest = test::bytes_of(stream);
        for (size_t at = stream.find(code), next = 0; at != stream.npos; at = next) {
            next = stream.find(code, at + 3);
            const std::string nal = stream.substr(at + 3, next - at - 3);
            const size_t size = nal.find_last_not_of('\0') + 1;
            ASSERT_TRUE(size == 0 || text_of(h264_next_nal(rest)) == nal.substr(0, size));
        }
        ASSERT_TRUE(h264_next_nal(rest).empty());
    }
}

TEST(ByteStream, FindsParameterSetsAndTheFirstSlice) {
    const std::string stream = unhex(std::string("0000000109f000000001") + sps_1080p +
                                     "0000000168ee3c80000001060501000001658884000000016588840100000168ee");
    const auto unit = test::bytes_of(stream);
    std::span<const uint8_t> sps, pps;
    h264_info_t info{};
    EXPECT_EQ(h264_parse(unit, &sps, &pps, &info), 1);
    EXPECT_EQ(text_of(sps) + text_of(pps), unhex(sps_1080p) + unhex("68ee3c80"));
    EXPECT_EQ(text_of(h264_find(unit, h264_sei)) + text_of(h264_first_slice(unit)),
              unhex("060501658884000000016588840100000168ee"));
    EXPECT_EQ(h264_parse(unit.first(40), &sps, &pps, nullptr), 0);
    EXPECT_TRUE(!sps.empty() && pps.empty() && h264_first_slice(unit.first(40)).empty());
}

TEST(ByteStream, AccessUnitsBeginAtDelimitersSetsAndFirstSlices) {
    for (const char* first : {"09f0", "67", "68", "06", "0e", "12", "6588", "4188", "2280"})
        EXPECT_EQ(h264_starts_access_unit(test::bytes_of(unhex(first))), 1) << first;
    for (const char* inner : {"", "65", "6540", "4120", "2380", "0c80", "13", "00"})
        EXPECT_EQ(h264_starts_access_unit(test::bytes_of(unhex(inner))), 0) << inner;
}

}  // namespace
