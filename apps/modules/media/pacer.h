// Puts the frames of several tracks on the bus, at their pace.
#pragma once

#include "film.h"

#include "core/profile.h"
#include "inet/net_graph.h"
#include "inet/net_thread.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace media_module {

/// Paces what one start of a graph starts, with one timer: frame 0 of all tracks has the same time, and frames that
/// come due together are put in the order of their times.
class pacer {
public:
    /// A track that is played.
    struct played_t {
        const track* of;
        profile_ctx* bus;
        uint64_t number = 0;
        uint64_t time = 0;  ///< since frame 0
    };

    /// The one of the start that runs now. Throws std::bad_alloc.
    static std::shared_ptr<pacer> of_this_start();
    explicit pacer(const net::graph_start_t& start);
    ~pacer();
    pacer(const pacer&) = delete;
    pacer& operator=(const pacer&) = delete;

    /// @param played  the caller's, until remove()
    void add(played_t& played);
    /// What it puts of the track is over when this returns.
    void remove(const played_t& played) noexcept;

private:
    static void on_tick(void* arg, net::command_ctx* command);
    void put_next(played_t& next) const noexcept;

    net::graph_start_t start_;
    uint64_t base_;               ///< time of frame 0 of every track
    net::nt_ctx* own_ = nullptr;  ///< where the host has no thread for it
    net::command_ctx* tick_ = nullptr;
    std::mutex lock_;
    std::vector<played_t*> tracks_;
};

}  // namespace media_module
