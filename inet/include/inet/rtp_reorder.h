/// Puts RTP packets that UDP has delivered out of order back into order, in front of rtp::Rtp::unpack_rtp(). One object
/// for each track. A packet that is next in turn passes straight through; one that comes early is copied and waits
/// until those before it have come, are too many to wait for, or have been waited for long enough. Repeated and late
/// packets are dropped. A packet whose number is far off (more than 3000 ahead or 100 behind, RFC 3550, A.1) is dropped
/// unless the next one follows it: then the sender has started anew, and so does the order.
///
/// Holds `window` packets of at most rtp::reorder_packet bytes, allocated at its making and never more. One thread.
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "core/owned.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace rtp {

/// Bytes of the longest packet that can wait. A longer one is not waited with: it ends the wait for those before it.
inline constexpr uint32_t reorder_packet = 2048;

inline constexpr uint32_t max_reorder_window = 256;

class INET_API Reorder {
public:
    struct settings_t {
        uint32_t window = 32;        ///< packets, rounded up to a power of two, 2 up to max_reorder_window
        uint64_t max_wait = 100000;  ///< microseconds that an early packet waits at most
    };

    struct counts_t {
        uint32_t late;      ///< dropped: the place was given up or passed before, or the number is far off
        uint32_t repeated;  ///< dropped: waits already
        uint32_t given_up;  ///< numbers no longer waited for
        uint32_t restarts;  ///< new starts of the sender; grown before the new sequence is delivered, so that the owner
                            ///< can set trak_t::seq to 0 for it
    };

    /// Takes a packet in its turn; the bytes live for the call. It may not call the Reorder but for reading.
    using deliver_t = void (*)(void* arg, buffer_t packet);

    /// @return null when memory is out or `deliver` is null. End it with destroy().
    static Reorder* create(const settings_t& settings, deliver_t deliver, void* arg, const char* file,
                           int line) noexcept;
    /// Drops what waits; null is ignored.
    static void destroy(Reorder* reorder) noexcept;

    /// Takes a packet that arrived at `now`, in microseconds of any steady clock. What is no RTP of version 2 is
    /// dropped.
    void push(buffer_t packet, uint64_t now) noexcept;

    /// When expire() is due; 0 when nothing waits. push() sees to it too, so this is for a stream that has paused.
    uint64_t due() const noexcept;

    /// Gives up what packets have waited for since `now` - max_wait or longer and delivers these packets.
    void expire(uint64_t now) noexcept;

    /// Delivers all that waits, in order.
    void flush() noexcept;

    const counts_t& counts() const noexcept { return counts_; }

    Reorder(const Reorder&) = delete;
    Reorder& operator=(const Reorder&) = delete;

    /// For create() alone.
    struct slot_t;
    Reorder(const settings_t& settings, deliver_t deliver, void* arg, core::owned<slot_t> slots) noexcept;

private:
    bool in_reach(uint16_t seq) noexcept;
    bool hold(uint16_t seq, buffer_t packet, uint64_t now) noexcept;
    void deliver_next(buffer_t packet) noexcept;
    void deliver_held() noexcept;
    void step() noexcept;
    void advance_to(uint16_t seq) noexcept;
    void drain() noexcept;
    slot_t& slot(uint16_t seq) const noexcept;
    std::span<slot_t> slots() const noexcept;

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

}  // namespace rtp
