// Plays a channel of the clip into a stream, at its pace, for ever.
#pragma once

#include "clip.h"

#include "inet/net_thread.h"
#include "media/stream.h"

#include <cstdint>

namespace camera {

/// Paces all channels: the frames that come due together are pushed together.
class clip_source {
public:
    clip_source() = default;
    ~clip_source() { stop(); }
    clip_source(const clip_source&) = delete;
    clip_source& operator=(const clip_source&) = delete;

    /// Before start(). @param played  outlives its use here, as does the stream
    void add(const channel& played, media::stream& into);
    /// @param on  paces it. On a thread of the station a push wakes nobody there, which a thread beside it has to.
    /// @return whether it could be
    bool start(net::nt_ctx* on) noexcept;
    /// Before that thread ends. What it pushes is over when it returns.
    void stop() noexcept;

private:
    struct next_frame {
        const track* of;
        media::stream* into;
        uint64_t number;
        uint64_t time;  ///< since frame 0
    };

    static void on_tick(void* arg, net::command_ctx* command);
    static void push(next_frame& next, uint64_t base);

    std::vector<next_frame> tracks_;
    net::command_ctx* tick_ = nullptr;
    uint64_t base_ = 0;   ///< time of frame 0 of every track
    uint64_t began_ = 0;  ///< the same by core_timer()
};

}  // namespace camera
