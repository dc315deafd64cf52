// A network thread of the camera: plays the clip for the viewers that it was given.
#pragma once

#include "clip.h"
#include "datagrams.h"
#include "frame_packets.h"
#include "multicast.h"
#include "options.h"
#include "tunnels.h"
#include "viewer.h"

#include "core/time.h"
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
    std::atomic<unsigned> viewers = 0;  ///< those who play
    std::atomic<uint64_t> bytes_sent = 0;
    std::atomic<uint64_t> pictures_dropped = 0;
};

/// What all workers have in common.
struct station {
    const clip& played;
    const options& settings;
    const uint64_t base;   ///< time of frame 0 of every track
    const uint64_t began;  ///< the same by core_timer()
    tunnels open_tunnels;
    multicast shared_streams;

    /// The time, steady also when the system's clock is set.
    uint64_t now() const { return base + (core_timer() - began); }
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
    /// Has the thread look what is due.
    void tick() { net::net_nt_command_at(tick_, core_timer()); }
    const counters& count() const { return counters_; }
    unsigned load() const { return taken_; }

    // For the viewers, on the thread

    const options& settings() const { return station_.settings; }
    const channel* find_channel(std::string_view path) const;
    uint64_t base() const { return station_.base; }
    uint64_t now() const { return station_.now(); }
    tunnels& open_tunnels() { return station_.open_tunnels; }
    multicast& shared_streams() { return station_.shared_streams; }
    /// Joins a POST end to its GET end; ends it when there is none.
    void pair(viewer& post);
    /// Port of the socket that sends RTP over UDP, the next one sends RTCP; opened at first use, 0 when that failed.
    uint16_t udp_port();
    /// RTP over UDP of all viewers; open once udp_port() is.
    datagrams& datagrams_out() { return datagrams_; }
    int rtcp_socket() const { return rtcp_socket_; }
    /// A frame cut into packets, the same for all who are sent it now; null when memory is out. Good until the next
    /// call.
    rtp::Packets* packets_of(const av::frame_t& frame);
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
    void set_next_tick(uint64_t now);

    station& station_;
    const bool first_;
    std::vector<std::unique_ptr<viewer>> viewers_;
    net::command_ctx* tick_ = nullptr;
    net::timer_ctx* second_ = nullptr;
    frame_packets cut_;
    datagrams datagrams_;
    int rtp_socket_ = -1;
    int rtcp_socket_ = -1;
    net::socket_ctx* reports_ = nullptr;
    std::atomic<unsigned> taken_ = 0;
    counters counters_;
};

}  // namespace camera
