// Media time of pictures from the times that their source states.
#pragma once

#include <algorithm>
#include <cstdint>

namespace net::dash {

inline constexpr uint64_t us_per_ms = 1000;
inline constexpr uint64_t us_per_second = 1'000'000;

/// Microseconds since the first picture. It rises by 1 ms or more with each picture, whatever the source's clock does,
/// and pictures at which a segment may begin stand at whole milliseconds: manifest and fragments count alike.
class media_clock {
public:
    struct moment {
        uint64_t time;       ///< of the picture; a key picture's is a whole millisecond
        uint64_t exact;      ///< the same, not rounded
        bool outage;         ///< nothing came for long
        uint64_t usual_end;  ///< where the picture before would have ended without the outage, in whole milliseconds
    };

    /// @param gapless  a pause is left out: the pictures behind it follow at once, as recordings with holes do
    explicit media_clock(bool gapless) noexcept : gapless_(gapless) {}

    moment take(uint64_t source_time, bool key) noexcept {
        if (!started_) {
            started_ = true;
            base_ = source_time;
            return {};
        }
        // All sums wrap: a source may state any 64 bits.
        uint64_t time = source_time - base_ + offset_;
        const uint64_t next = last_ + (usual_ ? usual_ : without_any);
        const auto pause = static_cast<int64_t>(time - last_);
        const bool late =
            usual_ ? pause > longest_pause && pause > 3 * static_cast<int64_t>(usual_) : pause > first_pause;
        if (pause < -furthest_back || pause > clock_was_set || (late && gapless_)) {
            offset_ += next - time;
            time = next;
        }
        if (static_cast<int64_t>(time - last_) < shortest_step) time = last_ + us_per_ms;
        const bool outage = late && !gapless_ && time != next;
        const moment now{.time = key ? time / us_per_ms * us_per_ms : time,
                         .exact = time,
                         .outage = outage,
                         .usual_end = (next + us_per_ms - 1) / us_per_ms * us_per_ms};
        usual_ = std::min(now.time - last_, longest_usual);
        last_ = now.time;
        return now;
    }

    /// The next picture is the first.
    void restart() noexcept { *this = media_clock(gapless_); }

    uint64_t base() const noexcept { return base_; }
    uint64_t last() const noexcept { return last_; }
    /// Where the last picture ends when none follows, in whole milliseconds.
    uint64_t end() const noexcept {
        return (last_ + (usual_ ? usual_ : without_any) + us_per_ms - 1) / us_per_ms * us_per_ms;
    }

private:
    static constexpr auto shortest_step = static_cast<int64_t>(us_per_ms);
    static constexpr auto longest_pause = static_cast<int64_t>(5 * us_per_second);
    static constexpr auto furthest_back = static_cast<int64_t>(2 * us_per_second);
    static constexpr auto first_pause = static_cast<int64_t>(15 * us_per_second);
    static constexpr auto clock_was_set = static_cast<int64_t>(24ULL * 3600 * us_per_second);
    static constexpr uint64_t longest_usual = 5 * us_per_second;
    static constexpr uint64_t without_any = 40 * us_per_ms;  ///< duration of a picture before a second one has come

    bool gapless_;
    bool started_ = false;
    uint64_t base_ = 0;
    uint64_t offset_ = 0;
    uint64_t last_ = 0;
    uint64_t usual_ = 0;  ///< from one picture to the next, as it was last
};

}  // namespace net::dash
