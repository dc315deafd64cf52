/// Puts RTP packets received over UDP back into order, for rtp::Rtp::unpack_rtp(). Use one object for each track, on
/// one thread. The next packet in order is delivered at once. An early packet is copied, and waits until those before
/// it:
///   - have come,
///   - are too many to wait for, or
///   - have been waited for long enough.
/// Repeated and late packets are dropped. A number is far off when it is more than 3000 ahead or 100 behind (RFC 3550,
/// A.1). A packet with such a number is dropped; when the next packet follows it, the sender has started anew, and the
/// order starts anew with it.
///
/// Bounds:
///     memory    settings_t::window packets of rtp::reorder_packet bytes, allocated by create(); never more
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstdint>

namespace rtp {

/// Bytes of the longest packet that can wait. A longer one does not wait: it ends the wait for those before it.
inline constexpr uint32_t reorder_packet = 2048;

inline constexpr uint32_t max_reorder_window = 256;

class INET_API Reorder {
public:
    struct settings_t {
        uint32_t window = 32;        ///< packets, rounded up to a power of two, 2 up to max_reorder_window
        uint64_t max_wait = 100000;  ///< microseconds that an early packet waits at most
    };

    struct counts_t {
        uint32_t late;      ///< dropped: its place was passed or given up, or the number is far off
        uint32_t repeated;  ///< dropped: the same packet waits already
        uint32_t given_up;  ///< numbers no longer waited for
        uint32_t restarts;  ///< restarts of the sender; it grows before the new sequence is delivered, so that the
                            ///< owner can set trak_t::seq to 0 for it
    };

    /// Takes the next packet in order. The bytes are valid until the callback returns. From inside, the Reorder may
    /// only be read.
    using deliver_t = void (*)(void* arg, buffer_t packet);

    /// @return null when memory is out or `deliver` is null. End it with destroy().
    static Reorder* create(const settings_t& settings, deliver_t deliver, void* arg, const char* file,
                           int line) noexcept;
    /// Drops what waits; null is ignored.
    static void destroy(Reorder* reorder) noexcept;

    /// Takes a packet that arrived at `now`, in microseconds of any steady clock. What is no RTP of version 2 is
    /// dropped.
    void push(buffer_t packet, uint64_t now) noexcept;

    /// Time at which expire() is due; 0 when nothing waits. push() does the work of expire(), so this matters when a
    /// stream has paused.
    uint64_t due() const noexcept;

    /// Delivers the packets that have waited since `now` - max_wait or longer. Gives up what they waited for.
    void expire(uint64_t now) noexcept;

    /// Delivers all that waits, in order.
    void flush() noexcept;

    const counts_t& counts() const noexcept;

    Reorder(const Reorder&) = delete;
    Reorder& operator=(const Reorder&) = delete;

protected:
    Reorder() = default;
    ~Reorder() = default;
};

}  // namespace rtp
