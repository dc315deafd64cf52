/// Fragmented MP4 (ISO/IEC 14496-12, -14 and -15): an init segment, then fragments of moof and mdat. A fragment may
/// hold samples of several tracks. Times count ticks of the track from a base, so long recordings lose no precision.
/// Any thread.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"

#include <cstdint>
#include <span>

/// Appends the init segment (ftyp and moov) for the stream that a key frame opens: one track of 90000 ticks a second.
/// @param key  H.264 access unit with SPS and PPS; all that stand before its first slice are taken
/// @return 1; 0 when memory is out, or when the parameter sets are missing, unreadable, or more than 31 SPS and
/// 255 PPS. After 0 `out` is as before.
INET_API int av_mp4_init(buf_t* out, const av::frame_t* key, const char* file, int line) noexcept;

/// Appends one fragment (moof and mdat) with the frames of a null-terminated array, in decoding order. The first is
/// shown at its time; the others are shown as much later than decoded as their `shown_after` is above that of the
/// first, of which 10 s count. Parameter sets and delimiters inside the access units are left out; NAL units get
/// four-byte lengths.
/// @param base      microseconds that count as 0 on the track
/// @param end       microseconds at which the last frame ends: the time of the frame after it
/// @param sequence  number of the fragment, counted from 1
/// @return 1, or 0 with `out` as before:
///   - the array is empty, or a frame is not H.264,
///   - times run backwards or stand before the base,
///   - a frame lasts 13 hours, or
///   - memory is out.
INET_API int av_mp4_moof(buf_t* out, av::frame_t* const* frames, uint64_t base, uint64_t end, uint32_t sequence,
                         const char* file, int line) noexcept;

namespace av {

/// A track of an init segment. The tracks are numbered from 1 in their order.
struct mp4_track_t {
    uint32_t fcc = 0;    ///< "H264", "mp4a" or "PCM " (signed samples of 16 bits, low byte first)
    uint32_t scale = 0;  ///< ticks a second: of sound its sampling rate
    uint32_t channels = 0;
    std::span<const uint8_t> config;  ///< H.264: a key frame, as for av_mp4_init(). AAC: AudioSpecificConfig
};

/// One sample of a track: an H.264 access unit in Annex B form, an AAC frame, or any number of PCM samples.
struct mp4_sample_t {
    std::span<const uint8_t> data;
    uint32_t duration = 0;    ///< ticks to the decoding of the next one
    int32_t shown_after = 0;  ///< ticks from its decoding to its display
    bool key = true;
};

/// Samples of one track that follow each other in decoding order.
struct mp4_run_t {
    uint32_t track = 1;
    bool annex_b = false;  ///< the samples are H.264: the NAL units get lengths, as in av_mp4_moof()
    uint64_t start = 0;    ///< ticks at which the first is decoded
    std::span<const mp4_sample_t> samples;
};

}  // namespace av

/// Appends an init segment for several tracks.
/// @return 1, or 0 with `out` as before:
///   - there is no track, or memory is out,
///   - a track has an unknown format or no scale,
///   - its parameter sets are those that av_mp4_init() refuses,
///   - its AudioSpecificConfig has no bytes or more than 64, or
///   - it has no channels or more than 255.
INET_API int av_mp4_movie(buf_t* out, std::span<const av::mp4_track_t> tracks, const char* file, int line) noexcept;

/// Appends one fragment with a run for each track, at most 8. Runs without samples are left out.
/// @return 1; 0 when no run has samples, when there are more than 8, or when memory is out. After 0 `out` is as before.
INET_API int av_mp4_fragment(buf_t* out, std::span<const av::mp4_run_t> runs, uint32_t sequence, const char* file,
                             int line) noexcept;
