#include "net_thread/watch_sets.h"

#include <bit>
#include <span>

namespace net {

using platform::watch_t;

namespace {

constexpr uint8_t told_anew = 0xff;  // as watch_t::held

}  // namespace

void watch_sets::clear() noexcept {
    const bool all_anew = waiter_.begin_round();
    for (watch_t& each : std::span(watches_).first(count_)) {
        each.wanted = 0;
        if (all_anew && each.held) each.held = told_anew;
    }
    readers_ = writers_ = 0;
}

// The slot that holds the descriptor, or the free one where it would go. At most half of the slots are taken.
uint32_t watch_sets::slot_of(int fd) const noexcept {
    constexpr uint32_t golden = 0x9e3779b1u;  // Fibonacci hashing spreads neighbouring descriptors
    uint32_t slot = (static_cast<uint32_t>(fd) * golden) >> (33 - std::bit_width(slot_count));
    while (slots_[slot] != 0 && watches_[slots_[slot] - 1u].fd != fd)
        slot = (slot + 1) % slot_count;
    return slot;
}

uint32_t watch_sets::free_place() noexcept {
    if (free_ == 0) return count_++;
    --free_;
    uint32_t place = 0;
    while (watches_[place].fd >= 0)
        ++place;
    return place;
}

bool watch_sets::set(int fd, bool read, bool write) noexcept {
    const uint32_t slot = slot_of(fd);
    watch_t fresh = {.fd = fd, .wanted = 0, .found = 0};
    const bool known = slots_[slot] != 0;
    watch_t& watch = known ? watches_[slots_[slot] - 1u] : fresh;
    change(watch.wanted, watch_t::read, read, readers_);
    change(watch.wanted, watch_t::write, write, writers_);
    if (known) return watch.wanted != watch.held;
    if (fresh.wanted == 0 || (free_ == 0 && count_ == watches_.size())) return false;
    const uint32_t place = free_place();
    watches_[place] = fresh;
    slots_[slot] = static_cast<uint16_t>(place + 1);
    return true;
}

void watch_sets::tell(int fd) noexcept {
    const uint16_t index = slots_[slot_of(fd)];
    if (index != 0) waiter_.tell(watches_[index - 1u], index - 1u);
}

void watch_sets::change(uint8_t& wanted, uint8_t bit, bool in, uint32_t& members) noexcept {
    const bool was_in = wanted & bit;
    if (in == was_in || (in && members == capacity)) return;
    wanted ^= bit;
    in ? ++members : --members;
}

void watch_sets::renew(int fd) noexcept {
    const uint16_t index = slots_[slot_of(fd)];
    if (index != 0 && watches_[index - 1u].held) watches_[index - 1u].held = told_anew;
}

void watch_sets::drop_unwanted() noexcept {
    bool dropped = false;
    for (watch_t& each : std::span(watches_).first(count_)) {
        if (each.wanted || each.fd < 0) continue;
        each = {.fd = -1, .wanted = 0, .found = 0};
        ++free_;
        dropped = true;
    }
    if (!dropped) return;
    slots_.fill(0);
    for (uint32_t i = 0; i < count_; ++i) {
        if (watches_[i].fd >= 0) slots_[slot_of(watches_[i].fd)] = static_cast<uint16_t>(i + 1);
    }
}

int watch_sets::wait(int64_t microseconds) noexcept {
    drop_unwanted();
    return waiter_.wait(std::span(watches_).first(count_), microseconds);
}

uint8_t watch_sets::found(int fd) const noexcept {
    const uint16_t index = slots_[slot_of(fd)];
    return index != 0 ? watches_[index - 1u].found : 0;
}

}  // namespace net
