// One connection of a player and its RTSP session, on a network thread.
#pragma once

#include "clip.h"
#include "multicast.h"
#include "playback.h"
#include "whole_pictures.h"

#include "avc/frame.h"
#include "core/buf.h"
#include "inet/net_thread.h"
#include "inet/rtsp_protocol.h"
#include "inet/sockaddr.h"

#include <cstdint>

namespace camera {

class worker;

/// Lives from the accepted connection until the worker deletes it, which it does once `finished()`. All on the worker's
/// thread. RTSP over HTTP makes two of them: the GET end, which is the session, and the POST end, which feeds it.
class viewer final : public rtsp3::IRtsp {
public:
    /// Takes over the descriptor, and the session when the connection has one already.
    viewer(worker& owner, int fd, const sockaddr_in& peer, rtsp3::Rtsp* session);
    ~viewer();
    viewer(const viewer&) = delete;
    viewer& operator=(const viewer&) = delete;

    /// The connection is to be closed.
    bool finished() const { return finished_; }
    /// Closes it as soon as no callback of it runs, and the other end of its tunnel with it.
    void finish();
    /// It is sent media,
    bool watching() const { return !finished_ && rtsp_->playing(); }
    /// and has not come up to the present yet.
    bool coming_up() const { return watching() && !playback_.live(); }
    /// It is served nothing, nor is it part of a tunnel.
    bool idle() const { return !finished_ && !partner_ && !rtsp_->playing(); }

    /// Whether `get` is the GET end of this POST end.
    bool fits(const viewer& get) const;
    bool join(viewer& get);

    /// Once a second: ends a connection that takes nothing or asks for nothing.
    void watch();

    /// Sends the frames that are due: nothing before PLAY and after PAUSE or TEARDOWN.
    void advance(uint64_t now);

    /// A datagram that came to the RTCP socket. @return whether it is this viewer's
    bool take_report(const sockaddr_in& from, buffer_t report);

private:
    static void on_socket(void* arg, uint32_t events);
    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override;

    void receive();
    void serve();
    void leave_to(worker& other);
    void flush();
    bool count_sent(int count);
    void send_due(uint64_t now);
    void send(const av::frame_t& frame);
    const rtsp3::trak_t* trak_of(const av::frame_t& frame) const;
    bool send_packets(const av::frame_t& frame, const rtsp3::trak_t& trak);
    bool fits(const rtp::Packets& packets, const rtsp3::trak_t& trak) const;
    bool stalls();
    void describe();
    void set_up();
    void play();
    sockaddr_in player_port(unsigned offset) const;
    void send_picture();
    void send_report();
    uint32_t index_of(const rtsp3::trak_t& trak) const;
    void share(const rtsp3::trak_t& trak);
    void count_sharing();
    void watch_writability(bool wanted);

    worker& owner_;
    int fd_;
    sockaddr_in peer_;
    rtsp3::Rtsp* rtsp_ = nullptr;
    net::socket_ctx* socket_ = nullptr;
    buf_t received_;
    const channel* channel_ = nullptr;
    playback playback_;
    bool begun_ = false;         ///< what is set up plays, or will with the next frame
    viewer* partner_ = nullptr;  ///< the other end of the tunnel
    bool is_post_ = false;

    shared_channel* shared_ = nullptr;              ///< of the channel, with multicast
    bool sharing_ = false;                          ///< counted as one of its viewers
    rtp::trak_t shared_traks_[rtsp3::max_traks]{};  ///< what the session tells of the shared streams

    uint32_t activity_ = 0;
    unsigned silent_ = 0;   ///< seconds without activity
    unsigned stalled_ = 0;  ///< seconds for which `expected_` bytes were not taken
    uint32_t expected_ = 0;
    uint64_t taken_ = 0;
    whole_pictures pictures_;
    bool writing_ = false;
    bool finished_ = false;
};

}  // namespace camera
