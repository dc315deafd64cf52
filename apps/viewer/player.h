// Receives the stream on a network thread of its own, one attempt after the other.
#pragma once

#include "options.h"
#include "outcome.h"
#include "recording.h"
#include "session.h"

#include "inet/net_thread.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace viewer {

/// What the status line shows; read by any thread.
struct progress {
    std::atomic<uint64_t> bytes = 0;
    std::atomic<uint64_t> frames = 0;
    std::atomic<uint64_t> lost = 0;
    std::atomic<uint64_t> milliseconds = 0;  ///< of media
};

class player final : public net::Thread {
public:
    /// Both live longer than the player.
    player(const options& settings, recording& files) : settings_(settings), files_(files), way_(settings.way) {}
    ~player() override { stop(); }

    void start() noexcept override;
    void stop() noexcept override;

    // From any thread

    /// To be called about ten times a second: the player's clock.
    void tick() { net::net_nt_command_exec(tick_); }
    /// Has it come to an end, which `has_ended()` tells.
    void end() { end_wanted_ = true; }
    bool has_ended() const { return ended_; }
    const progress& now() const { return progress_; }

    // After stop()

    const ending& result() const { return result_; }
    const std::vector<track_report>& reports() const { return reports_; }

private:
    static void on_tick(void* arg, net::command_ctx* command);
    void work(uint64_t now);
    void begin();
    void take_over(uint64_t now);
    bool retries(const ending& why, uint64_t now);
    void finish(const ending& result);
    void show();
    uint64_t received() const;

    const options& settings_;
    recording& files_;
    transport way_;
    net::command_ctx* tick_ = nullptr;
    std::unique_ptr<session> session_;
    uint64_t next_attempt_ = 0;
    unsigned failures_ = 0;              ///< in a row
    std::vector<track_report> reports_;  ///< of the attempts before this one
    ending result_;
    std::atomic<bool> end_wanted_ = false;
    std::atomic<bool> ended_ = false;
    progress progress_;
};

}  // namespace viewer
