#include "rtsp_service/client.h"

#include "rtsp_service/group.h"

#include "core/memory.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace media::rtsp {

namespace {

/// Seconds that a new connection has for its first request.
constexpr unsigned first_request = 10;

/// Longer than the sender report that may follow a frame.
constexpr uint32_t report_room = 64;

}  // namespace

client_t::client_t(part_t& owner, net::Tcp* connection, rtsp3::Rtsp* session) noexcept
    : owner_(owner),
      tcp_(connection),
      rtsp_(session ? session : rtsp3::Rtsp::create(CORE_HERE)),
      peer_(connection->peer()),
      wants_partner_(session != nullptr) {
    tcp_->set_handler(this);
    if (!rtsp_ || !owner_.enter(*this)) return;
    rtsp_->set_handler(this);
    rtsp_->set_send_limit(settings().backlog);
    rtsp_->set_all_formats(true);
    rtsp_->set_unknown_methods(true);
    complete_ = session || !settings().user || rtsp_->set_credentials(settings().user, settings().password);
}

client_t::~client_t() {
    finished_ = true;
    stop_playing();
    leave_stream();
    if (rtsp_) owner_.of().open_tunnels().remove(*this);
    owner_.exit(*this);
    if (partner_) partner_->partner_ = nullptr;
    net::Tcp::destroy(tcp_);
    rtsp3::Rtsp::destroy(rtsp_);
}

void client_t::begin() noexcept {
    if (wants_partner_ && !join()) return finish();
    tcp_->show_received();
}

void client_t::finish() noexcept {
    if (finished_) return;
    finished_ = true;
    if (live_) live_->remove(*this);
    owner_.on().sweep();
    if (partner_) partner_->finish();
}

void client_t::on_tcp_received(net::Tcp*, buf_t* received) noexcept {
    if (finished_ || leaving_to_) return;
    rtsp_->process(received);
    if (is_post_ && !partner_ && !finished_) find_get();
    flush();
    if (partner_ && is_post_) {
        partner_->flush();
        owner_.on().wake(*partner_);
        partner_->count_sharing();
        if (partner_->live_) partner_->live_->look_again(*partner_);
    }
    count_sharing();
    if (live_) live_->look_again(*this);
    if (!finished_) owner_.on().wake(*this);
}

void client_t::on_tcp_writable(net::Tcp*) noexcept {
    flush();
    if (approach_.under_way()) owner_.on().wake(*this);
}

void client_t::on_tcp_closed(net::Tcp*, int) noexcept { finish(); }

void client_t::flush() noexcept {
    if (const buffer_t lent = rtsp_->lent(); lent.size) rtsp_->take_lent(tcp_->lend(lent));
    if (rtsp_->lent().size == 0) tcp_->flush(*rtsp_->send_buffer());
    owner_.on().count().bytes += tcp_->sent() - std::exchange(counted_, tcp_->sent());
}

void client_t::second() noexcept {
    if (finished_) return;
    flush();  // the system tells that there is room again only when much of it is free
    uint32_t activity = rtsp_->activity();
    if (sharing_) activity += shared_->reports_from(peer_.sin_addr);
    silent_ = activity == activity_ ? silent_ + 1 : 0;
    activity_ = activity;
    // A POST end asks in the name of its GET end.
    const bool silent = !(is_post_ && partner_) && silent_ >= (activity ? settings().timeout : first_request);
    const bool stalls = tcp_->second() >= settings().stall;
    if (stalls) tcp_->give_up();
    if (silent || stalls) finish();
}

bool client_t::take_report(const sockaddr_in& from, buffer_t report) noexcept {
    if (finished_ || from.sin_addr.s_addr != peer_.sin_addr.s_addr) return false;
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_->trak(i); ++i) {
        if (!trak->set_up || trak->protocol != rtsp3::protocol_t::rtp_udp) continue;
        if (net_addr_port(from) != trak->client_port + 1) continue;
        rtsp_->process_rtp(static_cast<unsigned short>(trak->channel + 1), report);
        return true;
    }
    return false;
}

uint64_t client_t::serve(uint64_t now) noexcept {
    if (finished_) return 0;
    if (leaving_to_) {
        leave_to(*leaving_to_);
        return 0;
    }
    if (describing_) {
        answer_describe(now);
        flush();
        count_sharing();
        if (describing_) return next_look(now);
    }
    if (playing_since_) {
        answer_play(now);
        flush();
        count_sharing();
        if (playing_since_) return next_look(now);
    }
    return approach_.serve(*this, owner_.on(), now);
}

// The past goes out as fast as the player takes it, each picture by itself.
bool client_t::show(const entry_t& entry) noexcept {
    if (rtsp_->send_buffer()->length) return false;
    send(entry, owner_.cut().of(*stream_, entry));
    return true;
}

void client_t::stop_playing() noexcept {
    begun_ = false;
    playing_since_ = 0;
    await_news();
    approach_.end();
    if (live_) live_->remove(*this);
    lives<live>::leave(live_);
}

void client_t::deliver(const entry_t& entry, ::rtp::Packets* packets) noexcept {
    if (watching()) send(entry, packets);
}

void client_t::look(place_t& out) noexcept {
    out.direct = watching() && rtsp_->send_buffer()->length == 0 && tcp_->waiting() == 0;
    if (!out.direct) return;
    out.tcp = tcp_;
    out.host = peer_.sin_addr;
    std::ranges::fill(out.tracks, nullptr);
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_->trak(i); ++i) {
        if (!trak->set_up || trak->shared || !trak->rtp->active) continue;
        const auto kind = static_cast<size_t>(kind_of(trak->fcc));
        out.tracks[kind] = trak->rtp;
        out.channels[kind] = trak->channel;
        out.ports[kind] = trak->protocol == rtsp3::protocol_t::rtp_udp ? trak->client_port : uint16_t{0};
    }
    if (out.tracks[static_cast<size_t>(kind_t::video)] && pictures_.wait()) out.direct = false;
}

void client_t::keep(buffer_t rest, bool begun) noexcept {
    buf_t& out = *rtsp_->send_buffer();
    if (core_buf_read(&out, rest.data, rest.size) == rest.size) return flush();
    if (begun) return finish();  // a picture that lacks its end breaks the framing
    ++owner_.on().count().dropped;
    leave_out();
}

void client_t::send(const entry_t& entry, ::rtp::Packets* packets) noexcept {
    const rtsp3::trak_t* const trak = trak_of(entry.frame.fcc);
    if (!trak || !trak->set_up || trak->shared) return;
    const auto pass_on = [&] { return packets && send_packets(*packets, *trak); };
    if (!pictures_.pass(entry, pass_on))
        ++owner_.on().count().dropped;
    else if (entry.kind == kind_t::video)
        ++owner_.on().count().frames;
}

const rtsp3::trak_t* client_t::trak_of(uint32_t fcc) const noexcept {
    uint32_t index = 0;
    while (rtsp_->trak(index) && rtsp_->trak(index)->fcc != fcc)
        ++index;
    return rtsp_->trak(index);
}

bool client_t::send_packets(::rtp::Packets& packets, const rtsp3::trak_t& trak) noexcept {
    const bool sent = fits(packets, trak) && rtsp_->send_packets(packets) != 0;
    if (rtsp_->send_buffer()->length && tcp_->waiting() == 0) flush();
    return sent;
}

/// A frame longer than all that may wait goes out when nothing waits.
bool client_t::fits(const ::rtp::Packets& packets, const rtsp3::trak_t& trak) const noexcept {
    if (trak.protocol != rtsp3::protocol_t::rtp_tcp) return owner_.datagrams().has_room(packets.count());
    const uint64_t waiting = rtsp_->send_buffer()->length;
    return waiting == 0 || waiting + packets.interleaved().size + report_room <= settings().backlog;
}

sockaddr_in client_t::player_port(unsigned offset) const noexcept {
    sockaddr_in to = peer_;
    to.sin_port = htons(static_cast<uint16_t>(rtsp_->trak()->client_port + offset));
    return to;
}

void client_t::send_picture() noexcept {
    ::rtp::Packets& packets = *rtsp_->rtp()->cut;
    owner_.datagrams().send(packets.datagrams(player_port(0)), packets.count());
    owner_.on().count().bytes += packets.size();
}

void client_t::send_report() noexcept {
    const buf_t& packet = rtsp_->rtp()->packet;
    buffer_t bytes{packet.data, packet.length};
    sockaddr_in to = player_port(1);
    const int count = net_udp_send_buffer(owner_.rtcp_socket(), &bytes, &to);
    if (count > 0) owner_.on().count().bytes += static_cast<uint64_t>(count);
}

}  // namespace media::rtsp
