// An attempt to fetch over RTSP.
#pragma once

#include "watcher/attempt.h"
#include "watcher/receipt.h"

#include "inet/net_tcp.h"
#include "inet/rtp_port.h"
#include "inet/rtsp_protocol.h"

#include <array>

namespace media::fetch {

/// It is waited for as long as the order says: for the connection and all answers up to PLAY together, then for each
/// packet.
class rtsp_attempt final : public attempt, rtsp3::IRtsp, net::ITcp, rtp::IPort {
public:
    rtsp_attempt(const order_t& wanted, attempt_owner& owner) noexcept;
    ~rtsp_attempt() override;
    rtsp_attempt(const rtsp_attempt&) = delete;
    rtsp_attempt& operator=(const rtsp_attempt&) = delete;

    void start() noexcept override;
    uint64_t tick(uint64_t now) noexcept override;
    void leave(const ending_t& result) noexcept override;

    bool has_ended() const noexcept override { return stage_ == stage_t::ended; }
    const ending_t& result() const noexcept override { return result_; }
    bool wants_tcp() const noexcept override { return wants_tcp_; }
    const char* moved_to() const noexcept override { return moved_to_.get(); }
    size_t counts(std::span<track_counts_t> out) const noexcept override;

private:
    enum class stage_t : uint8_t { connecting, asking, playing, leaving, ended };

    /// A track that was set up.
    struct track_t {
        const rtsp3::trak_t* source = nullptr;
        receipt received;
        held<rtp::Port> port;  ///< over UDP
        uint32_t place = 0;    ///< among those that were set up
        bool first = false;    ///< of its format
    };

    /// What has come so far.
    struct pulse_t {
        uint64_t packets = 0;
        bool at_rest = true;  ///< nothing is known to be unfinished
        bool media = false;   ///< there are tracks on which something always comes
        bool over = true;     ///< the source said of all of these that nothing follows
    };

    void on_tcp_connected(net::Tcp* tcp) noexcept override;
    void on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept override;
    void on_tcp_writable(net::Tcp* tcp) noexcept override;
    void on_tcp_closed(net::Tcp* tcp, int error) noexcept override;
    void on_rtp_packet(rtp::Port* port, buffer_t packet, bool restarted) noexcept override;
    void on_rtcp_packet(rtp::Port* port, buffer_t packet) noexcept override;
    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override;

    void connect() noexcept;
    bool open(held<net::Tcp>& tcp) noexcept;
    ending_t no_connection(int error) const noexcept;
    void end(const ending_t& result) noexcept;
    void send() noexcept;

    void select_tracks() noexcept;
    void note_unknown(const rtsp3::trak_t& source) noexcept;
    void set_up() noexcept;
    void make_ready() noexcept;
    void note_tracks() noexcept;
    void play() noexcept;
    void take_frame() noexcept;
    void take_error() noexcept;
    void send_report() noexcept;

    pulse_t feel() const noexcept;
    void watch_media(uint64_t now) noexcept;
    void keep_alive(uint64_t now) noexcept;
    void fall_back(const char* why) noexcept;
    bool is_complete() const noexcept;
    void count_from_picture(track_t& taken, bool begins, int64_t media_time) noexcept;
    bool waits_for_picture() const noexcept;
    bool make_port(track_t& track, const rtsp3::trak_t& source) noexcept;
    track_t& track_of(const rtsp3::trak_t* source) noexcept;
    track_t& track_of(const rtp::Port* port) noexcept;

    order_t wanted_;
    attempt_owner& owner_;
    held<rtsp3::Rtsp> rtsp_;
    held<net::Tcp> main_;
    held<net::Tcp> post_;                             ///< of a tunnel
    std::array<track_t, rtsp3::max_traks> tracks_{};  ///< as in the session

    stage_t stage_ = stage_t::connecting;
    ending_t result_;
    ending_t refused_track_;  ///< of the first track that cannot be set up
    bool wants_tcp_ = false;
    core::owned_text moved_to_;
    uint64_t deadline_ = 0;   ///< of the stage, by core_timer()
    uint64_t play_time_ = 0;  ///< wall clock of PLAY
    uint64_t played_ = 0;     ///< the same by core_timer()
    uint64_t last_packet_ = 0;
    uint64_t packets_ = 0;
    uint64_t kept_alive_ = 0;
    bool flushed_ = false;
    std::array<track_counts_t, rtsp3::max_traks> last_counts_{};  ///< once it has ended: the tracks may be gone
    size_t last_count_ = 0;
};

}  // namespace media::fetch
