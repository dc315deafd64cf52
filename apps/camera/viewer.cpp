#include "viewer.h"

#include "worker.h"

#include "avc/fcc.h"
#include "core/memory.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "inet/net_uri.h"

#include <memory>
#include <string_view>

namespace camera {
namespace {

constexpr uint32_t receive_size = 8 * 1024;

/// More than the headers of the packets of a frame, with its report.
constexpr uint32_t packet_overhead(uint32_t frame_size) { return frame_size / 32 + 2 * rtp::packet_size; }

}  // namespace

viewer::viewer(worker& owner, int fd, const sockaddr_in& peer) : owner_(owner), fd_(fd), peer_(peer) {
    rtsp_ = rtsp3::Rtsp::create(CORE_HERE);
    if (!rtsp_ || !core_buf_resize(&received_, receive_size, CORE_HERE)) {
        finished_ = true;
        return;
    }
    rtsp_->set_handler(this);
    const options& settings = owner_.settings();
    rtsp_->set_send_limit(settings.backlog);
    if (!settings.user.empty() && !rtsp_->set_credentials(settings.user.c_str(), settings.password.c_str())) {
        finished_ = true;
    }
    net::net_nt_socket_add(owner_.nt, socket_, fd_, net::nt_flag_read, this, &viewer::on_socket);
    if (!socket_) finished_ = true;
}

viewer::~viewer() {
    net::net_nt_socket_rem(owner_.nt, socket_);
    net_socket_close(fd_);
    rtsp3::Rtsp::destroy(rtsp_);
    core_buf_free(&received_);
}

void viewer::on_socket(void* arg, uint32_t events) {
    auto* self = static_cast<viewer*>(arg);
    if (events & net::nt_event_read) self->receive();
    if (events & net::nt_event_write) self->flush();
    self->advance(time_now());
    if (self->finished_) self->owner_.sweep();
}

void viewer::receive() {
    // Keep room when the session left something for want of memory; a full buffer then ends the connection.
    if (received_.length == received_.size) {
        finished_ = true;
        return;
    }
    const int count = net_tcp_recv(fd_, received_);
    if (count == 0 || (count < 0 && socket_get_error_code() != socket_error_would_block)) {
        finished_ = true;
        return;
    }
    rtsp_->process(&received_);
    flush();
}

void viewer::flush() {
    buf_t& waiting = *rtsp_->send_buffer();
    if (waiting.length) {
        const int count = net_tcp_send(fd_, waiting);
        if (count > 0) owner_.count_sent(static_cast<uint64_t>(count));
        took_ = took_ || count > 0;
        if (count < 0 && socket_get_error_code() != socket_error_would_block) {
            finished_ = true;
            waiting.length = 0;
        }
    }
    watch_writability(waiting.length != 0);
}

void viewer::watch_writability(bool wanted) {
    if (writing_ == wanted) return;
    writing_ = wanted;
    net::net_nt_socket_set(owner_.nt, socket_, 1, wanted);
}

void viewer::advance(uint64_t now) {
    if (!watching()) return;
    if (playback_.lost_touch(now)) {
        playback_.skip(now);
        wait_for_key_ = true;
    }
    while (const av::frame_t* frame = playback_.due(now)) {
        // The past goes out as fast as the player takes it, each picture by itself.
        const bool past = !playback_.live();
        if (past && rtsp_->send_buffer()->length) return;
        playback_.take();
        send(*frame);
        if (past) flush();
    }
    flush();
}

/// Sends a frame, or leaves it out when the player does not keep up: whole pictures only, up to the next key picture.
void viewer::send(const av::frame_t& frame) {
    const bool picture = fcc_is_video(frame.fcc) != 0;
    if (picture && frame.key) wait_for_key_ = false;
    if (!fits(frame) || (picture && wait_for_key_)) {
        // The pictures up to the next key picture build on the one that is left out.
        if (picture) {
            wait_for_key_ = true;
            owner_.count_dropped();
        }
        return;
    }
    if (over_udp()) rtsp_->set_packet_room(owner_.packets().room());
    rtsp_->send_frame(&frame);
}

/// A frame longer than all that may wait goes out when nothing waits.
bool viewer::fits(const av::frame_t& frame) const {
    if (over_udp()) return owner_.packets().has_room(frame.size);
    const uint64_t waiting = rtsp_->send_buffer()->length;
    return waiting == 0 || waiting + frame.size + packet_overhead(frame.size) <= owner_.settings().backlog;
}

void viewer::watch() {
    stalled_ = took_ || rtsp_->send_buffer()->length == 0 ? 0 : stalled_ + 1;
    took_ = false;
    if (stalled_ >= owner_.settings().stall) finished_ = true;
}

void viewer::on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept {
    using e = rtsp3::event_t;
    switch (event) {
        case e::open_server:
            describe();
            break;
        case e::rtsp_setup:
            set_up();
            break;
        case e::rtsp_play:
            play();
            break;
        case e::send_rtp:
            send_packet();
            break;
        case e::rtsp_rtcp:
            send_report();
            break;
        case e::rtsp_close:
            finished_ = true;
            break;
        default:
            break;  // rtsp_send: flush() follows each input and each picture
    }
    static_cast<void>(rtsp);
}

void viewer::describe() {
    const std::unique_ptr<net::uri_s, decltype(&uri_free)> uri(uri_parse(rtsp_->uri(), CORE_HERE), &uri_free);
    std::string_view path = uri && uri->path ? uri->path : "";
    while (path.ends_with('/'))
        path.remove_suffix(1);
    channel_ = owner_.find_channel(path);
    if (!channel_) {
        rtsp_->send_error(404);
        return;
    }
    for (const track& each : channel_->tracks)
        rtsp_->add_trak(each.fcc(), channel_->path.c_str(), CORE_HERE);
    rtsp_->send_sdp("inet", "camera", channel_->path.c_str(), 0, 0);
}

void viewer::set_up() {
    if (rtsp_->trak()->protocol != rtsp3::protocol_t::rtp_udp) {
        rtsp_->send_setup(nullptr, 0);
        return;
    }
    const uint16_t port = owner_.udp_port();
    if (port) {
        rtsp_->send_setup(nullptr, port);
    } else {
        rtsp_->send_error(500);
    }
}

void viewer::play() {
    playback_.begin(*channel_, owner_.settings().start, owner_.base(), time_now());
    wait_for_key_ = false;
    rtsp_->send_play(playback_.start_time());
}

sockaddr_in viewer::player_port(unsigned offset) const {
    sockaddr_in to = peer_;
    to.sin_port = htons(static_cast<uint16_t>(rtsp_->trak()->client_port + offset));
    return to;
}

void viewer::send_packet() {
    const uint32_t size = rtsp_->rtp()->packet.length;
    owner_.packets().add(size, player_port(0));
    owner_.count_sent(size);
    rtsp_->set_packet_room(owner_.packets().room());
}

void viewer::send_report() {
    const buf_t& packet = rtsp_->rtp()->packet;
    buffer_t bytes{packet.data, packet.length};
    sockaddr_in to = player_port(1);
    const int count = net_udp_send_buffer(owner_.rtcp_socket(), &bytes, &to);
    if (count > 0) owner_.count_sent(static_cast<uint64_t>(count));
}

}  // namespace camera
