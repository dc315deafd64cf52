#include "avc/mp4.h"

#include "support/fault.h"

#include "avc/fcc.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

struct release_frame {
    void operator()(av::frame_t* frame) const { avc_frame_need(frame); }
};
using frame_ptr = std::unique_ptr<av::frame_t, release_frame>;

constexpr uint64_t base = 1700000000000000;

constexpr unsigned char key_unit[] =
    "\0\0\1\x09\xf0\0\0\1\x67\x42\xc0\x0d\xd9\x01\x41\xfb\x01\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80"
    "\0\0\1\x68\xcb\x83\xcb\x20\0\0\1\x68\x6b\x83\xcb\x20\0\0\1\x65\x88\x84";
constexpr unsigned char pps_only[] = "\0\0\1\x68\xcb\x83\xcb\x20";

template <size_t n>
frame_ptr frame_at(uint64_t time, const unsigned char (&data)[n], uint32_t fcc = av::fcc_h264) {
    return frame_ptr(avc_frame_create(fcc, time, data, n - 1, CORE_HERE));
}

TEST(Mp4, LeavesTheBufferAsItWasWhenItCannotWrite) {
    const frame_ptr key = frame_at(base, key_unit);
    const frame_ptr later = frame_at(base + 40000, key_unit);
    const frame_ptr other = frame_at(base, key_unit, av::fcc_jpeg);
    const frame_ptr lone = frame_at(base, pps_only);
    struct {
        std::vector<av::frame_t*> frames;
        uint64_t base, end;
        int result;
    } const cases[] = {
        {{key.get(), later.get(), nullptr}, base, base + 80000, 1},
        {{key.get(), key.get(), nullptr}, base, base, 1},
        {{nullptr}, base, base, 0},
        {{later.get(), key.get(), nullptr}, base, base + 80000, 0},
        {{key.get(), later.get(), nullptr}, base, base + 1, 0},
        {{key.get(), nullptr}, base + 1, base + 2, 0},
        {{key.get(), nullptr}, base, base + 14ULL * 3600 * 1000000, 0},
        {{other.get(), nullptr}, base, base + 1, 0},
    };
    buf_t out;
    for (const auto& want : cases) {
        const uint32_t before = out.length;
        EXPECT_EQ(av_mp4_moof(&out, want.frames.data(), want.base, want.end, 1, CORE_HERE), want.result);
        EXPECT_EQ(out.length > before, want.result == 1);
    }
    const uint32_t before = out.length;
    EXPECT_EQ(av_mp4_init(&out, lone.get(), CORE_HERE), 0);
    EXPECT_EQ(av_mp4_init(&out, nullptr, CORE_HERE), 0);
    EXPECT_EQ(av_mp4_moof(&out, nullptr, base, base, 1, CORE_HERE), 0);
    EXPECT_EQ(out.length, before);
    core_buf_free(&out);

    const size_t failures = test::fail_each_allocation([&] {
        buf_t short_of_memory;
        const bool init = av_mp4_init(&short_of_memory, key.get(), CORE_HERE) == 1;
        EXPECT_EQ(init, short_of_memory.length > 0);
        core_buf_free(&short_of_memory);
        const bool moof = av_mp4_moof(&short_of_memory, cases[0].frames.data(), base, base + 80000, 1, CORE_HERE) == 1;
        EXPECT_EQ(moof, short_of_memory.length > 0);
        core_buf_free(&short_of_memory);
    });
    EXPECT_GT(failures, 1U);
}

std::string written(int (*write)(buf_t* out, av::frame_t* const* frames), std::vector<av::frame_t*> frames) {
    buf_t out;
    frames.push_back(nullptr);
    EXPECT_EQ(write(&out, frames.data()), 1);
    std::string bytes(reinterpret_cast<const char*>(out.data), out.length);
    core_buf_free(&out);
    return bytes;
}

TEST(Mp4, InitSegmentHoldsEveryParameterSetOfTheKeyFrame) {
    const frame_ptr key = frame_at(base, key_unit);
    const std::string segment =
        written([](auto* out, auto* frames) { return av_mp4_init(out, *frames, CORE_HERE); }, {key.get()});
    EXPECT_NE(segment.find("\2\0\5\x68\xcb\x83\xcb\x20\0\5\x68\x6b\x83\xcb\x20"s), segment.npos);
    EXPECT_EQ(segment.find("\x65\x88\x84"s), segment.npos);
}

TEST(Mp4, DurationsLeadToTheNextFrameAndTheLastToTheEnd) {
    const frame_ptr key = frame_at(base + 33366, key_unit);
    const frame_ptr next = frame_at(base + 66733, key_unit);
    const std::string fragment =
        written([](auto* out, auto* frames) { return av_mp4_moof(out, frames, base, base + 100100, 1, CORE_HERE); },
                {key.get(), next.get()});
    // Ticks 3002, 6005 and 9009; of each sample the duration, then the size with the length field of the one slice.
    const std::string samples = "\0\0\x0b\xbb\0\0\0\7\2\0\0\0\0\0\x0b\xbc\0\0\0\7\2\0\0\0"s;
    EXPECT_NE(fragment.find(samples), fragment.npos);
    const std::string slice = "\0\0\0\3\x65\x88\x84"s;
    EXPECT_TRUE(fragment.ends_with("\0\0\0\x16mdat"s + slice + slice));
}

}  // namespace
