// What was received of a track: which frames are whole and wanted, how long it is, what is counted.
#pragma once

#include "media/watcher.h"

#include <span>

namespace media::fetch {

class receipt {
public:
    receipt() noexcept = default;
    /// @param limit  microseconds of media that are wanted; 0 is without end
    receipt(uint32_t fcc, uint64_t limit) noexcept;

    /// Counts a frame. @return whether it is whole and wanted
    bool take(const av::frame_t& frame, int64_t media_time) noexcept;

    /// Picture or sound, which come all the time.
    bool is_media() const noexcept { return media_; }
    /// Counts from there on: its length, and what is wanted.
    void count_from(int64_t media_time) noexcept { first_ = media_time; }
    /// A whole frame came.
    bool has_begun() const noexcept { return started_; }

    /// Microseconds from the first whole frame to the last.
    int64_t length() const noexcept { return last_ - first_; }
    /// All that is wanted of it has come.
    bool is_done() const noexcept { return limit_ && length() >= static_cast<int64_t>(limit_); }
    /// Without packets, which are the protocol's to count.
    track_counts_t counts() const noexcept;

private:
    uint64_t limit_ = 0;
    bool media_ = false;
    bool wait_for_key_ = false;  ///< what comes builds on something that is missing
    bool started_ = false;
    int64_t first_ = 0;
    int64_t last_ = 0;
    track_counts_t counts_;
};

/// Adds what each track received to the track of the same place and format. @return how many `sum` then has
size_t add_counts(std::span<track_counts_t> sum, size_t count, std::span<const track_counts_t> more) noexcept;

/// Microseconds of media: of the longest track.
uint64_t longest(std::span<const track_counts_t> of) noexcept;

}  // namespace media::fetch
