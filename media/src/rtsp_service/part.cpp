#include "rtsp_service/part.h"

#include "rtsp_service/client.h"

#include "inet/net_socket.h"

#include <algorithm>
#include <new>
#include <utility>

namespace media::rtsp {

namespace {

/// While a send runs, what the next ones need comes from the memory: since the last frame it has left the caches.
void fetch_ahead(const place_t& next, const place_t& after, size_t kind) noexcept {
    __builtin_prefetch(next.tracks[kind]);
    __builtin_prefetch(next.tcp);
    __builtin_prefetch(&after);
    __builtin_prefetch(&after.tracks);
}

sockaddr_in address_of(in_addr host, uint16_t port) noexcept {
    sockaddr_in made{};
    made.sin_family = AF_INET;
    made.sin_addr = host;
    made.sin_port = htons(port);
    return made;
}

}  // namespace

live::~live() {
    if (following_) owner_.on().unfollow(stream_, *this);
    core_log_free(log_);
}

bool live::begin() noexcept {
    following_ = owner_.on().follow(stream_, *this) != 0;
    return following_;
}

// One pass over the players. What is not as usual is left to the client, which looks at all that it has.
void live::on_entry(read_t what, const entry_t& entry) noexcept {
    ::rtp::Packets* const packets = what == read_t::frame ? owner_.cut().of(stream_, entry) : nullptr;
    const bool usual = packets && !core_log_wanted(log_);
    const auto kind = static_cast<size_t>(entry.kind);
    prepared_ = false;
    uint32_t direct = 0;
    places_.pass([&](size_t i) {
        place_t& place = places_[i];
        if (usual && i + 2 < places_.size()) fetch_ahead(places_[i + 1], places_[i + 2], kind);
        if (usual && place.direct && !place.tracks[kind]) return;
        if (usual && place.direct && send(place, kind, *packets)) {
            ++direct;
            return;
        }
        client_t* const one = place.one;
        if (!one) return;
        if (what == read_t::ended) one->finish();
        if (what == read_t::lost) {
            one->leave_out();
            place.direct = false;
        }
        if (what != read_t::frame || entry.number < place.from) return;
        one->deliver(entry, packets);
        if (place.one) one->look(place);
    });
    if (entry.kind == kind_t::video) owner_.on().count().frames += direct;
}

// False when nothing went: it is the client's then.
bool live::send(place_t& to, size_t kind, ::rtp::Packets& packets) noexcept {
    ::rtp::trak_t& track = *to.tracks[kind];
    if (packets.time() >= track.next_rtcp || packets.fcc() != track.fcc) return false;
    const bool udp = to.ports[kind] != 0;
    net::Datagrams& out = owner_.datagrams();
    const uint32_t count = packets.count();
    if (udp && !out.has_room(count)) return false;
    packets.stamp(track);
    if (!udp) {
        packets.set_channel(to.channels[kind]);
        const buffer_t whole = packets.interleaved();
        const uint32_t went = to.tcp->lend(whole);
        if (went == whole.size) return true;
        to.direct = false;
        to.one->keep({whole.data + went, whole.size - went}, went != 0);
        return true;
    }
    const sockaddr_in port = address_of(to.host, to.ports[kind]);
    if (!std::exchange(prepared_, true)) out.prepare(packets.datagrams(port), count);
    const uint32_t went = out.send_prepared(port);
    if (went != count) out.send(packets.datagrams(port) + went, count - went);
    owner_.on().count().bytes += packets.size();
    return true;
}

::rtp::Packets* cut_frames::of(const stream& from, const entry_t& entry) noexcept {
    for (cut_t& each : cut_) {
        if (each.from != from.id() || each.number != entry.number) continue;
        return each.packets.count() != 0 ? &each.packets : nullptr;
    }
    cut_t& oldest = cut_[next_];
    next_ = (next_ + 1) % cut_.size();
    oldest.from = from.id();
    oldest.number = entry.number;
    oldest.packets.set_all_formats(true);
    oldest.packets.cut(&entry.frame);
    return oldest.packets.count() != 0 ? &oldest.packets : nullptr;
}

part_t::~part_t() {
    present_.clear();
    close_udp();
}

void part_t::second() noexcept { present_.drop_unused(); }

void part_t::on_news(void* arg) noexcept {
    auto* self = static_cast<part_t*>(arg);
    if (!self->told_.exchange(true) && !self->thread_.call(on_told, &self->service_)) self->told_ = false;
}

// The part may have gone on the way.
void part_t::on_told(thread& on, void* arg) noexcept {
    auto* self = static_cast<part_t*>(on.part(*static_cast<service_t*>(arg)));
    if (!self) return;
    self->told_ = false;
    for (client_t* each : self->clients_) {
        if (each->owes_answer()) on.wake(*each);
    }
}

uint16_t part_t::udp_port() noexcept {
    // The pair of a last attempt that failed is left open.
    if (!datagrams_.is_open() &&
        (socket_rtp_pair(&rtp_fd_, &rtcp_fd_) != 1 || !datagrams_.open(thread_.nt(), rtp_fd_))) {
        close_udp();
        return 0;
    }
    if (!reports_) net::net_nt_socket_add(thread_.nt(), reports_, rtcp_fd_, net::nt_flag_read, this, on_report);
    return net_socket_get_near_port(rtp_fd_);
}

// A report keeps the session of the player alive that it comes from.
void part_t::on_report(void* arg, uint32_t) noexcept {
    auto* self = static_cast<part_t*>(arg);
    take_reports(self->rtcp_fd_, [&](const sockaddr_in& from, buffer_t report) {
        for (client_t* each : self->clients_) {
            if (each->take_report(from, report)) break;
        }
    });
}

bool part_t::enter(client_t& one) noexcept {
    try {
        clients_.push_back(&one);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void part_t::exit(const client_t& one) noexcept { std::erase(clients_, &one); }

void part_t::close_udp() noexcept {
    datagrams_.close();
    if (reports_) net::net_nt_socket_rem(thread_.nt(), reports_);
    for (int* fd : {&rtp_fd_, &rtcp_fd_}) {
        if (*fd >= 0) net_socket_close(*fd);
        *fd = -1;
    }
}

}  // namespace media::rtsp
