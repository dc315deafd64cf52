#include "inet/rtp_protocol.h"

#include "rtp/packet.h"

#include "avc/fcc.h"
#include "core/array.h"
#include "core/owned.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_analytics.h"

#include <algorithm>

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
    const auto all = as_span(traks);
    const auto found =
        std::find_if(all.begin(), all.end(), [=](const rtp::trak_t* trak) { return trak->*field == value; });
    return found != all.end() ? *found : nullptr;
}

void destroy_trak(rtp::trak_t* trak) noexcept {
    core_buf_free(&trak->frame);
    core_buf_free(&trak->fua);
    core::destroy(trak);
}

template <class Record>
std::span<const uint8_t> payload_of(const Record& record) noexcept {
    return {record.data, record.data ? record.size : 0};
}

// Borrowed data need not end with a NUL, so the converter gets a copy that does.
core::owned_text analytics_text(std::span<const uint8_t> json, uint64_t time, const char* file, int line) noexcept {
    const core::owned_text copy(core_strndup(reinterpret_cast<const char*>(json.data()), json.size(), file, line));
    return core::owned_text(copy ? net_analytics_convert(copy.get(), time, file, line) : nullptr);
}

std::span<const uint8_t> bytes_of(const char* text) noexcept {
    return {reinterpret_cast<const uint8_t*>(text), core_strlen(text)};
}

}  // namespace

namespace rtp {

Rtp::Rtp(const char* file, int line) noexcept : log(core_log_create(file, line, "rtp")), file_(file), line_(line) {
    set_packet_room(nullptr);
}

Rtp::~Rtp() {
    close();
    core_log_free(log);
}

Rtp* Rtp::create(const char* file, int line) noexcept { return core::create<Rtp>(file, line, file, line); }

void Rtp::destroy(Rtp* rtp) noexcept { core::destroy(rtp); }

void Rtp::close() noexcept {
    for (trak_t* trak : as_span(traks))
        destroy_trak(trak);
    core_array_free(reinterpret_cast<void**>(traks));
    traks = nullptr;
    current = nullptr;
}

void Rtp::set_packet_room(uint8_t* room) noexcept {
    room_ = room ? room : own_room_;
    packet = {room_, packet_size, 0};
}

trak_t* Rtp::add_trak(unsigned char pt, unsigned fcc) noexcept {
    if (trak_t* known = get_trak_pt(pt)) return known;
    core::owned_object<trak_t> trak(core::create<trak_t>(file_, line_));
    if (!trak) return nullptr;
    trak->pt = pt;
    trak->fcc = fcc;
    const size_t before = as_span(traks).size();
    traks = reinterpret_cast<trak_t**>(core_array_add(reinterpret_cast<void**>(traks), trak.get(), file_, line_));
    return as_span(traks).size() > before ? trak.release() : nullptr;
}

trak_t* Rtp::get_trak_pt(unsigned char pt) const noexcept { return find(traks, &trak_t::pt, pt); }

trak_t* Rtp::get_trak_fcc(unsigned fcc) const noexcept { return find(traks, &trak_t::fcc, fcc); }

trak_t* Rtp::get_trak_ssrc(uint32_t ssrc) const noexcept { return find(traks, &trak_t::ssrc, ssrc); }

void Rtp::pack(const av::frame_t* frame) noexcept {
    if (!frame || !begin(frame->fcc, frame->time)) return;
    const uint16_t first_seq = current->seq;
    const auto data = payload_of(*frame);
    switch (fcc_unic(frame->fcc)) {
        case av::fcc_h264:
            pack_h264(data);
            break;
        case av::fcc_jpeg:
            pack_jpeg(data);
            break;
        case av::fcc_pcmu:
            pack_pcmu(data);
            break;
        case av::fcc_univ:
            pack_univ(data);
            break;
        case av::fcc_meta: {
            const auto text = analytics_text(data, frame->time, file_, line_);
            pack_univ(bytes_of(text.get()));
            if (text) core_log_print(log, "%s", text.get());
            break;
        }
        default:
            return log_unknown("fcc");
    }
    log_frame(first_seq);
    if (report_due()) pack_rtcp_sr(current);
}

void Rtp::pack_meta(const av::meta_t* meta) noexcept {
    if (!meta || !begin(meta->fcc, meta->time)) return;
    const uint16_t first_seq = current->seq;
    const auto data = payload_of(*meta);
    switch (meta->fcc) {
        case av::fcc_meta: {
            const auto text = analytics_text(data, meta->time, file_, line_);
            pack_univ(bytes_of(text.get()));
            core_log_print(log, "%d: META ssrc:%u: rtp:%u seq:%hu-%hu\n%s", id, current->ssrc, current->rtp_time,
                           first_seq, current->seq, text ? text.get() : "");
            break;
        }
        case av::fcc_univ:
            pack_univ(data);
            log_frame(first_seq);
            break;
        default:
            return log_unknown("metadata fcc");
    }
    if (report_due()) pack_rtcp_sr(current);
}

// Makes the format's track current and sets it to the time; false when there is none to send on.
bool Rtp::begin(uint32_t fcc, uint64_t time) noexcept {
    if (start_time == 0 || start_time > time) start_time = time;
    trak_t* const trak = get_trak_fcc(fcc);
    if (!trak) return false;
    current = trak;
    if (!trak->active) return false;
    trak->time = time;
    trak->rtp_time = timestamp(time, trak->clock_rate);
    return true;
}

// Writes the fixed header (RFC 3550, 5.1); the payload goes to what it returns.
uint8_t* Rtp::start_packet(uint32_t pt) noexcept {
    packet.data[0] = version_2;
    packet.data[1] = static_cast<uint8_t>(pt);
    return stamp_packet();
}

// The part of the header that is the stream's.
uint8_t* Rtp::stamp_packet() noexcept {
    uint8_t* out = put16(packet.data + 2, current->seq++);
    out = put32(out, current->rtp_time);
    return put32(out, current->ssrc);
}

void Rtp::send_packet(uint32_t length) noexcept {
    ++current->packets;
    current->octets += length;
    hand_over(event_t::packet, length);
}

void Rtp::hand_over(event_t::enum_t event, uint32_t length) noexcept {
    packet.length = length;
    if (handler) handler->on_rtp_event(this, event);
}

void Rtp::log_frame(uint16_t first_seq) noexcept {
    if (!core_log_wanted(log)) return;
    char fcc[5];
    char time[32];
    time_format(current->time, "%Y-%m-%d %H:%M:%S.%s", time, sizeof time);
    core_log_print(log, "%d: %s ssrc:%u: %s rtp:%u seq:%hu-%hu", id, fcc_str(current->fcc, fcc), current->ssrc, time,
                   current->rtp_time, first_seq, current->seq);
}

void Rtp::log_unknown(const char* what) noexcept {
    char fcc[5];
    core_log_print(log, "%d: %u: unknown %s:%s", id, current->ssrc, what, fcc_str(current->fcc, fcc));
}

}  // namespace rtp
