#include "multicast.h"

#include "worker.h"

#include "common/digest.h"
#include "core/memory.h"
#include "inet/net_socket.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <new>
#include <utility>

namespace camera {
namespace {

constexpr uint32_t longest_report = 1500;
constexpr int reports_at_once = 64;

}  // namespace

shared_channel::shared_channel(worker& sender, const channel& played, sockaddr_in group, datagrams& packets, int socket)
    : sender_(sender),
      played_(played),
      datagrams_(packets),
      socket_(socket),
      group_(group),
      first_port_(net_addr_port(group)),
      rtp_(rtp::Rtp::create(CORE_HERE)),
      next_seq_(played.tracks.size()) {
    if (!rtp_) throw std::bad_alloc();
    rtp_->set_handler(this);
    rtp_->set_report_clock(rtp::report_clock_t::packets);
    add_tracks();
    publish(0);
}

/// Payload types and clocks are those that sessions announce.
void shared_channel::add_tracks() {
    const std::unique_ptr<rtsp3::Rtsp, decltype(&rtsp3::Rtsp::destroy)> session(rtsp3::Rtsp::create(CORE_HERE),
                                                                                &rtsp3::Rtsp::destroy);
    for (const track& each : played_.tracks) {
        const rtsp3::trak_t* announced = session ? session->add_trak(each.fcc(), nullptr, CORE_HERE) : nullptr;
        rtp::trak_t* added = announced ? rtp_->add_trak(announced->rtp->pt, each.fcc()) : nullptr;
        if (!added) throw std::bad_alloc();
        added->clock_rate = announced->rtp->clock_rate;
        common_random(&added->ssrc, sizeof added->ssrc);
        common_random(&added->seq, sizeof added->seq);
        added->active = 1;
    }
}

/// The first packets bring a report, as a player that comes now knows none.
void shared_channel::begin(start_t start, uint64_t base, uint64_t now) {
    playback_.begin(played_, start, base, now);
    pictures_.begin();
    for (size_t i = 0; i < next_seq_.size(); ++i)
        rtp_->traks[i]->next_rtcp = 0;
}

void shared_channel::add_viewer() {
    ++viewers_;
    sender_.tick();
}

uint64_t shared_channel::advance(start_t start, uint64_t base, uint64_t now) {
    if (viewers_ == 0) {
        resting_ = true;
        publish(0);
        return 0;
    }
    if (std::exchange(resting_, false)) begin(start, base, now);
    if (playback_.lost_touch(now)) {
        playback_.skip(now);
        pictures_.leave_out();
    }
    sent_ = 0;
    while (const av::frame_t* frame = playback_.due(now)) {
        playback_.take();
        if (!pictures_.pass(*frame, [&] { return send(*frame); })) sender_.count_dropped();
    }
    publish(playback_.time_of_next());
    return sent_;
}

bool shared_channel::send(const av::frame_t& frame) {
    rtp::Packets* packets = cut_.of(frame);
    if (!packets || !datagrams_.has_room(packets->count())) return false;
    rtp_->pack(*packets);
    return true;
}

/// Our own sender reports come back from the group.
void shared_channel::take_report(in_addr from, buffer_t report) {
    constexpr uint8_t receiver_report = 201;  // RFC 3550, 6.4.2
    if (report.size >= 8 && report.data[0] >> 6 == 2 && report.data[1] == receiver_report) ++reports_[place_of(from)];
}

void shared_channel::publish(uint64_t next_time) {
    for (size_t i = 0; i < next_seq_.size(); ++i)
        next_seq_[i] = rtp_->traks[i]->seq;
    next_time_ = next_time;
}

void shared_channel::on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept {
    const auto index = std::find(rtp->traks, rtp->traks + next_seq_.size(), rtp->current) - rtp->traks;
    const bool report = event == rtp::event_t::rtcp;
    group_.sin_port = htons(static_cast<uint16_t>(port(static_cast<size_t>(index)) + (report ? 1 : 0)));
    if (report) {
        buffer_t bytes{rtp->packet.data, rtp->packet.length};
        net_udp_send_buffer(socket_, &bytes, &group_);
        sent_ += bytes.size;
    } else {
        datagrams_.send(rtp->cut->datagrams(group_), rtp->cut->count());
        sent_ += rtp->cut->size();
    }
}

bool multicast::start(worker& sender, const clip& played, const options& settings, std::string& error) {
    sockaddr_in group{};
    net_addr_setup(group, settings.multicast.c_str(), settings.multicast_port);
    socket_ = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
    const bool ready = socket_ >= 0 && socket_multicastInterface(socket_, settings.bind.c_str()) &&
                       net_socket_bind(socket_, settings.bind.c_str(), 0) == 0 && datagrams_.open(sender, socket_);
    if (!ready) {
        error = "cannot send to " + settings.multicast + " from " + settings.bind;
        return false;
    }
    socket_multicastTTL(socket_, settings.ttl);
    for (const channel& each : played.channels) {
        channels_.push_back(std::make_unique<shared_channel>(sender, each, group, datagrams_, socket_));
        listen_for_reports(sender, *channels_.back(), settings);
        group.sin_port = htons(channels_.back()->port(each.tracks.size()));
    }
    return true;
}

/// Without them only requests keep the sessions of viewers alive.
void multicast::listen_for_reports(net::Thread& thread, shared_channel& streams, const options& settings) {
    for (size_t i = 0; i < streams.played()->tracks.size(); ++i) {
        const int fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
        if (fd < 0) continue;
        auto made = std::make_unique<report_port>(report_port{streams, fd, nullptr});
        const auto port = static_cast<unsigned short>(streams.port(i) + 1);
        if (net_udp_listen(fd, nullptr, port) == 0 &&
            socket_joinGroup(fd, settings.multicast.c_str(), settings.bind.c_str())) {
            net::net_nt_socket_add(thread.nt, made->socket, fd, net::nt_flag_read, made.get(), &multicast::on_report);
        }
        reports_.push_back(std::move(made));
    }
}

void multicast::on_report(void* arg, uint32_t) {
    auto* self = static_cast<report_port*>(arg);
    uint8_t bytes[longest_report];
    buf_t report{bytes, sizeof bytes, 0};
    sockaddr_in from{};
    for (int i = 0; i < reports_at_once && net_udp_recv(self->fd, report, &from) >= 0; ++i)
        self->of.take_report(from.sin_addr, {report.data, report.length});
}

void multicast::stop() {
    for (const auto& each : reports_)
        net_socket_close(each->fd);
    reports_.clear();
    channels_.clear();
    datagrams_.close();
    if (socket_ >= 0) net_socket_close(socket_);
    socket_ = -1;
}

shared_channel* multicast::find(const channel& played) const {
    const auto found =
        std::find_if(channels_.begin(), channels_.end(), [&](const auto& each) { return each->played() == &played; });
    return found == channels_.end() ? nullptr : found->get();
}

bool multicast::watched() const {
    return std::any_of(channels_.begin(), channels_.end(), [](const auto& each) { return each->watched(); });
}

bool multicast::coming_up() const {
    return std::any_of(channels_.begin(), channels_.end(), [](const auto& each) { return each->coming_up(); });
}

uint64_t multicast::advance(const options& settings, uint64_t base, uint64_t now) {
    uint64_t bytes = 0;
    for (const auto& each : channels_)
        bytes += each->advance(settings.start, base, now);
    return bytes;
}

}  // namespace camera
