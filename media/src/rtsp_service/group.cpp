#include "rtsp_service/group.h"

#include "common/digest.h"
#include "core/memory.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <utility>

namespace media::rtsp {

/// A group on its thread.
class driver final : public client {
public:
    explicit driver(group& driven) noexcept : group_(driven) {}
    ~driver() override { group_.close(); }

    uint64_t serve(uint64_t now) noexcept override { return group_.serve(now); }
    void second() noexcept override {
        retired_ = group_.retire();
        if (retired_) finish();
    }
    void finish() noexcept override { finished_ = true; }
    bool finished() const noexcept override { return finished_; }
    bool idle() const noexcept override { return false; }
    bool watching() const noexcept override { return false; }
    uint32_t places() const noexcept override { return group_.places(); }

private:
    group& group_;
    core::owned_object<group> retired_;  ///< the same, once it is nobody else's
    bool finished_ = false;
};

int open_sender(const char* via) noexcept {
    const int fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
    if (fd < 0 || (socket_multicastInterface(fd, via) && net_socket_bind(fd, via, 0) == 0)) return fd;
    net_socket_close(fd);
    return -1;
}

group::group(service_t& of, thread& first, stream& sent, const char* address, uint16_t port) noexcept
    : service_(of),
      thread_(first),
      stream_(sent),
      address_text_(address),
      port_(port),
      rtp_(::rtp::Rtp::create(CORE_HERE)) {
    stream_.keep();
    net_addr_setup(address_, address, port);
    complete_ = rtp_ && add_tracks();
}

group::~group() {
    ::rtp::Rtp::destroy(rtp_);
    stream::drop(&stream_);
}

void group::close() noexcept {
    driver_ = nullptr;
    rest();
    datagrams_.close();
    for (report_port& each : report_ports_) {
        net::net_nt_socket_rem(thread_.nt(), each.socket);
        if (each.fd >= 0) net_socket_close(std::exchange(each.fd, -1));
    }
    if (fd_ >= 0) net_socket_close(std::exchange(fd_, -1));
}

/// Payload types and clocks are those that sessions announce.
bool group::add_tracks() noexcept {
    rtp_->set_handler(this);
    rtp_->set_report_clock(::rtp::report_clock_t::packets);
    const core::owned<rtsp3::Rtsp, rtsp3::Rtsp::destroy> session(rtsp3::Rtsp::create(CORE_HERE));
    rtp_->set_all_formats(true);
    if (session) session->set_all_formats(true);
    for (const kind_t kind : {kind_t::video, kind_t::audio, kind_t::meta}) {
        const rtsp3::trak_t* announced = session ? service_.announce(*session, stream_, kind) : nullptr;
        if (!announced) continue;
        ::rtp::trak_t* const added = rtp_->add_trak(announced->rtp->pt, announced->fcc);
        if (!added) return false;
        added->clock_rate = announced->rtp->clock_rate;
        common_random(&added->ssrc, sizeof added->ssrc);
        common_random(&added->seq, sizeof added->seq);
        added->active = 1;
        formats_[track_count_] = announced->fcc;
        next_seq_[track_count_++] = added->seq;
    }
    return track_count_ != 0;
}

int group::index_of(uint32_t fcc) const noexcept {
    const auto found = std::find(formats_.begin(), formats_.begin() + static_cast<std::ptrdiff_t>(track_count_), fcc);
    return found == formats_.begin() + static_cast<std::ptrdiff_t>(track_count_)
               ? -1
               : static_cast<int>(found - formats_.begin());
}

void group::open() noexcept {
    std::unique_ptr<driver> made(core::create<driver>(CORE_HERE, *this));
    if (!made || !thread_.add(made.get())) return;
    driver_ = made.release();
    fd_ = open_sender(thread_.station().bind());
    if (fd_ < 0 || !datagrams_.open(thread_.nt(), fd_)) return;
    socket_multicastTTL(fd_, service_.settings().ttl);
    for (size_t i = 0; i < track_count_; ++i)
        hear_reports(i);
}

/// Without them only requests keep the sessions of players alive.
void group::hear_reports(size_t track) noexcept {
    report_port& made = report_ports_[track];
    made.of = this;
    made.fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
    if (made.fd < 0 || net_udp_listen(made.fd, nullptr, static_cast<unsigned short>(port(track) + 1)) != 0) return;
    if (!socket_joinGroup(made.fd, address_text_, thread_.station().bind())) return;
    net::net_nt_socket_add(thread_.nt(), made.socket, made.fd, net::nt_flag_read, &made, on_report);
}

// Our own sender reports come back from the group.
void group::on_report(void* arg, uint32_t) noexcept {
    constexpr uint8_t receiver_report = 201;  // RFC 3550, 6.4.2
    const auto* port = static_cast<report_port*>(arg);
    take_reports(port->fd, [&](const sockaddr_in& from, buffer_t report) {
        if (report.size >= 8 && report.data[0] >> 6 == 2 && report.data[1] == receiver_report)
            ++port->of->reports_[place_of(from.sin_addr)];
    });
}

void group::add_player() noexcept {
    if (players_++ != 0) return;
    const auto wake = [](thread& on, void* arg) {
        auto* self = static_cast<group*>(arg);
        if (self->driver_) on.wake(*self->driver_);
        self->release();
    };
    keep();
    if (!thread_.call(wake, this)) release();
}

core::owned_object<group> group::retire() noexcept {
    return stream_.status().ended ? service_.take_out(*this) : nullptr;
}

/// The first packets bring a report, as a player that comes now knows none.
void group::begin(uint64_t now) noexcept {
    following_ = thread_.follow(stream_, *this) != 0;
    if (!following_) return;
    live_ = false;
    pictures_.begin();
    last_.fill(0);
    expected_.fill(0);
    for (size_t i = 0; i < track_count_; ++i)
        rtp_->traks[i]->next_rtcp = 0;
    if (!approach_.begin(stream_, service_.settings().at_key, now)) rest();
}

void group::rest() noexcept {
    if (std::exchange(following_, false)) thread_.unfollow(stream_, *this);
    approach_.end();
    live_ = false;
    publish(0);
}

uint64_t group::serve(uint64_t now) noexcept {
    if (players_ == 0) {
        rest();
        return 0;
    }
    if (!following_) begin(now);
    while (approach_.under_way()) {
        const approach::step_t step = approach_.look(now);
        if (step == approach::step_t::wait) return approach_.due();
        if (step == approach::step_t::lost) pictures_.leave_out();
        if (step == approach::step_t::ended) return 0;
        if (step == approach::step_t::frame) {
            send(approach_.shown());
            approach_.take();
        }
        if (step == approach::step_t::lost || approach_.position() < thread_.position(stream_)) continue;
        from_ = approach_.position();
        live_ = true;
        approach_.end();
    }
    return following_ ? 0 : now + approach::soon;
}

void group::on_entry(read_t what, const entry_t& entry) noexcept {
    if (players_ == 0) return rest();
    if (!live_) return;
    if (what == read_t::lost) pictures_.leave_out();
    if (what == read_t::frame && entry.number >= from_) send(entry);
}

void group::send(const entry_t& entry) noexcept {
    if (index_of(entry.frame.fcc) < 0) return;
    sent_ = 0;
    const auto pass_on = [&] {
        ::rtp::Packets* packets = cut_.of(stream_, entry);
        if (!packets || !datagrams_.has_room(packets->count())) return false;
        rtp_->pack(*packets);
        return true;
    };
    if (!pictures_.pass(entry, pass_on))
        ++thread_.count().dropped;
    else if (entry.kind == kind_t::video)
        ++thread_.count().frames;
    thread_.count().bytes += sent_;
    // The next frame is expected where this one and the last one of its kind lead. A kind that rests leads to the past.
    const auto kind = static_cast<size_t>(entry.kind);
    if (last_[kind]) expected_[kind] = 2 * entry.frame.time - last_[kind] + entry.frame.shown_after;
    last_[kind] = entry.frame.time;
    uint64_t next = 0;
    for (const uint64_t each : expected_) {
        if (each && (!next || each < next)) next = each;
    }
    publish(std::max(next, entry.frame.time));
}

void group::publish(uint64_t next_time) noexcept {
    for (size_t i = 0; i < track_count_; ++i)
        next_seq_[i] = rtp_->traks[i]->seq;
    next_time_ = next_time;
}

void group::on_rtp_event(::rtp::Rtp* rtp, ::rtp::event_t::enum_t event) noexcept {
    const auto index = std::find(rtp->traks, rtp->traks + track_count_, rtp->current) - rtp->traks;
    const bool report = event == ::rtp::event_t::rtcp;
    address_.sin_port = htons(static_cast<uint16_t>(port(static_cast<size_t>(index)) + (report ? 1 : 0)));
    if (report) {
        buffer_t bytes{rtp->packet.data, rtp->packet.length};
        net_udp_send_buffer(fd_, &bytes, &address_);
        sent_ += bytes.size;
    } else {
        datagrams_.send(rtp->cut->datagrams(address_), rtp->cut->count());
        sent_ += rtp->cut->size();
    }
}

}  // namespace media::rtsp
