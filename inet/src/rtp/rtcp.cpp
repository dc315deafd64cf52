// RTCP reports (RFC 3550, section 6).
#include "rtp/packet.h"

#include "core/time.h"

namespace {

constexpr uint64_t report_interval = 2000000;
constexpr uint8_t rtcp_sr = 200;
constexpr uint8_t rtcp_rr = 201;
constexpr uint8_t rtcp_bye = 203;
constexpr uint32_t sr_words = 7;  // RFC 3550, 6.4.1, without report blocks
constexpr uint32_t rr_words = 8;  // 6.4.2, with one

// Whether one of the packets of a compound (RFC 3550, 6.1) is a BYE (6.6) of the source.
bool says_bye(std::span<const uint8_t> compound, uint32_t ssrc) noexcept {
    while (compound.size() >= 4) {
        const size_t size = 4 * (size_t{rtp::get16(compound, 2)} + 1);
        if (size > compound.size()) break;
        const size_t sources = compound[1] == rtcp_bye ? compound[0] & 0x1F : 0;
        for (size_t at = 4; at <= 4 * sources && at + 4 <= size; at += 4) {
            if (rtp::get32(compound, at) == ssrc) return true;
        }
        compound = compound.subspan(size);
    }
    return false;
}

}  // namespace

namespace rtp {

// Whether the current track's media time has come to its next report; then the one after it is set.
bool Rtp::report_due() noexcept {
    if (current->time < current->next_rtcp) return false;
    current->next_rtcp = current->time + report_interval;
    return true;
}

void Rtp::pack_rtcp_sr(trak_t* trak) noexcept {
    if (!trak) return;
    current = trak;
    const uint64_t ntp = time_core_to_ntp(trak->time, nullptr, nullptr);
    const auto ntp_seconds = static_cast<uint32_t>(ntp >> 32);
    const auto ntp_fraction = static_cast<uint32_t>(ntp);
    const uint32_t rtp_time = report_clock_ == report_clock_t::packets
                                  ? trak->rtp_time
                                  : clock_ticks(ntp_seconds, ntp_fraction, uint64_t{1} << 32, trak->clock_rate);

    uint8_t* out = packet.data;
    *out++ = 0x80;
    *out++ = rtcp_sr;
    out = put16(out, sr_words - 1);
    out = put32(out, trak->ssrc);
    out = put32(out, ntp_seconds);
    out = put32(out, ntp_fraction);
    out = put32(out, rtp_time);
    out = put32(out, trak->packets);
    put32(out, trak->octets);
    hand_over(event_t::rtcp, 4 * sr_words);

    if (!core_log_wanted(log)) return;
    char time[32];
    time_format(trak->time, "%Y-%m-%d %H:%M:%S.%s", time, sizeof time);
    core_log_print(log, "%u: send rtcp sr %u: %s %u.%u rtp:%u count:%u bytes:%u", static_cast<unsigned>(id), trak->ssrc,
                   time, ntp_seconds, ntp_fraction, rtp_time, trak->packets, trak->octets);
}

void Rtp::pack_rtcp_rr(trak_t* trak) noexcept {
    if (!trak) return;
    current = trak;
    uint8_t* out = packet.data;
    *out++ = version_2 | 1;
    *out++ = rtcp_rr;
    out = put16(out, rr_words - 1);
    out = put32(out, 0);  // our own SSRC: there is none, as nothing is sent
    out = put32(out, trak->ssrc);
    out = put32(out, 0x00FFFFFF);  // fraction lost 0 and a cumulative loss of -1: servers slow down on a reported loss
    out = put32(out, trak->seq);
    out = put32(out, 0);
    out = put32(out, trak->lsr_sec << 16 | trak->lsr_frac >> 16);
    put32(out, 1);
    hand_over(event_t::rtcp, 4 * rr_words);
    core_log_print(log, "%d: send rtcp rr %u: seq: %hu lsr:%u.%u", id, trak->ssrc, trak->seq, trak->lsr_sec,
                   trak->lsr_frac);
}

void Rtp::unpack_rtc(buffer_t received) noexcept {
    const std::span<const uint8_t> bytes(received.data, received.data ? received.size : 0);
    if (bytes.size() < 8 || (bytes[0] & version_mask) != version_2) return;
    const uint32_t words = get16(bytes, 2);
    const uint32_t ssrc = get32(bytes, 4);
    trak_t* const trak = get_trak_ssrc(ssrc);
    if (!trak) return;
    if (says_bye(bytes, ssrc)) trak->bye = 1;
    if (words <= 1) return;
    if (words > 3 && bytes.size() >= 16) {
        trak->lsr_sec = get32(bytes, 8);
        trak->lsr_frac = get32(bytes, 12);
    }
    pack_rtcp_rr(trak);
}

}  // namespace rtp
