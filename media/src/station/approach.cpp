#include "station/approach.h"

namespace media {

int approach::begin(stream& from, bool at_key, uint64_t now) noexcept {
    waiting_ = anchored_ = false;
    first_ = 0;
    from_ = &from;
    if (!place_.open(from, {.at_key = at_key})) return 0;
    look(now);  // the first frame, if there is one, gives the start
    return 1;
}

void approach::end() noexcept {
    place_.close();
    waiting_ = false;
}

void approach::anchor(uint64_t now) noexcept {
    if (!first_) first_ = entry_.frame.time + entry_.frame.shown_after;
    anchored_ = true;
    start_ = entry_.frame.time;
    began_ = now;
    lag_ = longest_lag + (now > entry_.arrival ? now - entry_.arrival : 0);
}

// Behind a gap, or behind pictures that were left out, pace and lag count anew.
approach::step_t approach::look(uint64_t now) noexcept {
    while (!waiting_) {
        switch (place_.next(entry_)) {
            case read_t::frame:
                waiting_ = true;
                if (!anchored_) anchor(now);
                break;
            case read_t::nothing:
                return step_t::present;
            case read_t::lost:
                anchored_ = false;
                return step_t::lost;
            case read_t::ended:
                return step_t::ended;
            case read_t::gap:
                anchored_ = false;
                break;
            case read_t::format:
                break;
        }
    }
    if (entry_.arrival + lag_ < now) {
        waiting_ = anchored_ = false;
        place_.skip();
        return step_t::lost;
    }
    const uint64_t ahead = entry_.frame.time > start_ ? entry_.frame.time - start_ : 0;
    due_ = began_ + ahead / speed;
    return due_ <= now ? step_t::frame : step_t::wait;
}

}  // namespace media
