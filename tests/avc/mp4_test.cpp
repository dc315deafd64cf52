#include "avc/mp4.h"

#include "support/fault.h"
#include "support/program.h"

#include "avc/fcc.h"
#include "common/h264.h"

#include <gtest/gtest.h>
#include <memory>
#include <sstream>
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

/// Access units of a byte stream as frames that begin at `offset` microseconds from the base.
std::vector<frame_ptr> frames_of(const std::string& stream, uint64_t offset) {
    std::vector<std::string> units;
    bool after_slice = true;
    auto rest = bytes_of(stream);
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest)) {
        if (after_slice && h264_starts_access_unit(nal)) {
            units.emplace_back();
            after_slice = false;
        }
        units.back().append({0, 0, 1}).append(nal.begin(), nal.end());
        after_slice = after_slice || h264_is_slice(h264_nal_type(nal));
    }
    std::vector<frame_ptr> frames;
    frames.reserve(units.size());
    for (const std::string& unit : units) {
        frames.emplace_back(avc_frame_create(av::fcc_h264, offset + time_of(frames.size()), unit.data(),
                                             static_cast<uint32_t>(unit.size()), CORE_HERE));
    }
    return frames;
}

/// Init segment and fragments of ten frames each.
std::string file_of(const std::vector<frame_ptr>& frames, uint64_t end) {
    constexpr size_t per_fragment = 10;
    buf_t out;
    EXPECT_EQ(av_mp4_init(&out, frames[0].get(), CORE_HERE), 1);
    uint32_t sequence = 0;
    for (size_t first = 0; first < frames.size(); first += per_fragment) {
        std::vector<av::frame_t*> fragment;
        const size_t next = std::min(first + per_fragment, frames.size());
        for (size_t i = first; i < next; ++i)
            fragment.push_back(frames[i].get());
        fragment.push_back(nullptr);
        EXPECT_EQ(av_mp4_moof(&out, fragment.data(), base, next < frames.size() ? frames[next]->time : end, ++sequence,
                              CORE_HERE),
                  1);
    }
    std::string file(reinterpret_cast<const char*>(out.data), out.length);
    core_buf_free(&out);
    return file;
}

/// The packets as ffprobe prints them: presentation and decoding time, flags.
std::string packets_of(const std::vector<frame_ptr>& frames) {
    std::ostringstream out;
    for (const frame_ptr& frame : frames) {
        const uint64_t ticks = (frame->time - base) * 9 / 100;
        out << ticks << '|' << ticks << '|' << (frame->key ? "K_" : "__") << '\n';
    }
    return out.str();
}

/// Slices and SEI, in order: what neither a file nor the way out of it may change.
std::vector<std::string> pictures_of(const std::string& stream) {
    std::vector<std::string> nals;
    auto rest = bytes_of(stream);
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest)) {
        if (h264_nal_type(nal) <= h264_sei) nals.emplace_back(nal.begin(), nal.end());
    }
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
        const std::string end_of_configuration = first_of(source, h264_pps) + want.extension + "\0\0\0\x10stts"s;
        EXPECT_NE(file.find(end_of_configuration), file.npos);
    }
}

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
