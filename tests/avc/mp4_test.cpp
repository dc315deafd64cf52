// What goes into a file and what does not. posix_mp4_test.cpp has files read by ffmpeg.
#include "avc/mp4.h"

#include "avc/fcc.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

constexpr uint64_t base = 1700000000000000;

const std::string pps = "\0\0\1\x68\xcb\x83\xcb\x20\0\0\1\x68\x6b\x83\xcb\x20"s;
const std::string key_unit =
    "\0\0\1\x09\xf0\0\0\1\x67\x42\xc0\x0d\xd9\1\x41\xfb\1\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80"s + pps +
    "\0\0\1\x65\x88\x84"s;

/// A frame that borrows its bytes.
av::frame_t frame_at(uint64_t time, const std::string& data = key_unit, uint32_t fcc = av::fcc_h264) {
    av::frame_t frame{};
    frame.fcc = fcc;
    frame.time = time;
    frame.data = reinterpret_cast<const uint8_t*>(data.data());
    frame.size = static_cast<uint32_t>(data.size());
    frame.key = 1;
    return frame;
}

/// The bytes that were written behind others, empty when nothing was.
template <class Write>
std::string written(int wanted, Write write) {
    buf_t out;
    core_buf_read(&out, "before", 6);
    EXPECT_EQ(write(&out), wanted);
    const std::string all(out.data, out.data + out.length);
    core_buf_free(&out);
    EXPECT_EQ(all.substr(0, 6), "before");
    EXPECT_EQ(all.size() > 6, wanted == 1);
    return all.substr(6);
}

std::string init(int wanted, const std::string& unit) {
    const av::frame_t key = frame_at(base, unit);
    return written(wanted, [&](buf_t* out) { return av_mp4_init(out, &key, CORE_HERE); });
}

std::string fragment(int wanted, std::vector<av::frame_t> frames, uint64_t end) {
    std::vector<av::frame_t*> list;
    for (av::frame_t& frame : frames)
        list.push_back(&frame);
    list.push_back(nullptr);
    return written(wanted, [&](buf_t* out) { return av_mp4_moof(out, list.data(), base, end, 1, CORE_HERE); });
}

TEST(Mp4, FragmentHoldsFramesInOrderOrNothing) {
    const av::frame_t key = frame_at(base);
    const av::frame_t later = frame_at(base + 40000);
    // What fits 32 bits at 90000 in a second.
    constexpr uint64_t longest = 0x100000000 * 1000000 / 90000;
    fragment(1, {key, later}, base + 80000);
    fragment(1, {key, key}, base);
    fragment(1, {key}, base + longest);
    fragment(0, {}, base);
    fragment(0, {frame_at(base + 1), key}, base + 80000);
    fragment(0, {key, later}, base + 1);
    fragment(0, {frame_at(base - 1)}, base + 1);
    fragment(0, {key}, base + longest + 1000);
    fragment(0, {frame_at(base, key_unit, av::fcc_jpeg)}, base + 1);
}

TEST(Mp4, InitSegmentHoldsEveryParameterSetOfTheKeyFrame) {
    const std::string segment = init(1, key_unit);
    EXPECT_NE(segment.find("\2\0\5\x68\xcb\x83\xcb\x20\0\5\x68\x6b\x83\xcb\x20"s), segment.npos);
    EXPECT_EQ(segment.find("\x65\x88\x84"s), segment.npos);
    init(0, pps);
    for (const size_t sets : {255, 256}) {
        std::string many;
        for (size_t i = 2; i < sets; ++i)
            many += pps.substr(0, 8);
        init(sets == 255, many + key_unit);
    }
}

TEST(Mp4, DurationsLeadToTheNextFrameAndTheLastToTheEnd) {
    const std::string bytes = fragment(1, {frame_at(base + 33366), frame_at(base + 66733)}, base + 100100);
    // Ticks 3002, 6005 and 9009; of each sample the duration, then the size with the length field of the one slice.
    EXPECT_NE(bytes.find("\0\0\x0b\xbb\0\0\0\7\2\0\0\0\0\0\x0b\xbc\0\0\0\7\2\0\0\0"s), bytes.npos);
    const std::string slice = "\0\0\0\3\x65\x88\x84"s;
    EXPECT_TRUE(bytes.ends_with("\0\0\0\x16mdat"s + slice + slice));
}

}  // namespace
