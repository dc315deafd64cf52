// Frames, and what is read of their headers. posix_jpeg_test.cpp has the tables of another encoder.
#include "avc/frame.h"

#include "support/frames.h"

#include "avc/fcc.h"
#include "avc/jpeg.h"

#include <array>
#include <gtest/gtest.h>
#include <thread>

namespace {

using namespace std::string_literals;

av::frame_t* make(uint32_t fcc, const std::string& data) {
    return avc_frame_create(fcc, 1000, data.data(), static_cast<uint32_t>(data.size()), CORE_HERE);
}

std::string text(const av::frame_t* frame) { return {reinterpret_cast<const char*>(frame->data), frame->size}; }

TEST(Frame, KnowsItsSizeAndWhetherDecodingCanStartThere) {
    const std::string sps = "\0\0\0\1\x67\x42\xc0\x0d\xd9\1\x41\xfb\1\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80"s;
    const std::string idr = "\0\0\1\x65\x88"s;
    const std::string other = "\0\0\1\x41\x9a"s;
    const std::string jpeg = "\xff\xd8\xff\xc0\0\x0b\x08\0\x20\0\x30\1\1\x11\0\xff\xda"s;
    const struct {
        uint32_t fcc;
        std::string data;
        std::array<uint32_t, 3> said;  // width, height, key
    } cases[] = {
        {av::fcc_h264, other + sps + idr, {0, 0, 0}},  {av::fcc_jpeg, jpeg, {48, 32, 1}},
        {av::fcc("avc1"), sps + idr, {320, 240, 1}},   {av::fcc_pcmu, "", {0, 0, 1}},
        {av::fcc_jpeg, jpeg.substr(0, 12), {0, 0, 0}}, {av::fcc_h264, sps + other, {320, 240, 0}},
        {av::fcc("I420"), "raw", {0, 0, 0}},           {av::fcc_h264, sps.substr(0, 9) + idr, {0, 0, 1}},
    };
    for (const auto& [fcc, data, said] : cases) {
        av::frame_t* frame = make(fcc, data);
        EXPECT_EQ((std::array{frame->width, frame->height, uint32_t{frame->key}}), said);
        EXPECT_EQ(text(frame), data);
        avc_frame_need(frame);
    }
}

TEST(Frame, SharesItsPayloadAndCopiesABorrowedOne) {
    std::string owner = "lent";
    const av::frame_t borrowed = test::borrowed(av::fcc_univ, test::bytes_of(owner), 7);
    av::frame_t* copy = avc_frame_dup(&borrowed, CORE_HERE);
    owner = "gone";
    EXPECT_EQ(text(copy) + std::to_string(copy->time), "lent7");

    const std::array list{param_t("frame", static_cast<const void*>(copy)), param_t()};
    av::frame_t* parsed = avc_frame_parse(list.data(), CORE_HERE);
    EXPECT_EQ(parsed->data, copy->data);
    avc_frame_need(copy);
    EXPECT_EQ(text(parsed) + std::to_string(parsed->time), "lent7");
    avc_frame_need(parsed);
}

TEST(Frame, IsSharedByThreadsThatReleaseItInAnyOrder) {
    av::frame_t* origin = make(av::fcc_univ, "shared");
    std::jthread users[4];
    for (std::jthread& user : users)
        user = std::jthread([own = avc_frame_dup(origin, CORE_HERE)]() mutable {
            for (int round = 0; round < 2000; ++round) {
                av::frame_t* next = avc_frame_dup(own, CORE_HERE);
                avc_frame_need(own);
                own = next;
            }
            avc_frame_need(own);
        });
    avc_frame_need(origin);
}

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

}  // namespace
