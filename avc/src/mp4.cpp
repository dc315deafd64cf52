// Fragments. What the tracks are is in mp4/movie.cpp.
#include "avc/mp4.h"

#include "mp4/box.h"

#include "avc/fcc.h"
#include "common/h264.h"
#include "core/owned.h"

#include <algorithm>
#include <span>

namespace {

using bytes = std::span<const uint8_t>;
using av::box;
using av::mp4_run_t;
using av::mp4_sample_t;
using av::writer;

constexpr uint32_t time_scale = 90000;

/// Microseconds, of a frame that says more.
constexpr uint32_t longest_shown_after = 10'000'000;

/// Ticks of the track. Always from the base, never by adding durations, so that rounding does not add up.
uint64_t ticks(uint64_t time, uint64_t base) noexcept {
    constexpr uint64_t microseconds = 1000000;
    const uint64_t since = time - base;
    return since / microseconds * time_scale + since % microseconds * time_scale / microseconds;
}

/// Where the fields of a run stand that are known when its samples are written.
struct run_fields {
    uint32_t data_offset;
    uint32_t first_size;
    uint32_t stride;  ///< bytes of one sample in the table
};

/// Bytes of a fragment beside those of its samples: at most so many for a run and for a sample.
constexpr uint32_t run_room = 128;
constexpr uint32_t sample_room = 16 + 8;

run_fields write_run(writer& out, const mp4_run_t& run) noexcept {
    constexpr uint32_t offset_duration_size_flags = 0x701;
    constexpr uint32_t composition_times = 0x800;
    constexpr uint32_t signed_times = 1;          // version
    constexpr uint32_t key_flags = 0x02000000;    // depends on no other
    constexpr uint32_t other_flags = 0x01010000;  // depends on others, not a sync sample
    const bool reordered =
        std::ranges::any_of(run.samples, [](const mp4_sample_t& each) { return each.shown_after != 0; });
    const box trun(out, "trun", reordered ? signed_times : 0,
                   offset_duration_size_flags | (reordered ? composition_times : 0));
    out.u32(static_cast<uint32_t>(run.samples.size()));
    const run_fields fields{out.position(), out.position() + 8, reordered ? 16U : 12U};
    out.u32(0);
    for (const mp4_sample_t& each : run.samples) {
        out.u32(each.duration);
        out.u32(static_cast<uint32_t>(each.data.size()));
        out.u32(each.key ? key_flags : other_flags);
        if (reordered) out.u32(static_cast<uint32_t>(each.shown_after));
    }
    return fields;
}

run_fields write_track_fragment(writer& out, const mp4_run_t& run) noexcept {
    constexpr uint32_t default_base_is_moof = 0x020000;
    const box traf(out, "traf");
    {
        const box tfhd(out, "tfhd", 0, default_base_is_moof);
        out.u32(run.track);
    }
    {
        const box tfdt(out, "tfdt", 1, 0);
        out.u64(run.start);
    }
    return write_run(out, run);
}

/// The NAL units of an access unit, each with its 32-bit length. What the init segment holds already, and delimiters,
/// which a file does not need, are left out.
void write_access_unit(writer& out, bytes unit) noexcept {
    for (bytes nal = h264_next_nal(unit); !nal.empty(); nal = h264_next_nal(unit)) {
        const uint8_t type = h264_nal_type(nal);
        if (type == h264_sps || type == h264_pps || type == h264_aud) continue;
        out.u32(static_cast<uint32_t>(nal.size()));
        out.bytes(nal);
    }
}

void write_media_data(writer& out, const mp4_run_t& run, uint32_t moof_start, const run_fields& fields) noexcept {
    out.patch(fields.data_offset, out.position() - moof_start);
    uint32_t size_field = fields.first_size;
    for (const mp4_sample_t& each : run.samples) {
        const uint32_t start = out.position();
        if (run.annex_b) {
            write_access_unit(out, each.data);
            out.patch(size_field, out.position() - start);
        } else {
            out.bytes(each.data);
        }
        size_field += fields.stride;
    }
}

uint64_t room_for(std::span<const mp4_run_t> runs) noexcept {
    uint64_t size = run_room;
    for (const mp4_run_t& run : runs) {
        size += run_room;
        for (const mp4_sample_t& each : run.samples)
            size += each.data.size() + sample_room;
    }
    return size;
}

/// Frames of one fragment as samples. @return false for one that is not H.264, times that run backwards or stand before
/// the base, a duration beyond 32 bits.
bool take_frames(av::frame_t* const* frames, uint64_t base, uint64_t end, core::vector<mp4_sample_t>& out) {
    const av::frame_t* const first = frames ? *frames : nullptr;
    const auto shown = [](const av::frame_t& each) {
        return static_cast<int32_t>(ticks(std::min(each.shown_after, longest_shown_after), 0));
    };
    for (; frames && *frames; ++frames) {
        const av::frame_t& frame = **frames;
        const uint64_t next = frames[1] ? frames[1]->time : end;
        if (fcc_unic(frame.fcc) != av::fcc_h264 || frame.time < base || next < frame.time) return false;
        const uint64_t duration = ticks(next, base) - ticks(frame.time, base);
        if (duration > UINT32_MAX) return false;
        out.push_back({.data = {frame.data, frame.size},
                       .duration = static_cast<uint32_t>(duration),
                       .shown_after = shown(frame) - shown(*first),
                       .key = frame.key != 0});
    }
    return !out.empty();
}

}  // namespace

int av_mp4_fragment(buf_t* out, std::span<const mp4_run_t> runs, uint32_t sequence, const char* file,
                    int line) noexcept {
    constexpr size_t most_tracks = 8;
    run_fields fields[most_tracks];
    const auto has_samples = [](const mp4_run_t& run) { return !run.samples.empty(); };
    if (!out || runs.size() > most_tracks || std::ranges::none_of(runs, has_samples)) return 0;
    writer segment(out, file, line);
    segment.reserve(room_for(runs));
    const uint32_t moof_start = segment.position();
    {
        const box moof(segment, "moof");
        {
            const box mfhd(segment, "mfhd", 0, 0);
            segment.u32(sequence);
        }
        for (size_t i = 0; i < runs.size(); ++i) {
            if (has_samples(runs[i])) fields[i] = write_track_fragment(segment, runs[i]);
        }
    }
    {
        const box mdat(segment, "mdat");
        for (size_t i = 0; i < runs.size(); ++i) {
            if (has_samples(runs[i])) write_media_data(segment, runs[i], moof_start, fields[i]);
        }
    }
    return segment.commit() > 0;
}

int av_mp4_moof(buf_t* out, av::frame_t* const* frames, uint64_t base, uint64_t end, uint32_t sequence,
                const char* file, int line) noexcept {
    try {
        core::vector<mp4_sample_t> samples(core::place{file, line});
        if (!out || !take_frames(frames, base, end, samples)) return 0;
        const mp4_run_t run{.track = 1, .annex_b = true, .start = ticks(frames[0]->time, base), .samples = samples};
        return av_mp4_fragment(out, {&run, 1}, sequence, file, line);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}
