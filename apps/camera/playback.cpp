#include "playback.h"

#include "avc/fcc.h"

#include <algorithm>

namespace camera {
namespace {

/// The track by which a viewer's beginning is chosen: the pictures if there are some.
const track& leading(const channel& played) {
    const auto pictures = std::find_if(played.tracks.begin(), played.tracks.end(),
                                       [](const track& each) { return fcc_is_video(each.fcc()) != 0; });
    return pictures == played.tracks.end() ? played.tracks.front() : *pictures;
}

/// Time, since frame 0, of the key picture to begin with. Frame 0 is one.
uint64_t key_time(const track& lead, start_t start, uint64_t position) {
    uint64_t number = lead.number_at(position + 1);
    if (start == start_t::next) {
        while (!lead.frame(number).key)
            ++number;
    } else {
        number -= number > 0;
        while (!lead.frame(number).key)
            --number;
    }
    return lead.time(number);
}

}  // namespace

void playback::begin(const channel& played, start_t start, uint64_t base, uint64_t now) {
    played_ = &played;
    base_ = base;
    began_ = now;
    const uint64_t first = key_time(leading(played), start, now - base);
    start_ = base + first;
    lag_ = longest_lag + (start_ < now ? now - start_ : 0);
    live_ = false;
    next_.clear();
    for (const track& each : played.tracks)
        next_.push_back(each.number_at(first));
}

const av::frame_t* playback::due(uint64_t now) {
    const uint64_t until = media_time(now);
    if (time_of_next() > until) {
        live_ = live_ || until == now;
        return nullptr;
    }
    uint64_t earliest_time = UINT64_MAX;
    for (size_t i = 0; i < next_.size(); ++i) {
        const uint64_t time = played_->tracks[i].time(next_[i]);
        if (time >= earliest_time) continue;
        earliest_time = time;
        earliest_ = i;
    }
    // A record of its own for the payload that all share: only the time is this playback's.
    shown_ = played_->tracks[earliest_].frame(next_[earliest_]);
    shown_.time = base_ + earliest_time;
    shown_.payload = nullptr;
    return &shown_;
}

void playback::skip(uint64_t now) {
    for (size_t i = 0; i < next_.size(); ++i)
        next_[i] = std::max(next_[i], played_->tracks[i].number_at(now - base_ + 1));
    lag_ = longest_lag;
    live_ = true;
}

uint64_t playback::time_of_next() const {
    uint64_t time = UINT64_MAX;
    for (size_t i = 0; i < next_.size(); ++i)
        time = std::min(time, played_->tracks[i].time(next_[i]));
    return base_ + time;
}

uint64_t playback::media_time(uint64_t now) const { return std::min(now, start_ + catch_up_speed * (now - began_)); }

}  // namespace camera
