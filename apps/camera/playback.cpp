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
    next_.resize(played.tracks.size());
    for (size_t i = 0; i < next_.size(); ++i)
        set_next(i, played.tracks[i].number_at(first));
}

const av::frame_t* playback::due(uint64_t now) {
    const uint64_t until = media_time(now);
    if (time_of_next() > until) {
        live_ = live_ || until == now;
        return nullptr;
    }
    const auto earliest = std::ranges::min_element(next_, {}, &next_frame::time);
    earliest_ = static_cast<size_t>(earliest - next_.begin());
    // A record of its own for the payload that all share: only the time is this playback's.
    shown_ = played_->tracks[earliest_].frame(earliest->number);
    shown_.time = base_ + earliest->time;
    shown_.payload = nullptr;
    return &shown_;
}

void playback::skip(uint64_t now) {
    for (size_t i = 0; i < next_.size(); ++i)
        set_next(i, std::max(next_[i].number, played_->tracks[i].number_at(now - base_ + 1)));
    lag_ = longest_lag;
    live_ = true;
}

uint64_t playback::time_of_next() const { return base_ + std::ranges::min_element(next_, {}, &next_frame::time)->time; }

uint64_t playback::media_time(uint64_t now) const { return std::min(now, start_ + catch_up_speed * (now - began_)); }

}  // namespace camera
