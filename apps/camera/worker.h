// A network thread of the camera: plays the clip for the viewers that it was given.
#pragma once

#include "clip.h"
#include "datagrams.h"
#include "multicast.h"
#include "options.h"
#include "tunnels.h"
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

/// What all workers have in common.
struct station {
    const clip& played;  ///< frame 0 of every track stands at `base`
    const options& settings;
    const uint64_t base;
    tunnels open_tunnels;
    multicast shared_streams;
};

/// The first one sends the shared streams.
class worker final : public net::Thread {
public:
    /// Connections of one network thread, which watches at most 512 sockets. When one more comes, the oldest that does
    /// not play gives way.
    static constexpr unsigned most_viewers = 500;

    worker(station& shared, bool first) : station_(shared), first_(first) {}
    ~worker() override;

    void start() noexcept override;
    void stop() noexcept override;

    // From any thread

    /// Hands over a connection: an accepted one, or with its session the POST end of a tunnel whose GET end is here.
    void take(int fd, const sockaddr_in& peer, rtsp3::Rtsp* session = nullptr);
    /// Tells the thread to send what is due.
    void tick() { net::net_nt_command_exec(tick_); }
    const counters& count() const { return counters_; }
    unsigned load() const { return taken_; }

    // For the viewers, on the thread

    const options& settings() const { return station_.settings; }
    const channel* find_channel(std::string_view path) const;
    uint64_t base() const { return station_.base; }
    tunnels& open_tunnels() { return station_.open_tunnels; }
    multicast& shared_streams() { return station_.shared_streams; }
    /// Joins a POST end to its GET end; ends it when there is none.
    void pair(viewer& post);
    /// Port of the socket that sends RTP over UDP, the next one sends RTCP; opened at first use, 0 when that failed.
    uint16_t udp_port();
    /// RTP over UDP of all viewers; open once udp_port() is.
    datagrams& packets() { return packets_; }
    int rtcp_socket() const { return rtcp_socket_; }
    /// Where a viewer for whom nothing waits puts pictures together.
    buf_t& send_room() { return send_room_; }
    void count_sent(uint64_t bytes) { counters_.bytes_sent += bytes; }
    void count_dropped() { ++counters_.pictures_dropped; }
    /// Has finished viewers deleted as soon as no callback of theirs runs.
    void sweep() { net::net_nt_sync_call(nt, nullptr, this, &worker::on_sweep); }

private:
    static void on_tick(void* arg, net::command_ctx* command);
    static void on_take(void* owner, void* arg);
    static void on_second(void* arg, net::timer_ctx* timer);
    static void on_sweep(void* arg);
    static void on_report(void* arg, uint32_t events);
    bool make_place();
    void close_udp();

    station& station_;
    const bool first_;
    std::vector<std::unique_ptr<viewer>> viewers_;
    net::command_ctx* tick_ = nullptr;
    net::timer_ctx* second_ = nullptr;
    buf_t send_room_;
    datagrams packets_;
    int rtp_socket_ = -1;
    int rtcp_socket_ = -1;
    net::socket_ctx* reports_ = nullptr;
    std::atomic<unsigned> taken_ = 0;
    counters counters_;
};

}  // namespace camera
