// Files of encoded pictures, read by ffmpeg.
#include "support/program.h"

#include "avc/fcc.h"
#include "avc/mp4.h"
#include "avc/mp4_reader.h"
#include "common/h264.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace std::string_literals;

using frame_ptr = core::owned<av::frame_t, avc_frame_need>;

constexpr uint64_t base = 1700000000000000;

/// Frames a 30000/1001 of a second apart as a clock of microseconds sees them, with some jitter.
uint64_t time_of(size_t i) { return base + i * 1001000000 / 30000 + i % 3 * 7; }

/// Access units as frames that begin at `offset` microseconds from the base.
std::vector<frame_ptr> frames_of(const std::string& stream, uint64_t offset) {
    std::vector<frame_ptr> frames;
    for (size_t at = 0, next = 0; at != stream.npos; at = next) {
        next = stream.find("\0\0\0\1\x09"s, at + 1);
        const std::string unit = stream.substr(at, next - at);
        frames.emplace_back(avc_frame_create(av::fcc_h264, offset + time_of(frames.size()), unit.data(),
                                             static_cast<uint32_t>(unit.size()), CORE_HERE));
    }
    return frames;
}

/// Init segment and fragments of ten frames each; and the packets as ffprobe prints them: presentation and decoding
/// time, flags.
std::pair<std::string, std::string> file_of(const std::vector<frame_ptr>& frames, uint64_t end) {
    buf_t out;
    std::ostringstream packets;
    std::vector<av::frame_t*> fragment;
    EXPECT_EQ(av_mp4_init(&out, frames[0].get(), CORE_HERE), 1);
    for (size_t i = 1; i <= frames.size(); ++i) {
        const av::frame_t& frame = *fragment.emplace_back(frames[i - 1].get());
        const uint64_t ticks = (frame.time - base) * 9 / 100;
        packets << ticks << '|' << ticks << (frame.key ? "|K_\n" : "|__\n");
        if (i % 10 > 0 && i < frames.size()) continue;
        fragment.push_back(nullptr);
        const uint64_t until = i < frames.size() ? frames[i]->time : end;
        EXPECT_EQ(av_mp4_moof(&out, fragment.data(), base, until, static_cast<uint32_t>(i), CORE_HERE), 1);
        fragment.clear();
    }
    std::string file(out.data, out.data + out.length);
    core_buf_free(&out);
    return {file, packets.str()};
}

TEST(Mp4, GivesBackTheNalUnitsAndTimesThatWentIn) {
    const struct {
        const char* encoder;
        uint64_t offset;        // beyond 13 hours the ticks take more than 32 bits
        std::string extension;  // of the decoder configuration, behind the parameter sets
    } cases[] = {
        {"yuv420p -profile:v baseline", 0, ""},
        {"yuv420p -slices 3", 14ULL * 3600 * 1000000, "\xfd\xf8\xf8\0"s},
        {"yuv422p10le", 60000000, "\xfe\xfa\xfa\0"s},
    };
    for (const auto& [encoder, offset, extension] : cases) {
        SCOPED_TRACE(encoder);
        const test::scratch dir;
        const std::string clip = dir / "clip.mp4";
        const std::string stream = dir / "clip.h264";
        const std::string source = test::run(
            "ffmpeg -v error -f lavfi -i testsrc=size=322x178:rate=30000/1001 -frames:v 45 "
            "-c:v libx264 -bf 0 -g 12 -x264-params aud=1 -f h264 -pix_fmt "s +
            encoder + " -");
        const auto [file, packets] = file_of(frames_of(source, offset), offset + time_of(45));
        test::write_file(clip, test::bytes_of(file));
        test::write_file(stream, test::bytes_of(source));
        EXPECT_EQ(test::run("ffprobe -v error -of csv=p=0:s='|' -show_entries packet=pts,dts,flags " + clip), packets);
        const std::string pixels = " -fps_mode passthrough -f md5 -";
        EXPECT_EQ(test::run("ffmpeg -v error -xerror -i " + clip + pixels),
                  test::run("ffmpeg -v error -xerror -i " + stream + pixels));
        const auto pps = h264_find(test::bytes_of(source), h264_pps);
        EXPECT_NE(file.find(std::string(pps.begin(), pps.end()) + extension + "\0\0\0\x10stts"s), file.npos);
    }
}

uint32_t read_at(void* arg, uint64_t position, void* data, uint32_t size) {
    const auto& file = *static_cast<const std::string*>(arg);
    return position < file.size() ? static_cast<uint32_t>(file.copy(static_cast<char*>(data), size, position)) : 0;
}

/// Track, times, flags and size of each packet, as ffprobe prints them, in the order of the tracks.
std::string packets_of(std::string file) {
    std::string tracks[2];
    av::Mp4Reader film(CORE_HERE);
    EXPECT_EQ(film.open({read_at, &file}), 1);
    while (film.next_fragment() == 1 && film.load() == 1) {
        av::mp4_taken_t taken{};
        while (film.next(taken)) {
            const av::mp4_track_t& track = film.tracks()[taken.track];
            const bool has_sets = taken.key && track.fcc == av::fcc_h264;
            std::ostringstream line;
            line << taken.track << '|' << static_cast<int64_t>(taken.time) + taken.shown_after << '|' << taken.time
                 << '|' << taken.data.size() - (has_sets ? track.config.size() : 0) << (taken.key ? "|K_\n" : "|__\n");
            tracks[taken.track] += line.str();
        }
    }
    return tracks[0] + tracks[1];
}

TEST(Mp4Reader, ReadsWhatFfmpegWrites) {
    for (const char* flags : {"frag_keyframe+empty_moov", "frag_keyframe+empty_moov+default_base_moof",
                              "frag_every_frame+empty_moov+omit_tfhd_offset"}) {
        SCOPED_TRACE(flags);
        const test::scratch dir;
        const std::string clip = dir / "clip.mp4";
        test::run(
            "ffmpeg -v error -f lavfi -i testsrc=size=322x178:rate=25 -f lavfi -i sine=sample_rate=44100 -t 3 "
            "-c:v libx264 -g 20 -bf 2 -c:a aac -movflags "s +
            flags + " " + clip);
        const std::string probe =
            "ffprobe -v error -of csv=p=0:s='|' -show_entries packet=stream_index,pts,dts,size,flags";
        std::string expected;
        // Whether a packet is to be shown is another matter.
        for (const char* track : {" -select_streams v ", " -select_streams a "})
            expected += test::run(probe + track + clip + " | tr D _");
        EXPECT_EQ(packets_of(test::read_file(clip)), expected);
        // Cut short, it gives what is whole of it.
        const std::string part = test::read_file(clip).substr(0, 20000);
        EXPECT_TRUE(expected.starts_with(packets_of(part).substr(0, 200)));
    }
}

}  // namespace
