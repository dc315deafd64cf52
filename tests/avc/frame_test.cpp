#include "avc/frame.h"

#include "support/fault.h"

#include "avc/fcc.h"
#include "core/memory.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using namespace std::string_view_literals;

constexpr auto sps_320x240 =
    "\0\0\0\1\x67\x42\xc0\x0d\xd9\x01\x41\xfb\x01\x10\x00\x00\x03\x00\x10\x00\x00\x03\x03\x20\xf1\x42\xa4\x80"sv;
constexpr auto idr_slice = "\0\0\1\x65\x88"sv;
constexpr auto p_slice = "\0\0\1\x41\x9a"sv;
constexpr auto jpeg_48x32 = "\xff\xd8\xff\xc0\0\x0b\x08\0\x20\0\x30\1\1\x11\0\xff\xda"sv;

av::frame_t* make(uint32_t fcc, std::string_view data) {
    return avc_frame_create(fcc, 1000, data.data(), static_cast<uint32_t>(data.size()), CORE_HERE);
}

std::string text(const av::frame_t* frame) { return {reinterpret_cast<const char*>(frame->data), frame->size}; }

TEST(Frame, KnowsItsSizeAndWhetherDecodingCanStartThere) {
    const std::string sps(sps_320x240);
    struct {
        uint32_t fcc;
        std::string data;
        uint32_t width, height;
        int key;
    } const cases[] = {
        {av::fcc_h264, sps + std::string(idr_slice), 320, 240, 1},
        {av::fcc("avc1"), sps + std::string(idr_slice), 320, 240, 1},
        {av::fcc_h264, sps + std::string(p_slice), 320, 240, 0},
        {av::fcc_h264, std::string(p_slice) + std::string(idr_slice), 0, 0, 0},
        {av::fcc_h264, std::string(idr_slice), 0, 0, 1},
        {av::fcc_h264, sps.substr(0, 9) + std::string(idr_slice), 0, 0, 1},
        {av::fcc_h264, "no picture at all", 0, 0, 0},
        {av::fcc_jpeg, std::string(jpeg_48x32), 48, 32, 1},
        {av::fcc_jpeg, std::string(jpeg_48x32.substr(0, 12)), 0, 0, 0},
        {av::fcc_pcmu, "sound", 0, 0, 1},
        {av::fcc_univ, "", 0, 0, 1},
    };
    for (const auto& want : cases) {
        av::frame_t* frame = make(want.fcc, want.data);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->fcc, want.fcc);
        EXPECT_EQ(frame->width, want.width) << want.data;
        EXPECT_EQ(frame->height, want.height) << want.data;
        EXPECT_EQ(frame->key, want.key) << want.data;
        EXPECT_EQ(frame->complete, 1);
        EXPECT_EQ(text(frame), want.data);
        EXPECT_EQ(frame->data[frame->size], 0);
        avc_frame_need(frame);
        EXPECT_EQ(frame, nullptr);
    }
    EXPECT_EQ(avc_frame_create(av::fcc_h264, 0, nullptr, 1, CORE_HERE), nullptr);
}

TEST(Frame, SharesItsPayloadAndCopiesABorrowedOne) {
    av::frame_t* first = make(av::fcc_pcmu, "sound");
    first->rate = 8000;
    av::frame_t* second = avc_frame_dup(first, CORE_HERE);
    EXPECT_EQ(second->data, first->data);
    avc_frame_need(first);
    EXPECT_EQ(text(second), "sound");
    EXPECT_EQ(second->rate, 8000U);

    std::string owner = "lent";
    av::frame_t borrowed = *second;
    borrowed.payload = nullptr;
    borrowed.data = reinterpret_cast<const uint8_t*>(owner.data());
    borrowed.size = 4;
    av::frame_t* copy = avc_frame_dup(&borrowed, CORE_HERE);
    owner = "gone";
    EXPECT_EQ(text(copy), "lent");
    EXPECT_EQ(copy->time, 1000U);

    const std::array list{param_t("frame", static_cast<const void*>(copy)), param_t()};
    const std::array other{param_t("frame", "a text"), param_t()};
    av::frame_t* parsed = avc_frame_parse(list.data(), CORE_HERE);
    EXPECT_EQ(parsed->data, copy->data);
    EXPECT_EQ(avc_frame_parse(other.data(), CORE_HERE), nullptr);
    EXPECT_EQ(avc_frame_parse(nullptr, CORE_HERE), nullptr);
    EXPECT_EQ(avc_frame_dup(nullptr, CORE_HERE), nullptr);
    for (av::frame_t* frame : {second, copy, parsed})
        avc_frame_need(frame);
    EXPECT_EQ(core_mem_blocks(), 0U);
}

TEST(Frame, IsSharedByThreadsThatReleaseItInAnyOrder) {
    constexpr int rounds = 2000;
    av::frame_t* origin = make(av::fcc_univ, std::string(100, 'x'));
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        av::frame_t* own = avc_frame_dup(origin, CORE_HERE);
        users.emplace_back([own]() mutable {
            for (int round = 0; round < rounds; ++round) {
                av::frame_t* next = avc_frame_dup(own, CORE_HERE);
                next->time = own->time + 1;
                avc_frame_need(own);
                own = next;
            }
            EXPECT_EQ(text(own), std::string(100, 'x'));
            EXPECT_EQ(own->time, 1000U + rounds);
            avc_frame_need(own);
        });
    }
    avc_frame_need(origin);
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(core_mem_blocks(), 0U);
}

TEST(Frame, IsMadeWholeOrNotAtAllWhenMemoryIsShort) {
    const size_t failures = test::fail_each_allocation([] {
        av::frame_t* frame = make(av::fcc_h264, sps_320x240);
        av::frame_t* shared = avc_frame_dup(frame, CORE_HERE);
        constexpr uint8_t lent[] = "lent";
        av::frame_t borrowed{};
        borrowed.data = lent;
        borrowed.size = 4;
        av::frame_t* copied = avc_frame_dup(&borrowed, CORE_HERE);
        av::meta_t* meta = avc_meta_create(av::fcc_meta, 1, "{}", 2, CORE_HERE);
        for (av::frame_t** made : {&frame, &shared, &copied})
            avc_frame_need(*made);
        avc_meta_need(meta);
    });
    EXPECT_EQ(failures, 7U);  // the shared one takes its record alone, the others their bytes, too
}

TEST(Meta, HoldsACopyOfItsText) {
    av::meta_t* meta = avc_meta_create(av::fcc_meta, 5, "{}", 2, CORE_HERE);
    EXPECT_STREQ(reinterpret_cast<const char*>(meta->data), "{}");
    EXPECT_EQ(meta->size, 2U);
    EXPECT_EQ(meta->time, 5U);
    avc_meta_need(meta);
    EXPECT_EQ(meta, nullptr);
}

TEST(Fcc, FamiliesAndSpellings) {
    struct {
        uint32_t spelling, code;
        int audio, video, compressed;
    } const cases[] = {
        {av::fcc("avc1"), av::fcc_h264, 0, 1, 1},    {av::fcc("X264"), av::fcc_h264, 0, 1, 1},
        {av::fcc("mjpg"), av::fcc_jpeg, 0, 1, 1},    {av::fcc("ulaw"), av::fcc_pcmu, 1, 0, 1},
        {av::fcc("alaw"), av::fcc_pcma, 1, 0, 1},    {av::fcc("aac "), av::fcc_mp4a, 1, 0, 1},
        {av::fcc("PCM "), av::fcc("PCM "), 1, 0, 0}, {av::fcc("I420"), av::fcc("I420"), 0, 1, 0},
        {av::fcc_meta, av::fcc_meta, 0, 0, 0},       {av::fcc("H26x"), av::fcc("H26x"), 0, 0, 0},
    };
    for (const auto& want : cases) {
        char name[5];
        SCOPED_TRACE(fcc_str(want.spelling, name));
        EXPECT_EQ(fcc_unic(want.spelling), want.code);
        EXPECT_EQ(fcc_is_audio(want.spelling), want.audio);
        EXPECT_EQ(fcc_is_video(want.spelling), want.video);
        EXPECT_EQ(fcc_is_compress(want.spelling), want.compressed);
    }
    char name[5];
    EXPECT_STREQ(fcc_str(av::fcc("H264"), name), "H264");
    EXPECT_STREQ(fcc_str(0xff00410aU, name), ".A..");
}

}  // namespace
