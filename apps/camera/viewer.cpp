#include "viewer.h"

#include "worker.h"

#include "core/memory.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace camera {
namespace {

constexpr uint32_t receive_size = 8 * 1024;

/// Seconds that a new connection has for its first request.
constexpr unsigned first_request = 10;

/// Of what waits for it a player takes so many bytes within the stall time, or all: less than this is no watching.
constexpr uint32_t least_progress = 64 * 1024;

/// Longer than the sender report that may follow a frame.
constexpr uint32_t report_room = 64;

}  // namespace

viewer::viewer(worker& owner, int fd, const sockaddr_in& peer, rtsp3::Rtsp* session)
    : owner_(owner), fd_(fd), peer_(peer), rtsp_(session ? session : rtsp3::Rtsp::create(CORE_HERE)) {
    finished_ = !rtsp_ || !core_buf_resize(&received_, receive_size, CORE_HERE);
    if (finished_) return;
    const options& settings = owner_.settings();
    rtsp_->set_handler(this);
    rtsp_->set_send_limit(settings.backlog);
    if (!session && !settings.user.empty()) {
        finished_ = !rtsp_->set_credentials(settings.user.c_str(), settings.password.c_str());
    }
    net::net_nt_socket_add(owner_.nt, socket_, fd_, net::nt_flag_read, this, &viewer::on_socket);
    if (!socket_) finished_ = true;
}

viewer::~viewer() {
    if (rtsp_) owner_.open_tunnels().remove(*this);
    if (sharing_) shared_->remove_viewer();
    if (partner_) partner_->partner_ = nullptr;
    net::net_nt_socket_rem(owner_.nt, socket_);
    if (fd_ >= 0) net_socket_close(fd_);
    rtsp3::Rtsp::destroy(rtsp_);
    core_buf_free(&received_);
}

void viewer::finish() {
    finished_ = true;
    if (partner_) partner_->finished_ = true;
}

void viewer::on_socket(void* arg, uint32_t events) {
    auto* self = static_cast<viewer*>(arg);
    if (events & net::nt_event_read) self->receive();
    self->serve();
    if (self->finished_) self->owner_.sweep();
}

void viewer::receive() {
    // Keep room when the session left something for want of memory; a full buffer then ends the connection.
    if (received_.length == received_.size) return finish();
    const int count = net_tcp_recv(fd_, received_);
    if (count == 0 || (count < 0 && socket_get_error_code() != socket_error_would_block)) return finish();
    rtsp_->process(&received_);
    if (!is_post_ || partner_ || finished_) return;
    // The GET end may be on another thread.
    worker* here = nullptr;
    const auto go = [&](worker& at) { &at == &owner_ ? static_cast<void>(here = &at) : leave_to(at); };
    const bool found = owner_.open_tunnels().find(rtsp_->tunnel_cookie(), peer_.sin_addr, go);
    if (here) here->pair(*this);
    if (!found) finish();
}

/// What follows input: answers go out, and what is due at once.
void viewer::serve() {
    if (rtsp_) flush();  // it may have left with its session
    if (partner_ && is_post_) return partner_->serve();
    if (finished_) return;
    count_sharing();
    advance(owner_.now());
}

bool viewer::fits(const viewer& get) const {
    const char* const cookie = rtsp_->tunnel_cookie();
    return &get != this && !get.finished_ && !get.is_post_ && !get.partner_ && get.rtsp_->tunnel_cookie() && cookie &&
           std::string_view(get.rtsp_->tunnel_cookie()) == cookie && get.peer_.sin_addr.s_addr == peer_.sin_addr.s_addr;
}

bool viewer::join(viewer& get) {
    is_post_ = true;
    partner_ = &get;
    get.partner_ = this;
    if (!rtsp_->join(get.rtsp_)) {
        partner_ = get.partner_ = nullptr;
        return false;
    }
    serve();  // what was held until now
    return true;
}

void viewer::leave_to(worker& other) {
    finish();
    if (received_.length) return;  // what the session had no memory for would be lost
    net::net_nt_socket_rem(owner_.nt, socket_);
    rtsp_->set_handler(nullptr);
    other.take(std::exchange(fd_, -1), peer_, std::exchange(rtsp_, nullptr));
}

void viewer::flush() {
    const buffer_t lent = rtsp_->lent();
    if (lent.size) {
        const int count = net_tcp_send_buffer(fd_, lent);
        if (!count_sent(count)) return;
        rtsp_->take_lent(static_cast<uint32_t>(count));
    }
    buf_t& waiting = *rtsp_->send_buffer();
    if (waiting.length && rtsp_->lent().size == 0) count_sent(net_tcp_send(fd_, waiting));
    watch_writability(waiting.length != 0);
}

/// @return whether something went; a connection that fails is finished, and what waits for it is gone
bool viewer::count_sent(int count) {
    if (count > 0) {
        owner_.count_sent(static_cast<uint64_t>(count));
        taken_ += static_cast<uint64_t>(count);
    } else if (count < 0 && socket_get_error_code() != socket_error_would_block) {
        finish();
        rtsp_->take_lent(rtsp_->lent().size);
        rtsp_->send_buffer()->length = 0;
    }
    return count > 0;
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
        pictures_.leave_out();
    }
    send_due(now);
}

void viewer::send_due(uint64_t now) {
    while (const av::frame_t* frame = watching() ? playback_.due(now) : nullptr) {
        // The past goes out as fast as the player takes it, each picture by itself.
        const bool past = !playback_.live();
        if (past && rtsp_->send_buffer()->length) return;
        playback_.take();
        send(*frame);
    }
}

void viewer::send(const av::frame_t& frame) {
    const rtsp3::trak_t* const trak = trak_of(frame);
    if (!trak || !trak->set_up || trak->shared) return;
    if (!pictures_.pass(frame, [&] { return send_packets(frame, *trak); })) owner_.count_dropped();
}

const rtsp3::trak_t* viewer::trak_of(const av::frame_t& frame) const {
    uint32_t index = 0;
    while (rtsp_->trak(index) && rtsp_->trak(index)->fcc != frame.fcc)
        ++index;
    return rtsp_->trak(index);
}

bool viewer::send_packets(const av::frame_t& frame, const rtsp3::trak_t& trak) {
    rtp::Packets* const packets = owner_.packets_of(frame);
    if (!packets || !fits(*packets, trak)) return false;
    const bool sent = rtsp_->send_packets(*packets) != 0;
    watch_writability(rtsp_->send_buffer()->length != 0);
    return sent;
}

/// A frame longer than all that may wait goes out when nothing waits.
bool viewer::fits(const rtp::Packets& packets, const rtsp3::trak_t& trak) const {
    if (trak.protocol != rtsp3::protocol_t::rtp_tcp) return owner_.datagrams_out().has_room(packets.count());
    const uint64_t waiting = rtsp_->send_buffer()->length;
    return waiting == 0 || waiting + packets.interleaved().size + report_room <= owner_.settings().backlog;
}

void viewer::watch() {
    if (finished_) return;
    uint32_t activity = rtsp_->activity();
    if (sharing_) activity += shared_->reports_from(peer_.sin_addr);
    silent_ = activity == activity_ ? silent_ + 1 : 0;
    activity_ = activity;
    // A POST end asks in the name of its GET end.
    const bool silent = !(is_post_ && partner_) && silent_ >= (activity ? owner_.settings().timeout : first_request);
    if (stalls() || silent) finish();
}

/// Whether next to nothing has been taken for too long of what waits.
bool viewer::stalls() {
    flush();  // the system tells that there is room again only when much of it is free
    const uint32_t waiting = rtsp_->send_buffer()->length;
    if (waiting == 0 || taken_ >= expected_) {
        expected_ = std::min(waiting, least_progress);
        taken_ = 0;
        stalled_ = 0;
        return false;
    }
    return ++stalled_ >= owner_.settings().stall;
}

bool viewer::take_report(const sockaddr_in& from, buffer_t report) {
    if (finished_ || from.sin_addr.s_addr != peer_.sin_addr.s_addr) return false;
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_->trak(i); ++i) {
        if (!trak->set_up || trak->protocol != rtsp3::protocol_t::rtp_udp) continue;
        if (net_addr_port(from) != trak->client_port + 1) continue;
        rtsp_->process_rtp(static_cast<unsigned short>(trak->channel + 1), report);
        return true;
    }
    return false;
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
        case e::rtsp_pause:
        case e::rtsp_stop:
            begun_ = false;
            break;
        case e::send_rtp:
            send_picture();
            break;
        case e::rtsp_rtcp:
            send_report();
            break;
        case e::rtsp_close:
            finish();
            break;
        case e::tunnel_get:
            owner_.open_tunnels().add(rtsp_->tunnel_cookie(), peer_.sin_addr, owner_, *this);
            break;
        case e::tunnel_post:
            is_post_ = true;  // joined when the running call is through
            break;
        case e::rtsp_send:
            // Answers go out when their input is served: that to the GET of a tunnel not before others can find it.
            if (rtsp_->lent().size) flush();
            break;
        default:
            break;
    }
    static_cast<void>(rtsp);
}

void viewer::describe() {
    const std::unique_ptr<net::uri_s, decltype(&uri_free)> uri(uri_parse(rtsp_->uri(), CORE_HERE), &uri_free);
    std::string_view path = uri && uri->path ? uri->path : "";
    while (path.ends_with('/'))
        path.remove_suffix(1);
    count_sharing();  // the tracks are gone
    shared_ = nullptr;
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
    begun_ = false;
    const rtsp3::trak_t& trak = *rtsp_->trak();
    if (trak.protocol == rtsp3::protocol_t::rtp_multicast) return share(trak);
    const bool udp = trak.protocol == rtsp3::protocol_t::rtp_udp;
    const uint16_t port = udp ? owner_.udp_port() : 0;
    if (udp && !port) {
        rtsp_->send_error(500);
    } else {
        rtsp_->send_setup(nullptr, port);
    }
}

uint32_t viewer::index_of(const rtsp3::trak_t& trak) const {
    uint32_t index = 0;
    while (rtsp_->trak(index) != &trak)
        ++index;
    return index;
}

void viewer::share(const rtsp3::trak_t& trak) {
    shared_ = owner_.shared_streams().find(*channel_);
    const uint32_t index = index_of(trak);
    if (shared_) rtsp_->share_stream(&shared_traks_[index]);
    rtsp_->send_setup(shared_ ? owner_.settings().multicast.c_str() : nullptr, shared_ ? shared_->port(index) : 0);
}

/// Keeps the count of those who watch the shared streams.
void viewer::count_sharing() {
    bool wanted = false;
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_->trak(i); ++i)
        wanted = wanted || (watching() && trak->set_up && trak->shared);
    if (wanted == sharing_) return;
    sharing_ = wanted;
    if (wanted) {
        shared_->add_viewer();
    } else {
        shared_->remove_viewer();
    }
}

void viewer::play() {
    // To what plays already it is a sign of life (RFC 2326, 10.5).
    if (!begun_) {
        playback_.begin(*channel_, owner_.settings().start, owner_.base(), owner_.now());
        pictures_.begin();
        owner_.tick();
    }
    uint64_t first = playback_.time_of_next();
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_->trak(i); ++i) {
        if (!trak->shared) continue;
        shared_traks_[i].seq = shared_->next_seq(i);
        if (shared_->next_time()) first = shared_->next_time();
    }
    begun_ = rtsp_->send_play(first) != 0;
}

sockaddr_in viewer::player_port(unsigned offset) const {
    sockaddr_in to = peer_;
    to.sin_port = htons(static_cast<uint16_t>(rtsp_->trak()->client_port + offset));
    return to;
}

void viewer::send_picture() {
    rtp::Packets& packets = *rtsp_->rtp()->cut;
    owner_.datagrams_out().send(packets.datagrams(player_port(0)), packets.count());
    owner_.count_sent(packets.size());
}

void viewer::send_report() {
    const buf_t& packet = rtsp_->rtp()->packet;
    buffer_t bytes{packet.data, packet.length};
    sockaddr_in to = player_port(1);
    const int count = net_udp_send_buffer(owner_.rtcp_socket(), &bytes, &to);
    if (count > 0) owner_.count_sent(static_cast<uint64_t>(count));
}

}  // namespace camera
