#include "avc/frame.h"

#include "avc/fcc.h"
#include "core/memory.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using namespace std::string_literals;

av::frame_t* make(uint32_t fcc, std::string_view data) {
    return avc_frame_create(fcc, 1000, data.data(), static_cast<uint32_t>(data.size()), CORE_HERE);
}

std::string text(const av::frame_t* frame) { return {reinterpret_cast<const char*>(frame->data), frame->size}; }

TEST(Frame, KnowsItsSizeAndWhetherDecodingCanStartThere) {
    const std::string sps = "\0\0\0\1\x67\x42\xc0\x0d\xd9\1\x41\xfb\1\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80"s;
    const std::string idr_slice = "\0\0\1\x65\x88"s;
    const std::string p_slice = "\0\0\1\x41\x9a"s;
    const std::string jpeg = "\xff\xd8\xff\xc0\0\x0b\x08\0\x20\0\x30\1\1\x11\0\xff\xda"s;
    const struct {
        uint32_t fcc;
        std::string data;
        uint32_t width, height;
        int key;
    } cases[] = {
        {av::fcc_h264, sps + idr_slice, 320, 240, 1},
        {av::fcc("avc1"), sps + idr_slice, 320, 240, 1},
        {av::fcc_h264, sps + p_slice, 320, 240, 0},
        {av::fcc_h264, p_slice + sps + idr_slice, 0, 0, 0},
        {av::fcc_h264, idr_slice, 0, 0, 1},
        {av::fcc_h264, sps.substr(0, 9) + idr_slice, 0, 0, 1},
        {av::fcc_jpeg, jpeg, 48, 32, 1},
        {av::fcc_jpeg, jpeg.substr(0, 12), 0, 0, 0},
        {av::fcc("I420"), "raw", 0, 0, 0},
        {av::fcc_pcmu, "sound", 0, 0, 1},
        {av::fcc_univ, "", 0, 0, 1},
    };
    for (const auto& want : cases) {
        av::frame_t* frame = make(want.fcc, want.data);
        EXPECT_EQ((std::array{frame->fcc, frame->width, frame->height}),
                  (std::array{want.fcc, want.width, want.height}))
            << want.data;
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
    for (av::frame_t* frame : {second, copy, parsed})
        avc_frame_need(frame);
    EXPECT_EQ(core_mem_blocks(), 0U);
}

TEST(Frame, IsSharedByThreadsThatReleaseItInAnyOrder) {
    av::frame_t* origin = make(av::fcc_univ, "shared");
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([own = avc_frame_dup(origin, CORE_HERE)]() mutable {
            for (int round = 0; round < 2000; ++round) {
                av::frame_t* next = avc_frame_dup(own, CORE_HERE);
                avc_frame_need(own);
                own = next;
            }
            EXPECT_EQ(text(own), "shared");
            avc_frame_need(own);
        });
    }
    avc_frame_need(origin);
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(core_mem_blocks(), 0U);
}

TEST(Fcc, FamiliesAndSpellings) {
    constexpr struct {
        const char (&spelling)[5];
        const char (&code)[5];
        const char* kind;
    } cases[] = {
        {"avc1", "H264", "video, compressed"},
        {"X264", "H264", "video, compressed"},
        {"mjpg", "JPEG", "video, compressed"},
        {"I420", "I420", "video"},
        {"ulaw", "PCMU", "audio, compressed"},
        {"alaw", "PCMA", "audio, compressed"},
        {"aac ", "mp4a", "audio, compressed"},
        {"PCM ", "PCM ", "audio"},
        {"META", "META", ""},
        {"H26x", "H26x", ""},
    };
    for (const auto& want : cases) {
        const uint32_t code = av::fcc(want.spelling);
        char name[5];
        EXPECT_STREQ(fcc_str(fcc_unic(code), name), want.code);
        const std::string kind = fcc_is_audio(code) ? "audio" : fcc_is_video(code) ? "video" : "";
        EXPECT_EQ(kind + (fcc_is_compress(code) ? ", compressed" : ""), want.kind) << want.spelling;
    }
    char name[5];
    EXPECT_STREQ(fcc_str(0xff00410aU, name), ".A..");
}

}  // namespace
