// The way of a player from the last key picture up to the present.
#pragma once

#include "media/service.h"

#include <cstdint>

namespace media {

/// Shows the frames of a stream at a multiple of their pace, all tracks in step, so that the burst fits the receive
/// buffers of the network and the player.
class approach {
public:
    /// Media time that passes in one second.
    static constexpr uint64_t speed = 4;
    /// Behind by more than this longer than at its beginning, on a link that is too slow or after the machine was
    /// suspended, it goes on with the next key picture.
    static constexpr uint64_t longest_lag = 1'000'000;
    /// Microseconds until a client looks again that nobody wakes.
    static constexpr uint64_t soon = 10'000;

    enum class step_t : uint8_t {
        frame,    ///< shown() is due
        wait,     ///< until due()
        present,  ///< all that was held has been shown
        lost,     ///< pictures were left out
        ended,    ///< nothing follows
    };

    /// @param now  core_timer(). @return 1, or 0 when memory is out
    int begin(stream& from, bool at_key, uint64_t now) noexcept;
    void end() noexcept;
    bool under_way() const noexcept { return place_.is_open(); }

    /// What client::serve() does on the way. Beside the calls of that class the client has:
    ///     bool show(const entry_t&)   sends a frame; false when it takes none before it is woken
    ///     void leave_out()            pictures were left out
    ///     bool join(uint64_t from)    has the thread's own reader bring the frames from that number on
    template <class Client>
    uint64_t serve(Client& to, const thread& on, uint64_t now) noexcept;

    step_t look(uint64_t now) noexcept;
    const entry_t& shown() const noexcept { return entry_; }
    uint64_t due() const noexcept { return due_; }
    /// Goes on behind the frame that is shown.
    void take() noexcept { waiting_ = false; }

    /// Number of the frame that is shown next.
    uint64_t position() const noexcept { return waiting_ ? entry_.number : place_.position(); }
    /// When the first frame is shown, by media time; 0 when none has been held.
    uint64_t first_time() const noexcept { return first_; }
    /// The same of the frame at hand; 0 for none.
    uint64_t next_time() const noexcept { return waiting_ ? entry_.frame.time + entry_.frame.shown_after : 0; }

private:
    void anchor(uint64_t now) noexcept;

    const stream* from_ = nullptr;  ///< held by the client
    cursor place_;
    entry_t entry_;
    bool waiting_ = false;  ///< `entry_` was not taken yet
    uint64_t first_ = 0;
    bool anchored_ = false;  ///< the next three hold: pace and lag count from one frame
    uint64_t began_ = 0;
    uint64_t start_ = 0;  ///< its media time
    uint64_t lag_ = 0;    ///< the most that frames may be behind
    uint64_t due_ = 0;
};

template <class Client>
uint64_t approach::serve(Client& to, const thread& on, uint64_t now) noexcept {
    while (under_way() && to.watching()) {
        const step_t step = look(now);
        if (step == step_t::wait) return due_;
        if (step == step_t::ended) {
            to.finish();
            return 0;
        }
        if (step == step_t::lost) {
            to.leave_out();
            continue;
        }
        if (step == step_t::frame && !to.show(entry_)) return 0;
        if (step == step_t::frame) take();
        if (position() >= on.position(*from_) && to.join(position()))
            end();
        else if (step == step_t::present)
            return now + soon;
    }
    return 0;
}

}  // namespace media
