#include "inet/rtp_protocol.h"

#include "rtp/depacketizer.h"
#include "rtp/packetizer.h"

#include "core/array.h"
#include "core/memory.h"
#include "core/owned.h"

#include <algorithm>
#include <span>

namespace {

std::span<rtp::trak_t* const> as_span(rtp::trak_t* const* traks) noexcept {
    size_t count = 0;
    while (traks && traks[count])
        ++count;
    return {traks, count};
}

// First track that has the value in that field; null when there is none.
template <class Field>
rtp::trak_t* find(rtp::trak_t* const* traks, Field rtp::trak_t::*field, Field value) noexcept {
    while (traks && *traks && (*traks)->*field != value)
        ++traks;
    return traks ? *traks : nullptr;
}

void destroy_trak(rtp::trak_t* trak) noexcept {
    core_buf_free(&trak->frame);
    core_buf_free(&trak->fua);
    core::destroy(static_cast<rtp::track_t*>(trak));
}

}  // namespace

namespace rtp {

class Rtp::insides {
public:
    insides(Rtp& rtp, const char* where, int at) noexcept
        : send(rtp, where, at), receive(rtp, where, at), file(where), line(at) {}

    packetizer send;
    depacketizer receive;
    const char* const file;
    const int line;
};

Rtp::Rtp(const char* file, int line) noexcept
    : log(core_log_create(file, line, "rtp")), insides_(core::create<insides>(file, line, *this, file, line)) {
    set_packet_room(nullptr);
}

Rtp::~Rtp() {
    close();
    core::destroy(insides_);
    core_log_free(log);
}

Rtp* Rtp::create(const char* file, int line) noexcept {
    core::owned_object<Rtp> made(core::create<Rtp>(file, line, file, line));
    return made && made->insides_ ? made.release() : nullptr;
}

void Rtp::destroy(Rtp* rtp) noexcept { core::destroy(rtp); }

void Rtp::close() noexcept {
    for (trak_t* trak : as_span(traks))
        destroy_trak(trak);
    core_array_free(reinterpret_cast<void**>(traks));
    traks = nullptr;
    current = nullptr;
}

void Rtp::set_packet_room(uint8_t* room) noexcept {
    if (insides_) insides_->send.set_room(room);
}

void Rtp::set_report_clock(report_clock_t clock) noexcept {
    if (insides_) insides_->send.set_report_clock(clock);
}

void Rtp::set_all_formats(bool on) noexcept {
    if (insides_) insides_->send.set_all_formats(on);
}

void Rtp::set_arrival(uint64_t us) noexcept {
    if (insides_) insides_->receive.set_arrival(us);
}

void Rtp::skip_extensions(bool on) noexcept {
    if (insides_) insides_->receive.skip_extensions(on);
}

trak_t* Rtp::add_trak(unsigned char pt, unsigned fcc) noexcept {
    if (trak_t* known = get_trak_pt(pt)) return known;
    if (!insides_) return nullptr;
    core::owned_object<track_t> trak(core::create<track_t>(insides_->file, insides_->line));
    if (!trak) return nullptr;
    trak->pt = pt;
    trak->fcc = fcc;
    const size_t before = as_span(traks).size();
    traks = reinterpret_cast<trak_t**>(core_array_add(reinterpret_cast<void**>(traks), static_cast<trak_t*>(trak.get()),
                                                      insides_->file, insides_->line));
    return as_span(traks).size() > before ? trak.release() : nullptr;
}

trak_t* Rtp::get_trak_pt(unsigned char pt) const noexcept { return find(traks, &trak_t::pt, pt); }

trak_t* Rtp::get_trak_fcc(unsigned fcc) const noexcept { return find(traks, &trak_t::fcc, fcc); }

void Rtp::pack(const av::frame_t* frame) noexcept {
    if (frame && insides_) insides_->send.pack(*frame);
}

void Rtp::pack(Packets& packets) noexcept {
    if (insides_) insides_->send.pack(packets);
}

void Rtp::pack_meta(const av::meta_t* meta) noexcept {
    if (meta && insides_) insides_->send.pack_meta(*meta);
}

void Rtp::pack_rtcp_sr(trak_t* trak) noexcept {
    if (trak && insides_) insides_->send.send_report(*trak);
}

void Rtp::pack_rtcp_rr(trak_t* trak) noexcept {
    if (trak && insides_) send_receiver_report(*this, *trak);
}

void Rtp::unpack_rtp(buffer_t received) noexcept {
    if (insides_) insides_->receive.take(received);
}

void Rtp::unpack_rtc(buffer_t received) noexcept {
    if (insides_) insides_->receive.take_report(received);
}

void Rtp::call_frame() noexcept {
    if (!current || current->frame.length == 0) return;
    if (handler) handler->on_rtp_event(this, event_t::frame);
    current->frame.length = 0;
}

}  // namespace rtp
