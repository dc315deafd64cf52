#include "inet/rtp_reorder.h"

#include "rtp/packet.h"

#include "core/owned.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace rtp {

namespace {

// Waits when its size is not 0.
struct slot_t {
    uint64_t arrival;
    uint32_t size;
    uint8_t bytes[reorder_packet];
};

// Every Reorder is one.
class window final : public Reorder {
public:
    window(const settings_t& settings, deliver_t deliver, void* arg, core::owned<slot_t> slots) noexcept
        : settings_(settings), deliver_(deliver), arg_(arg), slots_(std::move(slots)) {}

    static window& of(Reorder& reorder) noexcept { return static_cast<window&>(reorder); }
    static const window& of(const Reorder& reorder) noexcept { return static_cast<const window&>(reorder); }

    void take(buffer_t packet, uint64_t now) noexcept;
    uint64_t next_expiry() const noexcept;
    void give_up(uint64_t now) noexcept;
    void deliver_all() noexcept;
    const counts_t& counted() const noexcept { return counts_; }

private:
    bool in_reach(uint16_t seq) noexcept;
    bool hold(uint16_t seq, buffer_t packet, uint64_t now) noexcept;
    void deliver_next(buffer_t packet) noexcept;
    void deliver_held() noexcept;
    void step() noexcept;
    void advance_to(uint16_t seq) noexcept;
    void drain() noexcept;
    std::span<slot_t> slots() const noexcept { return {slots_.get(), settings_.window}; }
    slot_t& slot(uint16_t seq) const noexcept { return slots_.get()[seq & (settings_.window - 1)]; }

    settings_t settings_;
    deliver_t deliver_;
    void* arg_;
    core::owned<slot_t> slots_;
    uint32_t held_ = 0;
    uint16_t next_ = 0;
    uint16_t restart_ = 0;  // the number that would follow the last one that was far off
    bool started_ = false;
    bool far_off_ = false;
    counts_t counts_{};
};

void window::take(buffer_t packet, uint64_t now) noexcept {
    if (!packet.data || packet.size < header_size || (packet.data[0] & version_mask) != version_2) return;
    const uint16_t seq = get16({packet.data, packet.size}, 2);
    if (!in_reach(seq)) return;
    const auto ahead = static_cast<uint16_t>(seq - next_);
    if (ahead >= settings_.window) advance_to(static_cast<uint16_t>(seq - settings_.window + 1));
    if (seq != next_ && !hold(seq, packet, now)) advance_to(seq);
    if (seq == next_) {
        deliver_next(packet);
        drain();
    }
    if (held_ > 0) give_up(now);
}

// Whether the number is at or behind the next one in turn; a new start of the sender makes it the next.
bool window::in_reach(uint16_t seq) noexcept {
    if (!std::exchange(started_, true)) next_ = seq;
    const int ahead = static_cast<int16_t>(seq - next_);
    const bool far_off = ahead > max_dropout || ahead < -max_misorder;
    if (far_off && far_off_ && seq == restart_) {
        deliver_all();
        ++counts_.restarts;
        next_ = seq;
        far_off_ = false;
        return true;
    }
    far_off_ = far_off;
    restart_ = static_cast<uint16_t>(seq + 1);
    if (!far_off && ahead >= 0) return true;
    ++counts_.late;
    return false;
}

// False when the packet is too long to wait.
bool window::hold(uint16_t seq, buffer_t packet, uint64_t now) noexcept {
    if (packet.size > reorder_packet) return false;
    slot_t& place = slot(seq);
    if (place.size > 0) {
        ++counts_.repeated;
        return true;
    }
    place.arrival = now;
    place.size = packet.size;
    std::memcpy(place.bytes, packet.data, packet.size);
    ++held_;
    return true;
}

void window::deliver_next(buffer_t packet) noexcept {
    ++next_;
    deliver_(arg_, packet);
}

void window::deliver_held() noexcept {
    slot_t& place = slot(next_);
    --held_;
    deliver_next({place.bytes, std::exchange(place.size, 0)});
}

// Delivers the next packet if it waits, else gives it up.
void window::step() noexcept {
    if (slot(next_).size > 0) return deliver_held();
    ++counts_.given_up;
    ++next_;
}

// Goes on to the number, delivering what waits before it and giving up the rest, and behind it as far as there is no
// gap.
void window::advance_to(uint16_t seq) noexcept {
    while (next_ != seq)
        step();
    drain();
}

void window::drain() noexcept {
    while (held_ > 0 && slot(next_).size > 0)
        deliver_held();
}

uint64_t window::next_expiry() const noexcept {
    if (held_ == 0) return 0;
    uint64_t oldest = UINT64_MAX;
    for (const slot_t& place : slots()) {
        if (place.size > 0) oldest = std::min(oldest, place.arrival);
    }
    return oldest + settings_.max_wait;
}

void window::give_up(uint64_t now) noexcept {
    if (held_ == 0) return;
    uint16_t end = next_;
    for (uint32_t ahead = 1; ahead < settings_.window; ++ahead) {
        const auto seq = static_cast<uint16_t>(next_ + ahead);
        const slot_t& place = slot(seq);
        if (place.size > 0 && place.arrival + settings_.max_wait <= now) end = seq;
    }
    advance_to(end);
}

void window::deliver_all() noexcept {
    while (held_ > 0)
        step();
}

}  // namespace

Reorder* Reorder::create(const settings_t& settings, deliver_t deliver, void* arg, const char* file,
                         int line) noexcept {
    if (!deliver) return nullptr;
    settings_t taken = settings;
    // A power of two divides the range of the numbers, so that a number keeps its slot when they wrap.
    taken.window = std::bit_ceil(std::clamp(settings.window, 2U, max_reorder_window));
    core::owned<slot_t> slots(static_cast<slot_t*>(core_calloc(taken.window, sizeof(slot_t), file, line)));
    if (!slots) return nullptr;
    return core::create<window>(file, line, taken, deliver, arg, std::move(slots));
}

void Reorder::destroy(Reorder* reorder) noexcept { core::destroy(static_cast<window*>(reorder)); }

void Reorder::push(buffer_t packet, uint64_t now) noexcept { window::of(*this).take(packet, now); }

uint64_t Reorder::due() const noexcept { return window::of(*this).next_expiry(); }

void Reorder::expire(uint64_t now) noexcept { window::of(*this).give_up(now); }

void Reorder::flush() noexcept { window::of(*this).deliver_all(); }

const Reorder::counts_t& Reorder::counts() const noexcept { return window::of(*this).counted(); }

}  // namespace rtp
