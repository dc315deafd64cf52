// The UDP side of a received track: a port for RTP, one for RTCP, and packets put back into order.
#pragma once

#include "core/buf.h"
#include "inet/net_socket.h"
#include "inet/net_thread.h"
#include "inet/rtp_reorder.h"
#include "inet/rtsp_protocol.h"
#include "inet/sockaddr.h"

#include <array>
#include <cstdint>

namespace viewer {

/// All on the network thread. Holds the packets of one reorder window and one batch of datagrams, 1 MiB at most.
class udp_track {
public:
    /// Received packets go into `rtsp`, those of any other address than the server's are dropped.
    /// @param track  is its track
    udp_track(net::nt_ctx* nt, rtsp3::Rtsp& rtsp, const rtsp3::trak_t& track, const sockaddr_in& server);
    ~udp_track();
    udp_track(const udp_track&) = delete;
    udp_track& operator=(const udp_track&) = delete;

    /// Opens a pair of ports. @return false when there is none.
    bool open();
    /// Joins the group that the server named, on the interface of `local_address`. @return false when it cannot be.
    bool join(const sockaddr_in& local_address);
    uint16_t port() const;

    /// Sends a report to the server. Viewers of a group do not report: all would get the reports of all.
    void send_report(const buf_t& packet);
    /// Gives up what has been waited for too long.
    void expire(uint64_t now);
    /// Takes nothing any more, also not the rest of what is being taken: the track may go.
    void stop();

private:
    static void on_rtp(void* arg, uint32_t events);
    static void on_rtcp(void* arg, uint32_t events);
    static void on_ordered(void* arg, buffer_t packet);
    bool listen();
    template <class Take>
    void receive(net::socket_ctx* const& on, Take take);
    bool is_server(const sockaddr_in& from) const;

    net::nt_ctx* nt_;
    rtsp3::Rtsp& rtsp_;
    const rtsp3::trak_t& track_;
    sockaddr_in server_;
    int rtp_fd_ = -1;
    int rtcp_fd_ = -1;
    net::socket_ctx* rtp_socket_ = nullptr;
    net::socket_ctx* rtcp_socket_ = nullptr;
    rtp::Reorder* reorder_ = nullptr;
    uint32_t restarts_ = 0;
    static constexpr uint32_t batch = 16;
    static constexpr uint32_t largest_datagram = 64 * 1024;
    buf_t room_;
    std::array<received_t, batch> datagrams_{};
};

}  // namespace viewer
