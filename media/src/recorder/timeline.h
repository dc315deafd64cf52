// Where frames stand in a recording.
#pragma once

#include "media/stream.h"

#include <array>
#include <cstdint>

namespace media::record {

/// The times of a source on one clock, common to its tracks. A step back of more than a second, or of an hour ahead, is
/// a clock that was set: the track goes on where it was.
class timeline {
public:
    /// The source has gone away: its next times are of another clock, but not before what was.
    void pause() noexcept { paused_ = true; }
    /// @return microseconds
    int64_t place(kind_t kind, uint64_t time) noexcept;

private:
    struct lane_t {
        bool began = false;
        int64_t told = 0;   ///< time of the last frame as it came
        int64_t last = 0;   ///< and where it was placed
        int64_t shift = 0;  ///< between the two, beside that of all tracks
        int64_t step = 40'000;
    };

    std::array<lane_t, kind_count> lanes_{};
    int64_t shift_ = 0;
    int64_t end_ = INT64_MIN;  ///< of all tracks
    bool paused_ = false;
};

/// Where the samples of a track of sound go: what stands between two blocks, and where they overlap. Times of sound are
/// exact but for their rounding to microseconds; what is less than half a block apart follows closely.
class sound_line {
public:
    struct place_t {
        uint64_t silence = 0;  ///< samples in front
        uint32_t skip = 0;     ///< samples of the block that are left out
    };

    void set_rate(uint32_t rate) noexcept { rate_ = rate; }
    /// @param at  microseconds @param samples  of the block
    place_t place(int64_t at, uint32_t samples) const noexcept;
    /// Samples so far, which whoever writes them counts.
    uint64_t end() const noexcept { return end_; }
    void set_end(uint64_t samples) noexcept { end_ = samples; }
    /// Samples from the start to a time.
    uint64_t samples(int64_t at) const noexcept;

private:
    uint32_t rate_ = 8000;
    uint64_t end_ = 0;
};

}  // namespace media::record
