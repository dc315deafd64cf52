// A network thread of the camera: plays the clip for the viewers that it was given.
#pragma once

#include "clip.h"
#include "datagrams.h"
#include "options.h"
#include "viewer.h"

#include "inet/net_thread.h"
#include "inet/sockaddr.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace camera {

/// What the status line shows. Written by the worker's thread, read by any.
struct counters {
    std::atomic<unsigned> viewers = 0;
    std::atomic<uint64_t> bytes_sent = 0;
    std::atomic<uint64_t> pictures_dropped = 0;
};

class worker final : public net::Thread {
public:
    /// Connections of one network thread: it watches at most 512 sockets.
    static constexpr unsigned most_viewers = 500;

    /// @param played  the clip, shared by all workers; frame 0 of every track stands at `base`
    worker(const clip& played, const options& settings, uint64_t base);
    ~worker() override;

    void start() noexcept override;
    void stop() noexcept override;

    // From any thread

    /// Hands over an accepted connection.
    void take(int fd, const sockaddr_in& peer);
    /// Tells the thread to send what is due.
    void tick() { net::net_nt_command_exec(tick_); }
    const counters& count() const { return counters_; }
    unsigned load() const { return taken_; }

    // For the viewers, on the thread

    const options& settings() const { return settings_; }
    const channel* find_channel(std::string_view path) const;
    uint64_t base() const { return base_; }
    /// Port of the socket that sends RTP over UDP, the next one sends RTCP; opened at first use, 0 when that failed.
    uint16_t udp_port();
    /// RTP over UDP of all viewers; open once udp_port() is.
    datagrams& packets() { return packets_; }
    int rtcp_socket() const { return rtcp_socket_; }
    void count_sent(uint64_t bytes) { counters_.bytes_sent += bytes; }
    void count_dropped() { ++counters_.pictures_dropped; }
    /// Has finished viewers deleted as soon as no callback of theirs runs.
    void sweep() { net::net_nt_sync_call(nt, nullptr, this, &worker::on_sweep); }

private:
    static void on_tick(void* arg, net::command_ctx* command);
    static void on_take(void* owner, void* arg);
    static void on_second(void* arg, net::timer_ctx* timer);
    static void on_sweep(void* arg);
    void close_udp();

    const clip& clip_;
    const options& settings_;
    const uint64_t base_;
    std::vector<std::unique_ptr<viewer>> viewers_;
    net::command_ctx* tick_ = nullptr;
    net::timer_ctx* second_ = nullptr;
    datagrams packets_;
    int rtp_socket_ = -1;
    int rtcp_socket_ = -1;
    std::atomic<unsigned> taken_ = 0;
    counters counters_;
};

}  // namespace camera
