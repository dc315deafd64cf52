// Sending RTP (RFC 3550): headers, the current frame and its log lines; the formats have rooms of their own.
#include "rtp/packetizer.h"

#include "avc/fcc.h"
#include "core/owned.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_analytics.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

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

bool is_report(std::span<const uint8_t> record) noexcept {
    return net_analytics_is_report(record.data(), static_cast<uint32_t>(record.size())) != 0;
}

/// What is sent of a record of metadata: a report converted, which may give nothing, anything else as it is.
struct document_t {
    core::owned_text text;
    std::span<const uint8_t> bytes;
};

document_t document_of(std::span<const uint8_t> data, uint64_t time, const char* file, int line) noexcept {
    if (!is_report(data)) return {nullptr, data};
    core::owned_text text = analytics_text(data, time, file, line);
    const auto bytes = bytes_of(text.get());
    return {std::move(text), bytes};
}

}  // namespace

namespace rtp {

void packetizer::set_room(uint8_t* room) noexcept {
    room_ = room ? room : own_room_;
    rtp_.packet = {room_, packet_size, 0};
}

void packetizer::pack(const av::frame_t& frame) noexcept {
    if (!begin(frame.fcc, frame.time + frame.shown_after)) return;
    if (!is_sent(frame.fcc)) return log_unknown("fcc");
    const uint16_t first_seq = rtp_.current->seq;
    const auto data = payload_of(frame);
    switch (fcc_unic(frame.fcc)) {
        case av::fcc_h264:
            pack_h264(data);
            break;
        case av::fcc_jpeg:
            pack_jpeg(data);
            break;
        case av::fcc_pcmu:
        case av::fcc_pcma:
            pack_pieces(data, true);
            break;
        case av::fcc_mp4a:
            pack_mp4a(data);
            break;
        case av::fcc_univ:
            pack_pieces(data, false);
            break;
        case av::fcc_meta: {
            if (!all_formats_ && !is_report(data)) break;
            const document_t sent = document_of(data, frame.time, file_, line_);
            pack_pieces(sent.bytes, false);
            if (sent.text) core_log_print(rtp_.log, "%s", sent.text.get());
            break;
        }
        default:
            break;
    }
    log_frame(first_seq);
    finish();
}

void packetizer::pack_meta(const av::meta_t& meta) noexcept {
    if (!begin(meta.fcc, meta.time)) return;
    const trak_t& trak = *rtp_.current;
    const uint16_t first_seq = trak.seq;
    const auto data = payload_of(meta);
    switch (meta.fcc) {
        case av::fcc_meta: {
            const document_t sent = document_of(data, meta.time, file_, line_);
            pack_pieces(sent.bytes, false);
            core_log_print(rtp_.log, "%d: META ssrc:%u: rtp:%u seq:%hu-%hu\n%.*s", rtp_.id, trak.ssrc, trak.rtp_time,
                           first_seq, trak.seq, static_cast<int>(sent.bytes.size()),
                           sent.bytes.empty() ? "" : reinterpret_cast<const char*>(sent.bytes.data()));
            break;
        }
        case av::fcc_univ:
            pack_pieces(data, false);
            log_frame(first_seq);
            break;
        default:
            return log_unknown("metadata fcc");
    }
    finish();
}

/// Whether frames of that format become packets.
bool packetizer::is_sent(uint32_t fcc) const noexcept {
    constexpr uint32_t formats[] = {av::fcc_h264, av::fcc_jpeg, av::fcc_pcmu, av::fcc_univ,
                                    av::fcc_meta, av::fcc_pcma, av::fcc_mp4a};
    const auto known = std::span(formats).first(all_formats_ ? std::size(formats) : std::size(formats) - 2);
    return std::ranges::find(known, fcc_unic(fcc)) != known.end();
}

// As the frame itself, also when no packet was made of it.
void packetizer::pack(Packets& packets) noexcept {
    trak_t* const trak = find(packets.fcc(), packets.time());
    if (!trak) return;
    const uint16_t first_seq = trak->seq;
    const bool known = is_sent(trak->fcc);
    if (!known || packets.count() == 0 || (packets.is_document() && !all_formats_)) {
        trak->time = packets.time();
        trak->rtp_time = timestamp(trak->time, trak->clock_rate);
        if (!known) return log_unknown("fcc");
    } else {
        packets.stamp(*trak);
        rtp_.cut = &packets;
        hand_over(rtp_, event_t::packets, 0);
        rtp_.cut = nullptr;
    }
    log_frame(first_seq);
    finish();
}

// Makes the format's track current; null when there is none to send on.
trak_t* packetizer::find(uint32_t fcc, uint64_t time) noexcept {
    if (rtp_.start_time == 0 || rtp_.start_time > time) rtp_.start_time = time;
    trak_t* const trak = rtp_.get_trak_fcc(fcc);
    if (trak) rtp_.current = trak;
    return trak && trak->active ? trak : nullptr;
}

bool packetizer::begin(uint32_t fcc, uint64_t time) noexcept {
    trak_t* const trak = find(fcc, time);
    if (!trak) return false;
    trak->time = time;
    trak->rtp_time = timestamp(time, trak->clock_rate);
    return true;
}

void packetizer::finish() noexcept {
    if (report_due(*rtp_.current)) send_report(*rtp_.current);
}

// Writes the fixed header (RFC 3550, 5.1); the payload goes to what it returns.
uint8_t* packetizer::start_packet(uint32_t pt) noexcept {
    trak_t& trak = *rtp_.current;
    return put_header(rtp_.packet.data, pt, trak.seq++, trak.rtp_time, trak.ssrc);
}

void packetizer::send_packet(uint32_t length) noexcept {
    ++rtp_.current->packets;
    rtp_.current->octets += length;
    hand_over(rtp_, event_t::packet, length);
}

void packetizer::log_frame(uint16_t first_seq) noexcept {
    if (!core_log_wanted(rtp_.log)) return;
    const trak_t& trak = *rtp_.current;
    char fcc[5];
    char time[32];
    time_format(trak.time, "%Y-%m-%d %H:%M:%S.%s", time, sizeof time);
    core_log_print(rtp_.log, "%d: %s ssrc:%u: %s rtp:%u seq:%hu-%hu", rtp_.id, fcc_str(trak.fcc, fcc), trak.ssrc, time,
                   trak.rtp_time, first_seq, trak.seq);
}

void packetizer::log_unknown(const char* what) noexcept {
    char fcc[5];
    core_log_print(rtp_.log, "%d: %u: unknown %s:%s", rtp_.id, rtp_.current->ssrc, what,
                   fcc_str(rtp_.current->fcc, fcc));
}

}  // namespace rtp
