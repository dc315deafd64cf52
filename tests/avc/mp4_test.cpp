// What goes into a file and what does not. posix_mp4_test.cpp has files read by ffmpeg.
#include "avc/mp4.h"

#include "support/frames.h"

#include "avc/fcc.h"

#include <gtest/gtest.h>
#include <optional>

namespace {

using namespace std::string_literals;

constexpr uint64_t base = 1700000000000000;

const std::string pps = "\0\0\1\x68\xcb\x83\xcb\x20\0\0\1\x68\x6b\x83\xcb\x20"s;
const std::string unit =
    "\0\0\1\x67\x42\xc0\x0d\xd9\1\x41\xfb\1\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80"s + pps + "\0\0\1\x65\x88\x84"s;

/// A frame that borrows its bytes, so long behind the base.
av::frame_t frame_at(int64_t behind, const std::string& data = unit, uint32_t fcc = av::fcc_h264) {
    av::frame_t frame = test::borrowed(fcc, test::bytes_of(data), base + static_cast<uint64_t>(behind));
    frame.key = 1;
    return frame;
}

/// What is written of frames that end there, or the init segment of the first; nothing when it is refused.
std::string written(std::vector<av::frame_t> frames, std::optional<uint64_t> end = {}) {
    av::frame_t* list[3] = {};
    for (size_t i = 0; i < frames.size(); ++i)
        list[i] = &frames[i];
    buf_t out;
    const int taken =
        end ? av_mp4_moof(&out, list, base, base + *end, 1, CORE_HERE) : av_mp4_init(&out, list[0], CORE_HERE);
    EXPECT_EQ(taken, out.length > 0);
    const std::string all(out.data, out.data + out.length);
    core_buf_free(&out);
    return all;
}

TEST(Mp4, FragmentHoldsFramesInOrderOrNothing) {
    constexpr uint64_t longest = 0x100000000 * 1000000 / 90000;  // what fits 32 bits at 90000 in a second
    EXPECT_NE(written({frame_at(0), frame_at(0)}, 0), "");
    EXPECT_NE(written({frame_at(0)}, longest), "");
    EXPECT_EQ(written({frame_at(0)}, longest + 1000), "");
    EXPECT_EQ(written({frame_at(1), frame_at(0)}, 80000), "");
    EXPECT_EQ(written({frame_at(0), frame_at(40000)}, 1), "");
    EXPECT_EQ(written({frame_at(-1)}, 1), "");
    EXPECT_EQ(written({frame_at(0, unit, av::fcc_jpeg)}, 1), "");
    // Ticks 3002, 6005 and 9009; of each sample the duration, then the size with the length field of the one slice.
    EXPECT_NE(written({frame_at(33366), frame_at(66733)}, 100100)
                  .find("\0\0\x0b\xbb\0\0\0\7\2\0\0\0\0\0\x0b\xbc\0\0\0\7\2\0\0\0"s),
              std::string::npos);
    // Shown 40 ms less after its decoding than the first: 3600 ticks.
    std::vector pictures{frame_at(0), frame_at(40000)};
    pictures[0].shown_after = 40000;
    EXPECT_NE(written(pictures, 80000).find("\2\0\0\0\xff\xff\xf1\xf0"s), std::string::npos);
    pictures[0].shown_after = 0;
    EXPECT_EQ(written(pictures, 80000).find("\xf1\xf0"s), std::string::npos);
}

TEST(Mp4, InitSegmentHoldsEveryParameterSetOfTheKeyFrame) {
    const std::string sets = "\2\0\5\x68\xcb\x83\xcb\x20\0\5\x68\x6b\x83\xcb\x20"s;
    EXPECT_NE(written({frame_at(0)}).find(sets), std::string::npos);
    EXPECT_EQ(written({frame_at(0, pps)}), "");
    std::string most = unit;
    for (size_t i = 2; i < 255; ++i)
        most.insert(0, pps.substr(0, 8));
    EXPECT_NE(written({frame_at(0, most)}), "");
    EXPECT_EQ(written({frame_at(0, pps + most)}), "");
}

}  // namespace
