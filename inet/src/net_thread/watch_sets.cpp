#include "net_thread/watch_sets.h"

#include <bit>

namespace net {

using platform::watch_t;

void watch_sets::clear() noexcept {
    slots_.fill(0);
    count_ = readers_ = writers_ = 0;
}

// The slot that holds the descriptor, or the free one where it would go. At most half of the slots are taken.
uint32_t watch_sets::slot_of(int fd) const noexcept {
    constexpr uint32_t golden = 0x9e3779b1u;  // Fibonacci hashing spreads neighbouring descriptors
    uint32_t slot = (static_cast<uint32_t>(fd) * golden) >> (33 - std::bit_width(slot_count));
    while (slots_[slot] != 0 && watches_[slots_[slot] - 1u].fd != fd)
        slot = (slot + 1) % slot_count;
    return slot;
}

void watch_sets::set(int fd, bool read, bool write) noexcept {
    const uint32_t slot = slot_of(fd);
    watch_t fresh = {.fd = fd, .wanted = 0, .found = 0};
    const bool known = slots_[slot] != 0;
    watch_t& watch = known ? watches_[slots_[slot] - 1u] : fresh;
    change(watch.wanted, watch_t::read, read, readers_);
    change(watch.wanted, watch_t::write, write, writers_);
    if (known || fresh.wanted == 0 || count_ == watches_.size()) return;
    watches_[count_] = fresh;
    slots_[slot] = static_cast<uint16_t>(++count_);
}

void watch_sets::change(uint8_t& wanted, uint8_t bit, bool in, uint32_t& members) noexcept {
    const bool was_in = wanted & bit;
    if (in == was_in || (in && members == capacity)) return;
    wanted ^= bit;
    in ? ++members : --members;
}

int watch_sets::wait(int64_t microseconds) noexcept {
    return platform::wait_sockets(std::span(watches_).first(count_), microseconds);
}

uint8_t watch_sets::found(int fd) const noexcept {
    const uint16_t index = slots_[slot_of(fd)];
    return index != 0 ? watches_[index - 1u].found : 0;
}

}  // namespace net
