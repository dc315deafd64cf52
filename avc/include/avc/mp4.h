/// Fragmented MP4 for one H.264 track (ISO/IEC 14496-12 and -15): an init segment and fragments of moof and mdat. The
/// track's time scale is 90000; times are counted from a base so that long recordings lose nothing. Any thread.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"

#include <cstdint>

/// Appends the init segment (ftyp and moov) for the stream that a key frame opens.
/// @param key  H.264 access unit with SPS and PPS; all that stand before its first slice are taken
/// @return 1, or 0 when the parameter sets are missing, unreadable or more than 31 and 255, or memory is out; `out`
/// then holds what it held before.
INET_API int av_mp4_init(buf_t* out, const av::frame_t* key, const char* file, int line) noexcept;

/// Appends one fragment (moof and mdat) with the frames of a null-terminated array, in decoding order without
/// reordering. Parameter sets and delimiters inside the access units are left out; NAL units get four-byte lengths.
/// @param base      microseconds that count as 0 on the track
/// @param end       microseconds at which the last frame ends: the time of the frame after it
/// @param sequence  number of the fragment, counted from 1
/// @return 1, or 0 when the array is empty, a frame is not H.264, times run backwards or stand before the base, one
/// frame lasts 13 hours, or memory is out; `out` then holds what it held before.
INET_API int av_mp4_moof(buf_t* out, av::frame_t* const* frames, uint64_t base, uint64_t end, uint32_t sequence,
                         const char* file, int line) noexcept;
