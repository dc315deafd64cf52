// Files of encoded pictures, read by ffmpeg.
#include "support/program.h"

#include "avc/fcc.h"
#include "avc/mp4.h"
#include "common/h264.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using test::bytes_of;

struct release_frame {
    void operator()(av::frame_t* frame) const { avc_frame_need(frame); }
};
using frame_ptr = std::unique_ptr<av::frame_t, release_frame>;

constexpr uint64_t base = 1700000000000000;

/// Frames a 30000/1001 of a second apart as a clock of microseconds sees them, with some jitter.
uint64_t time_of(size_t i) { return base + i * 1001000000 / 30000 + i % 3 * 7; }

std::vector<std::string> nals_of(const std::string& stream) {
    std::vector<std::string> nals;
    auto rest = bytes_of(stream);
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest))
        nals.emplace_back(nal.begin(), nal.end());
    return nals;
}

/// Access units of a byte stream as frames that begin at `offset` microseconds from the base.
std::vector<frame_ptr> frames_of(const std::string& stream, uint64_t offset) {
    std::vector<std::string> units;
    bool after_slice = true;
    for (const std::string& nal : nals_of(stream)) {
        if (after_slice && h264_starts_access_unit(bytes_of(nal))) units.emplace_back();
        after_slice = h264_is_slice(h264_nal_type(bytes_of(nal))) == 1;
        units.back().append({0, 0, 1}).append(nal);
    }
    std::vector<frame_ptr> frames;
    for (const std::string& unit : units)
        frames.emplace_back(avc_frame_create(av::fcc_h264, offset + time_of(frames.size()), unit.data(),
                                             static_cast<uint32_t>(unit.size()), CORE_HERE));
    return frames;
}

/// Init segment and fragments of ten frames each.
std::string file_of(const std::vector<frame_ptr>& frames, uint64_t end) {
    buf_t out;
    EXPECT_EQ(av_mp4_init(&out, frames[0].get(), CORE_HERE), 1);
    for (size_t first = 0, next = 0; first < frames.size(); first = next) {
        next = std::min(first + 10, frames.size());
        std::vector<av::frame_t*> fragment;
        for (size_t i = first; i < next; ++i)
            fragment.push_back(frames[i].get());
        fragment.push_back(nullptr);
        const uint64_t until = next < frames.size() ? frames[next]->time : end;
        EXPECT_EQ(av_mp4_moof(&out, fragment.data(), base, until, static_cast<uint32_t>(first / 10 + 1), CORE_HERE), 1);
    }
    std::string file(out.data, out.data + out.length);
    core_buf_free(&out);
    return file;
}

/// The packets as ffprobe prints them: presentation and decoding time, flags.
std::string packets_of(const std::vector<frame_ptr>& frames) {
    std::string out;
    for (const frame_ptr& frame : frames) {
        const std::string ticks = std::to_string((frame->time - base) * 9 / 100) + '|';
        out += ticks + ticks + (frame->key ? "K_\n" : "__\n");
    }
    return out;
}

/// Slices and SEI, in order: what neither a file nor the way out of it may change.
std::vector<std::string> pictures_of(const std::string& stream) {
    auto nals = nals_of(stream);
    std::erase_if(nals, [](const std::string& nal) { return h264_nal_type(bytes_of(nal)) > h264_sei; });
    return nals;
}

std::string first_of(const std::string& stream, uint8_t type) {
    const auto nal = h264_find(bytes_of(stream), type);
    return {nal.begin(), nal.end()};
}

TEST(Mp4, GivesBackTheNalUnitsAndTimesThatWentIn) {
    struct {
        const char* encoder;
        uint64_t offset;  // beyond 13 hours the ticks take more than 32 bits
        const char* stream;
        std::string extension;  // of the decoder configuration, behind the parameter sets
    } const cases[] = {
        {"-pix_fmt yuv420p -profile:v baseline", 0, "h264|Constrained Baseline|322|178|yuv420p|1/90000\n", ""},
        {"-pix_fmt yuv420p -x264-params slices=3:aud=1", 14ULL * 3600 * 1000000, "h264|High|322|178|yuv420p|1/90000\n",
         "\xfd\xf8\xf8\0"s},
        {"-pix_fmt yuv422p10le", 60000000, "h264|High 4:2:2|322|178|yuv422p10le|1/90000\n", "\xfe\xfa\xfa\0"s},
    };
    const std::string generate =
        "ffmpeg -v error -f lavfi -i testsrc=size=322x178:rate=30000/1001 -frames:v 45 -c:v libx264 -bf 0 -g 12 ";
    for (const auto& want : cases) {
        SCOPED_TRACE(want.encoder);
        const test::scratch dir;
        const std::string path = dir / "clip.mp4";
        const std::string source = test::run(generate + want.encoder + " -f h264 -");
        const auto frames = frames_of(source, want.offset);
        ASSERT_EQ(frames.size(), 45U);
        const std::string file = file_of(frames, want.offset + time_of(45));
        test::write_file(path, bytes_of(file));

        const auto probe = [&path](std::string entries) {
            return test::run("ffprobe -v error -of csv=p=0:s='|' -show_entries " + entries.append(" ").append(path));
        };
        EXPECT_EQ(probe("packet=pts,dts,flags"), packets_of(frames));
        EXPECT_EQ(probe("stream=codec_name,profile,width,height,pix_fmt,time_base"), want.stream);
        const std::string back = test::run("ffmpeg -v error -xerror -i " + path + " -c copy -f h264 -");
        EXPECT_EQ(pictures_of(back), pictures_of(source));
        EXPECT_EQ(first_of(back, h264_sps), first_of(source, h264_sps));
        EXPECT_EQ(first_of(back, h264_pps), first_of(source, h264_pps));
        EXPECT_NE(file.find(first_of(source, h264_pps) + want.extension + "\0\0\0\x10stts"s), file.npos);
    }
}

}  // namespace
