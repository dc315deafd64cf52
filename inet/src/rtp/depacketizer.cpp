// Receiving RTP (RFC 3550): headers, order, time and counters; the formats have rooms of their own.
#include "rtp/depacketizer.h"

#include "bounded.h"

#include "avc/fcc.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint8_t padding_bit = 0x20;
constexpr uint8_t extension_bit = 0x10;

// Numbers from here on may be followed by small ones: the count has wrapped.
constexpr uint16_t wrap_from = 65000;
constexpr uint16_t wrap_to = 100;

struct packet_t {
    bool extension;
    bool marked;
    uint8_t pt;
    uint16_t seq;
    uint32_t timestamp;
    uint32_t ssrc;
    bytes_t payload;
};

// RFC 3550, 5.1. An extension stays in front of the payload.
std::optional<packet_t> read_packet(bytes_t bytes) noexcept {
    if (bytes.size() < rtp::header_size || (bytes[0] & rtp::version_mask) != rtp::version_2) return std::nullopt;
    const size_t start = rtp::header_size + 4 * size_t{bytes[0] & 0x0FU};
    const size_t padding = bytes[0] & padding_bit ? bytes.back() : 0;
    if (start + padding > bytes.size()) return std::nullopt;
    return packet_t{
        .extension = (bytes[0] & extension_bit) != 0,
        .marked = (bytes[1] & rtp::marker) != 0,
        .pt = static_cast<uint8_t>(bytes[1] & ~rtp::marker),
        .seq = rtp::get16(bytes, 2),
        .timestamp = rtp::get32(bytes, 4),
        .ssrc = rtp::get32(bytes, 8),
        .payload = bytes.subspan(start, bytes.size() - start - padding),
    };
}

/// What stands behind a header extension (RFC 3550, 5.3.1); the payload itself where it is a piece of a JPEG file.
bytes_t skip_extension(bytes_t payload, uint32_t fcc) noexcept {
    constexpr size_t head = 4;
    if (payload.size() < head) return payload;
    const uint32_t profile = rtp::get16(payload, 0);
    if (fcc == av::fcc_jpeg && (profile == 0xffd8 || profile == 0xffff)) return payload;
    return payload.subspan(std::min(payload.size(), head + size_t{4} * rtp::get16(payload, 2)));
}

rtp::trak_t* find_ssrc(rtp::trak_t* const* traks, uint32_t ssrc) noexcept {
    while (traks && *traks && (*traks)->ssrc != ssrc)
        ++traks;
    return traks ? *traks : nullptr;
}

}  // namespace

namespace rtp {

void depacketizer::take(buffer_t received) noexcept {
    const auto in = read_packet({received.data, received.data ? received.size : 0});
    if (!in) return;
    core_log_print(rtp_.log, "%u: %u: unpack rtp size:%u, seq: %hu", static_cast<unsigned>(rtp_.id), in->ssrc,
                   received.size, in->seq);
    trak_t* const trak = rtp_.get_trak_pt(in->pt);
    if (!trak) return;
    rtp_.current = trak;
    trak_ = static_cast<track_t*>(trak);
    trak->ssrc = in->ssrc;
    if (!take_sequence(in->seq)) return;
    count_packet(in->seq, in->timestamp);
    take_timestamp(in->timestamp);
    trak->seq = in->seq;
    trak->marker = in->marked;
    trak->bye = 0;
    const bytes_t bare = in->extension && skips_extensions_ ? skip_extension(in->payload, trak->fcc) : in->payload;
    dispatch(bare, in->extension && bare.data() == in->payload.data());
    if (report_due(*trak)) send_receiver_report(rtp_, *trak);
}

void depacketizer::take_report(buffer_t received) noexcept {
    const bytes_t bytes(received.data, received.data ? received.size : 0);
    if (bytes.size() < 8 || (bytes[0] & version_mask) != version_2) return;
    const uint32_t words = get16(bytes, 2);
    const uint32_t ssrc = get32(bytes, 4);
    trak_t* const trak = find_ssrc(rtp_.traks, ssrc);
    if (!trak) return;
    if (says_bye(bytes, ssrc)) trak->bye = 1;
    if (words <= 1) return;
    if (words > 3 && bytes.size() >= 16) {
        trak->lsr_sec = get32(bytes, 8);
        trak->lsr_frac = get32(bytes, 12);
    }
    send_receiver_report(rtp_, *trak);
}

// False for a packet that comes too late or again. What a gap tore is dropped.
bool depacketizer::take_sequence(uint16_t seq) noexcept {
    track_t& trak = *trak_;
    // A number that the owner has set is the one expected, not one that came.
    const bool came = trak.received > 0 && trak.last == trak.seq;
    if (trak.seq == 0 && !came) {
        trak.seq = seq;
        trak.frame.length = trak.fua.length = 0;
    }
    const bool older = trak.seq > seq && (trak.seq < wrap_from || seq > wrap_to);
    if (older || (came && trak.seq == seq)) {
        ++trak.late;
        core_log_print(rtp_.log, "%u: %u: dropping old packet received too late seq:%hu",
                       static_cast<unsigned>(rtp_.id), trak.ssrc, seq);
        return false;
    }
    if (static_cast<uint16_t>(seq - trak.seq) > 1) {
        core_log_print(rtp_.log, "%u: %u: pack missing, last:%u cur:%u", static_cast<unsigned>(rtp_.id), trak.ssrc,
                       uint32_t{trak.seq}, uint32_t{seq});
        trak.frame.length = 0;
        trak.fua.length = 0;
    }
    return true;
}

void depacketizer::count_packet(uint16_t seq, uint32_t timestamp) noexcept {
    track_t& trak = *trak_;
    const int step = trak.received > 0 ? static_cast<int16_t>(seq - trak.highest) : 1;
    if (step > 0 && step <= max_dropout) trak.lost += static_cast<uint32_t>(step) - 1;
    const bool belated = step < 0 && step >= -max_misorder;
    if (belated && trak.lost > 0) --trak.lost;
    if (!belated && (step <= 0 || step > max_dropout)) ++trak.restarts;
    if (!belated) trak.highest = seq;
    trak.last = seq;
    ++trak.received;
    count_jitter(timestamp);
}

// RFC 3550, A.8.
void depacketizer::count_jitter(uint32_t timestamp) noexcept {
    track_t& trak = *trak_;
    const bool timed = trak.timed;
    trak.timed = arrival_ != 0;
    if (arrival_ == 0) return;
    const uint32_t transit = rtp::timestamp(arrival_, trak.clock_rate) - timestamp;
    const uint32_t change = transit - std::exchange(trak.transit, transit);
    if (!timed) return;
    const uint32_t distance = std::min(change, 0 - change);
    trak.jitter_sum += distance;
    trak.jitter_sum -= (trak.jitter_sum - distance + 8) >> 4;
    trak.jitter = static_cast<uint32_t>(trak.jitter_sum >> 4);
}

// Another timestamp ends the frame and moves the track's time on.
void depacketizer::take_timestamp(uint32_t timestamp) noexcept {
    track_t& trak = *trak_;
    if (timestamp == trak.rtp_time) return;
    deliver();
    trak.skipping = false;
    const uint32_t scaled = (timestamp - trak.rtp_time) * 1000;
    if (trak.clock_rate >= 1) trak.time += static_cast<uint64_t>(scaled / trak.clock_rate) * 1000;
    trak.rtp_time = timestamp;
}

void depacketizer::dispatch(std::span<const uint8_t> payload, bool extension) noexcept {
    switch (trak_->fcc) {
        case av::fcc_h264:
            return unpack_h264(payload);
        case av::fcc_jpeg:
            return extension ? unpack_jpeg_large(payload) : unpack_jpeg(payload);
        case av::fcc_mp4a:
            return unpack_mp4a(payload);
        case av::fcc_pcmu:
        case av::fcc_pcma:
        case av::fcc_g726:
            return unpack_pcmu(payload);
        case av::fcc_meta:
            return unpack_univ(payload);
        default:
            return;
    }
}

// False when the frame was given up instead, for its size or for want of memory.
bool depacketizer::append(buf_t& to, std::span<const uint8_t> bytes) noexcept {
    const auto size = static_cast<uint32_t>(bytes.size());
    if (!bounded::make_room(to, size, max_frame, file_, line_)) {
        discard_frame();
        return false;
    }
    if (size > 0) std::memcpy(to.data + to.length, bytes.data(), size);
    to.length += size;
    return true;
}

void depacketizer::discard_frame() noexcept {
    ++trak_->discarded;
    core_log_print(rtp_.log, "%u: %u: frame given up, bytes:%u", static_cast<unsigned>(rtp_.id), trak_->ssrc,
                   std::max(trak_->frame.length, trak_->fua.length));
    trak_->frame.length = 0;
    trak_->fua.length = 0;
    trak_->skipping = true;
}

}  // namespace rtp
