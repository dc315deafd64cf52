// One connection of a player and its RTSP session.
#pragma once

#include "rtsp_service/part.h"
#include "station/approach.h"
#include "station/whole_pictures.h"

#include "inet/net_tcp.h"
#include "inet/rtsp_protocol.h"

namespace media::rtsp {

/// RTSP over HTTP makes two of them: the GET end, which has the session, and the POST end, which feeds it.
class client_t final : public client, public rtsp3::IRtsp, public net::ITcp {
public:
    /// Takes over the connection, and the session when it has one already.
    client_t(part_t& owner, net::Tcp* connection, rtsp3::Rtsp* session) noexcept;
    ~client_t() override;
    /// Whether all that it needs could be had.
    bool complete() const noexcept { return complete_; }
    /// Reads what has come; the POST end of a tunnel that was handed over is joined.
    void begin() noexcept;

    uint64_t serve(uint64_t now) noexcept override;
    void second() noexcept override;
    void finish() noexcept override;
    bool finished() const noexcept override { return finished_; }
    bool idle() const noexcept override { return !finished_ && !partner_ && !rtsp_->playing(); }
    bool watching() const noexcept override { return !finished_ && rtsp_ && rtsp_->playing(); }
    /// An answer waits for what the stream brings.
    bool owes_answer() const noexcept { return describing_ || playing_since_; }

    /// A frame of the present. @param packets  null for a frame that makes none
    void deliver(const entry_t& entry, ::rtp::Packets* packets) noexcept;
    /// One of the past. @return false when something waits: on_tcp_writable() goes on
    bool show(const entry_t& entry) noexcept;
    bool join(uint64_t from) noexcept { return live_ && live_->add(*this, from); }
    void leave_out() noexcept { pictures_.leave_out(); }
    /// Tells what frames need that go straight to the system, when they may.
    void look(place_t& out) noexcept;
    /// The end of a picture that the system did not take. @param begun  it took the beginning
    void keep(buffer_t rest, bool begun) noexcept;
    /// A datagram that came to the RTCP socket. @return whether it is this client's
    bool take_report(const sockaddr_in& from, buffer_t report) noexcept;

private:
    void on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept override;
    void on_tcp_writable(net::Tcp* tcp) noexcept override;
    void on_tcp_closed(net::Tcp* tcp, int error) noexcept override;
    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override;

    // Conversation: conversation.cpp
    void describe() noexcept;
    void answer_describe(uint64_t now) noexcept;
    void announce() noexcept;
    void set_up() noexcept;
    void share(const rtsp3::trak_t& trak) noexcept;
    void play() noexcept;
    void answer_play(uint64_t now) noexcept;
    void tell_play(uint64_t first) noexcept;
    void count_sharing() noexcept;
    void leave_stream() noexcept;
    void await_news() noexcept;
    uint64_t next_look(uint64_t now) const noexcept;

    // Tunnel
    void find_get() noexcept;
    bool fits(const client_t& get) const noexcept;
    bool join() noexcept;
    void leave_to(thread& other) noexcept;
    static void on_handover(thread& on, void* arg) noexcept;

    // Frames
    void stop_playing() noexcept;
    void send(const entry_t& entry, ::rtp::Packets* packets) noexcept;
    const rtsp3::trak_t* trak_of(uint32_t fcc) const noexcept;
    bool send_packets(::rtp::Packets& packets, const rtsp3::trak_t& trak) noexcept;
    bool fits(const ::rtp::Packets& packets, const rtsp3::trak_t& trak) const noexcept;
    void flush() noexcept;
    sockaddr_in player_port(unsigned offset) const noexcept;
    void send_picture() noexcept;
    void send_report() noexcept;

    const rtsp_settings_t& settings() const noexcept { return owner_.of().settings(); }

    part_t& owner_;
    net::Tcp* tcp_;
    rtsp3::Rtsp* rtsp_;
    const sockaddr_in peer_;
    bool complete_ = false;
    bool finished_ = false;
    bool wants_partner_ = false;  ///< a POST end that was handed over with its session
    bool is_post_ = false;
    thread* leaving_to_ = nullptr;
    client_t* partner_ = nullptr;  ///< the other end of the tunnel

    stream* stream_ = nullptr;    ///< held
    uint64_t describing_ = 0;     ///< since when formats are waited for; 0 for not
    uint64_t playing_since_ = 0;  ///< since when the first frame is waited for; 0 for not
    bool begun_ = false;          ///< what is set up plays, or will with the next frame
    cursor wanting_;              ///< counts as a reader while nothing else does
    bool awaiting_ = false;       ///< it tells when there is something new
    approach approach_;
    live* live_ = nullptr;
    whole_pictures pictures_;

    group* shared_ = nullptr;                         ///< of the stream, with multicast; held
    bool sharing_ = false;                            ///< counted as one of its players
    ::rtp::trak_t shared_traks_[rtsp3::max_traks]{};  ///< what the session tells of the shared streams

    uint32_t activity_ = 0;
    unsigned silent_ = 0;   ///< seconds without activity
    uint64_t counted_ = 0;  ///< of Tcp::sent()
};

}  // namespace media::rtsp
