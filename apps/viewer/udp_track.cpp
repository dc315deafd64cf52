#include "udp_track.h"

#include "core/memory.h"
#include "core/time.h"

#include <algorithm>
#include <string_view>

namespace viewer {
namespace {

constexpr int system_buffer = 1 << 20;
/// Batches taken at a time before others get their turn.
constexpr int most_at_once = 16;

}  // namespace

udp_track::udp_track(net::nt_ctx* nt, rtsp3::Rtsp& rtsp, const rtsp3::trak_t& track, const sockaddr_in& server)
    : nt_(nt), rtsp_(rtsp), track_(track), server_(server) {}

udp_track::~udp_track() {
    stop();
    for (const int fd : {rtp_fd_, rtcp_fd_}) {
        if (fd >= 0) net_socket_close(fd);
    }
    rtp::Reorder::destroy(reorder_);
    core_buf_free(&room_);
}

bool udp_track::open() { return socket_rtp_pair(&rtp_fd_, &rtcp_fd_) == 1 && listen(); }

bool udp_track::join(const sockaddr_in& local_address) {
    if (!track_.server_port) return false;
    char local[net_addr_size];
    net_addr_ip(local_address, local, sizeof local);
    uint16_t port = track_.server_port;
    for (int* fd : {&rtp_fd_, &rtcp_fd_}) {
        *fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
        if (*fd < 0 || net_udp_listen(*fd, nullptr, port++) != 0) return false;
        if (!socket_joinGroup(*fd, track_.destination.get(), local)) return false;
    }
    return listen();
}

bool udp_track::listen() {
    reorder_ = rtp::Reorder::create({}, &udp_track::on_ordered, this, CORE_HERE);
    // Only what datagrams fill is touched.
    if (!reorder_ || !core_buf_resize(&room_, batch * largest_datagram, CORE_HERE)) return false;
    for (uint32_t i = 0; i < batch; ++i)
        datagrams_[i].bytes = {room_.data + size_t{i} * largest_datagram, largest_datagram, 0};
    net_socket_set_size(rtp_fd_, system_buffer, 0);
    net::net_nt_socket_add(nt_, rtp_socket_, rtp_fd_, net::nt_flag_read, this, &udp_track::on_rtp);
    net::net_nt_socket_add(nt_, rtcp_socket_, rtcp_fd_, net::nt_flag_read, this, &udp_track::on_rtcp);
    return rtp_socket_ && rtcp_socket_;
}

uint16_t udp_track::port() const { return net_socket_get_near_port(rtp_fd_); }

void udp_track::stop() {
    net::net_nt_socket_rem(nt_, rtp_socket_);
    net::net_nt_socket_rem(nt_, rtcp_socket_);
}

void udp_track::expire(uint64_t now) {
    if (rtp_socket_) reorder_->expire(now);
}

/// Takes the datagrams of the server, until there is none or stop() was called.
template <class Take>
void udp_track::receive(net::socket_ctx* const& on, Take take) {
    for (int round = 0; on && round < most_at_once; ++round) {
        const int count = net_udp_recv_batch(on->fd, datagrams_.data(), batch);
        for (int i = 0; on && i < count; ++i) {
            const received_t& each = datagrams_[static_cast<size_t>(i)];
            if (is_server(each.from)) take(buffer_t{each.bytes.data, each.bytes.length});
        }
        if (count < static_cast<int>(batch)) return;
    }
}

bool udp_track::is_server(const sockaddr_in& from) const {
    if (from.sin_addr.s_addr == server_.sin_addr.s_addr) return true;
    char text[net_addr_size];
    net_addr_ip(from, text, sizeof text);
    return track_.source && std::string_view(track_.source.get()) == text;
}

void udp_track::on_rtp(void* arg, uint32_t) {
    auto* self = static_cast<udp_track*>(arg);
    const uint64_t now = core_timer();
    self->receive(self->rtp_socket_, [&](buffer_t packet) { self->reorder_->push(packet, now); });
}

void udp_track::on_rtcp(void* arg, uint32_t) {
    auto* self = static_cast<udp_track*>(arg);
    const auto channel = static_cast<unsigned short>(self->track_.channel + 1);
    self->receive(self->rtcp_socket_, [&](buffer_t report) { self->rtsp_.process_rtp(channel, report); });
}

void udp_track::on_ordered(void* arg, buffer_t packet) {
    auto* self = static_cast<udp_track*>(arg);
    if (!self->rtp_socket_) return;
    // The sender has started anew: its numbers are taken as they come.
    if (self->reorder_->counts().restarts != self->restarts_) self->track_.rtp->seq = 0;
    self->restarts_ = self->reorder_->counts().restarts;
    self->rtsp_.process_rtp(self->track_.channel, packet);
}

void udp_track::send_report(const buf_t& packet) {
    if (!track_.server_port || track_.protocol == rtsp3::protocol_t::rtp_multicast) return;
    sockaddr_in to = server_;
    to.sin_port = htons(static_cast<uint16_t>(track_.server_port + 1));
    buffer_t bytes{packet.data, packet.length};
    net_udp_send_buffer(rtcp_fd_, &bytes, &to);
}

}  // namespace viewer
