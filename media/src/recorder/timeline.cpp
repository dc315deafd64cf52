#include "recorder/timeline.h"

#include <algorithm>

namespace media::record {

namespace {

constexpr int64_t furthest_back = -1'000'000;
constexpr int64_t furthest_ahead = 3'600'000'000;
constexpr int64_t longest_step = 1'000'000;

}  // namespace

int64_t timeline::place(kind_t kind, uint64_t time) noexcept {
    lane_t& lane = lanes_[static_cast<size_t>(kind)];
    const auto told = static_cast<int64_t>(time);
    if (paused_) {
        paused_ = false;
        for (lane_t& each : lanes_) {
            each.began = false;
            each.shift = 0;
        }
        if (end_ != INT64_MIN) shift_ = std::max(shift_, end_ - told);
    }
    const int64_t moved = told - lane.told;
    if (lane.began && (moved < furthest_back || moved > furthest_ahead))
        lane.shift = lane.last + lane.step - told - shift_;
    const int64_t placed = told + shift_ + lane.shift;
    if (lane.began && placed > lane.last) lane.step = std::min(placed - lane.last, longest_step);
    lane.began = true;
    lane.told = told;
    lane.last = placed;
    end_ = std::max(end_, placed + lane.step);
    return placed;
}

uint64_t sound_line::samples(int64_t at) const noexcept {
    constexpr uint64_t second = 1'000'000;
    const auto time = static_cast<uint64_t>(std::max<int64_t>(at, 0));
    return time / second * rate_ + (time % second * rate_ + second / 2) / second;
}

sound_line::place_t sound_line::place(int64_t at, uint32_t samples) const noexcept {
    place_t found;
    const auto before = static_cast<int64_t>(at < 0 ? this->samples(-at) : 0);
    const int64_t gap = static_cast<int64_t>(this->samples(at)) - before - static_cast<int64_t>(end_);
    const int64_t slack = end_ == 0 ? 0 : samples / 2;
    if (gap > slack) found.silence = static_cast<uint64_t>(gap);
    if (gap < -slack) found.skip = static_cast<uint32_t>(std::min<int64_t>(-gap, samples));
    return found;
}

}  // namespace media::record
