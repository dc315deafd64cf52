// RTP over UDP multicast: one stream for each track, sent once for all who watch.
#pragma once

#include "clip.h"
#include "datagrams.h"
#include "frame_packets.h"
#include "options.h"
#include "playback.h"
#include "whole_pictures.h"

#include "inet/net_thread.h"
#include "inet/rtp_protocol.h"
#include "inet/sockaddr.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace camera {

class worker;

/// The streams of a channel. They begin with a key picture when the first viewer comes, and rest when the last is gone.
class shared_channel final : private rtp::IRtp {
public:
    /// @param group  the port for RTP of the first track; the next one is that for RTCP, and so on
    shared_channel(worker& sender, const channel& played, sockaddr_in group, datagrams& packets, int socket);
    ~shared_channel() { rtp::Rtp::destroy(rtp_); }
    shared_channel(const shared_channel&) = delete;
    shared_channel& operator=(const shared_channel&) = delete;

    // From any thread

    const channel* played() const { return &played_; }
    void add_viewer();
    void remove_viewer() { --viewers_; }
    uint16_t port(size_t track) const { return static_cast<uint16_t>(first_port_ + 2 * track); }
    /// Sequence number of the next packet.
    uint16_t next_seq(size_t track) const { return next_seq_[track]; }
    /// Time of the next frame; 0 while the streams rest.
    uint64_t next_time() const { return next_time_; }

    bool watched() const { return viewers_ != 0; }

    /// Changes when a host reported that it receives the streams, or rarely when another did.
    uint32_t reports_from(in_addr host) const { return reports_[place_of(host)]; }

    // On the thread that sends

    /// Watched, and not come up to the present yet.
    bool coming_up() const { return watched() && !playback_.live(); }
    /// A datagram came to the group's port for RTCP.
    void take_report(in_addr from, buffer_t report);
    /// Sends what is due. @return the bytes
    uint64_t advance(start_t start, uint64_t base, uint64_t now);

private:
    static constexpr size_t places = 1024;
    static size_t place_of(in_addr host) { return ntohl(host.s_addr) * 2654435761u >> 22; }

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override;
    void add_tracks();
    void begin(start_t start, uint64_t base, uint64_t now);
    bool send(const av::frame_t& frame);
    void publish(uint64_t next_time);

    worker& sender_;
    const channel& played_;
    datagrams& datagrams_;
    frame_packets cut_;
    const int socket_;
    sockaddr_in group_;
    const uint16_t first_port_;
    rtp::Rtp* rtp_;
    playback playback_;
    whole_pictures pictures_;
    bool resting_ = true;
    uint64_t sent_ = 0;
    std::atomic<unsigned> viewers_ = 0;
    std::atomic<uint64_t> next_time_ = 0;
    std::vector<std::atomic<uint16_t>> next_seq_;
    std::array<std::atomic<uint32_t>, places> reports_{};  ///< received, by host
};

/// All of them, on one network thread.
class multicast {
public:
    multicast() = default;
    ~multicast() { stop(); }
    multicast(const multicast&) = delete;
    multicast& operator=(const multicast&) = delete;

    /// Opens the socket, on the interface that the camera is bound to. Before viewers come.
    /// @return false with the reason in `error`
    bool start(worker& sender, const clip& played, const options& settings, std::string& error);
    /// After the thread has stopped and all viewers are gone.
    void stop();

    /// The streams of a channel; null without multicast. Any thread.
    shared_channel* find(const channel& played) const;
    /// Whether anybody watches. Any thread.
    bool watched() const;
    /// On the thread: whether one of them has not come up to the present yet.
    bool coming_up() const;
    /// On the thread: sends what is due. @return the bytes
    uint64_t advance(const options& settings, uint64_t base, uint64_t now);

private:
    /// A group's port for RTCP, where the viewers' reports come.
    struct report_port {
        shared_channel& of;
        int fd;
        net::socket_ctx* socket;
    };

    static void on_report(void* arg, uint32_t events);
    void listen_for_reports(net::Thread& thread, shared_channel& streams, const options& settings);

    int socket_ = -1;
    datagrams datagrams_;
    std::vector<std::unique_ptr<report_port>> reports_;
    std::vector<std::unique_ptr<shared_channel>> channels_;
};

}  // namespace camera
