// One connection of a player and its RTSP session, on a network thread.
#pragma once

#include "clip.h"
#include "playback.h"

#include "avc/frame.h"
#include "core/buf.h"
#include "inet/net_thread.h"
#include "inet/rtsp_protocol.h"
#include "inet/sockaddr.h"

#include <cstdint>

namespace camera {

class worker;

/// Lives from the accepted connection until the worker deletes it, which it does once `finished()`. All on the worker's
/// thread.
class viewer final : public rtsp3::IRtsp {
public:
    /// Takes over the descriptor.
    viewer(worker& owner, int fd, const sockaddr_in& peer);
    ~viewer();
    viewer(const viewer&) = delete;
    viewer& operator=(const viewer&) = delete;

    /// The session could be made and the connection is open.
    bool finished() const { return finished_; }

    /// Once a second: drops a viewer that takes nothing.
    void watch();

    /// Sends the frames that are due: nothing before PLAY and after PAUSE or TEARDOWN.
    void advance(uint64_t now);

private:
    static void on_socket(void* arg, uint32_t events);
    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override;

    bool watching() const { return !finished_ && rtsp_->playing(); }
    void receive();
    void flush();
    void send(const av::frame_t& frame);
    bool fits(const av::frame_t& frame) const;
    void describe();
    void set_up();
    void play();
    bool over_udp() const { return rtsp_->protocol() == rtsp3::protocol_t::rtp_udp; }
    sockaddr_in player_port(unsigned offset) const;
    void send_packet();
    void send_report();
    void watch_writability(bool wanted);

    worker& owner_;
    int fd_;
    sockaddr_in peer_;
    rtsp3::Rtsp* rtsp_ = nullptr;
    net::socket_ctx* socket_ = nullptr;
    buf_t received_;
    const channel* channel_ = nullptr;
    playback playback_;
    unsigned stalled_ = 0;  ///< seconds in which nothing was taken of what waits
    bool took_ = false;     ///< something was, since the last second
    bool wait_for_key_ = false;
    bool writing_ = false;
    bool finished_ = false;
};

}  // namespace camera
