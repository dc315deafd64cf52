// A place in a channel that moves on with time: each viewer, and each shared stream, has its own.
#pragma once

#include "clip.h"
#include "options.h"

#include "avc/frame.h"

#include <cstdint>
#include <vector>

namespace camera {

/// Tells which frame is due next. One that begins in the past, with the last key picture, comes up to the present at
/// a multiple of real time, all tracks in step, so that the burst fits the receive buffers of the network and the
/// player.
class playback {
public:
    /// Media time that passes in one second while coming up to the present.
    static constexpr uint64_t catch_up_speed = 4;
    /// Behind by more than this longer than at its beginning, on a link that is too slow or after the machine was
    /// suspended, it goes on with the present.
    static constexpr uint64_t longest_lag = 1'000'000;

    /// @param played  outlives its use here; frame 0 of every track stands at `base`
    void begin(const channel& played, start_t start, uint64_t base, uint64_t now);

    /// The frame that has come by `now`, the earliest of all tracks; null when there is none. Good until the next call.
    const av::frame_t* due(uint64_t now);
    /// Steps behind the frame of due().
    void take() { set_next(earliest_, next_[earliest_].number + 1); }

    /// It has come up to the present.
    bool live() const { return live_; }
    /// It is behind by more than it may be: skip() is due.
    bool lost_touch(uint64_t now) const { return time_of_next() + lag_ < now; }
    /// Leaves out what has come up to `now`.
    void skip(uint64_t now);

    /// Time of the earliest frame that was not taken.
    uint64_t time_of_next() const;

private:
    struct next_frame {
        uint64_t number;
        uint64_t time;  ///< since frame 0
    };

    uint64_t media_time(uint64_t now) const;
    void set_next(size_t track, uint64_t number) { next_[track] = {number, played_->tracks[track].time(number)}; }

    const channel* played_ = nullptr;
    uint64_t base_ = 0;
    uint64_t began_ = 0;  ///< when begin() was called
    uint64_t start_ = 0;
    uint64_t lag_ = 0;  ///< the most that it may be behind
    bool live_ = false;
    std::vector<next_frame> next_;
    size_t earliest_ = 0;
    av::frame_t shown_{};
};

}  // namespace camera
