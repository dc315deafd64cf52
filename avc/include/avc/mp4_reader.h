/// Reads fragmented MP4 (ISO/IEC 14496-12, -14 and -15), as avc/mp4.h makes it and as others do: the tracks, then the
/// samples of one fragment after the other. It also reads a file that is cut short, up to its last whole fragment.
///
///     av::Mp4Reader film(CORE_HERE);
///     if (!film.open({read, &file})) ...
///     while (film.next_fragment() == 1 && film.load() == 1)
///         while (film.next(sample)) ...
///
/// Tracks are H.264 ('avc1', 'avc3'), AAC ('mp4a') and PCM of 16 bits, low byte first ('sowt', 'ipcm'). Others, and
/// those beyond the first 8, are left out. Edit lists are not read.
///
/// Bounds (what passes one is malformed):
///     moov, moof             1 MiB, 4 MiB; and as much again for what is read of it
///     samples                65536 in a fragment
///     bytes of a fragment    64 MiB. Held at the same time is one access unit in Annex B form, of at most 2.5 times
///                            the bytes of its sample, and the parameter sets
///
/// One thread at a time.
#pragma once

#include "avc/mp4.h"
#include "core/api.h"

#include <cstdint>
#include <span>

namespace av {

/// Where the bytes come from. read() puts those from `position` on into `data`. @return how many; fewer than `size` at
/// the end, 0 when there are none
struct mp4_source_t {
    uint32_t (*read)(void* arg, uint64_t position, void* data, uint32_t size);
    void* arg;
};

/// A sample of a fragment. H.264 is an access unit in Annex B form, a key picture with its parameter sets in front.
struct mp4_taken_t {
    uint32_t track;     ///< index among tracks()
    uint64_t time;      ///< ticks of the track at which it is decoded
    uint32_t duration;  ///< ticks to the next one
    int32_t shown_after;
    bool key;
    std::span<const uint8_t> data;  ///< valid until the next call
};

/// When the samples of a track in a fragment are decoded, in ticks of the track.
struct mp4_span_t {
    uint64_t begin;
    uint64_t end;          ///< of the last one
    bool key;              ///< the first one is a key
    int32_t shown_before;  ///< ticks by which one is shown before it is decoded, which some writers say; else 0
};

class INET_API Mp4Reader final {
public:
    Mp4Reader(const char* file, int line) noexcept;
    ~Mp4Reader();
    Mp4Reader(const Mp4Reader&) = delete;
    Mp4Reader& operator=(const Mp4Reader&) = delete;

    /// Reads up to the end of the moov. @return 1; 0 when there is none that can be read, or memory is out
    int open(mp4_source_t source) noexcept;
    /// The tracks in their order. The configuration of H.264 is its parameter sets in Annex B form. Valid until open().
    std::span<const mp4_track_t> tracks() const noexcept;

    /// Goes to the next fragment and reads what it says of its samples. @return 1; 0 at the end, also where the file is
    /// cut short; -1 when it is malformed or memory is out: that was the last one
    int next_fragment() noexcept;
    /// Where the fragment begins in the file; go() has the next next_fragment() go on from there.
    uint64_t position() const noexcept;
    void go(uint64_t position) noexcept;
    /// @return 1, or 0 when the fragment has no sample of the track
    int span(uint32_t track, mp4_span_t* out) const noexcept;

    /// Reads the bytes of the fragment's samples. @return as next_fragment()
    int load() noexcept;
    /// The samples of the loaded fragment in the order of their times. @return 1, or 0 when there are no more, or
    /// memory is out. A sample that is no list of NAL units is left out
    int next(mp4_taken_t& out) noexcept;

private:
    struct inside;
    inside* inside_;
};

}  // namespace av
