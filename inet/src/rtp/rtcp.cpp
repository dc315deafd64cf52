// RTCP reports (RFC 3550, section 6), and the clocks that they tie together.
#include "rtp/packet.h"

#include "core/time.h"

#include <cmath>

namespace {

constexpr uint8_t rtcp_sr = 200;
constexpr uint8_t rtcp_rr = 201;
constexpr uint8_t rtcp_bye = 203;
constexpr uint32_t rr_words = 8;  // RFC 3550, 6.4.2, with one report block

constexpr uint64_t us_per_second = 1000000;
constexpr uint32_t ntp_unix_offset = 2208988800U;  // seconds from 1900 to 1970 (RFC 868)

}  // namespace

uint64_t time_core_to_ntp(uint64_t us, unsigned* sec, unsigned* frac) noexcept {
    const auto unix_seconds = static_cast<uint32_t>(us / us_per_second);
    const auto fraction = static_cast<uint32_t>(((us % us_per_second) << 32) / us_per_second);
    if (sec) *sec = unix_seconds;
    if (frac) *frac = fraction;
    return uint64_t{unix_seconds + ntp_unix_offset} << 32 | fraction;
}

uint64_t time_ntp_to_core(unsigned sec, unsigned frac) noexcept {
    return uint64_t{sec - ntp_unix_offset} * us_per_second + (frac * us_per_second >> 32);
}

uint32_t rtp::timestamp(uint64_t us, double clock_rate) noexcept {
    return clock_ticks(us / us_per_second, us % us_per_second, us_per_second, clock_rate);
}

uint32_t rtp::clock_ticks(uint64_t seconds, uint64_t part, uint64_t parts, double rate) noexcept {
    if (!(rate >= 0 && rate < 4294967296.0)) return 0;
    // A double holds no time of today in ticks without rounding at 1 GHz; the whole part of the rate is counted in
    // integers, where only the modulo of the wire is lost.
    const auto whole = static_cast<uint64_t>(rate);
    const uint64_t scaled = part * whole;
    const uint64_t ticks = seconds * whole + scaled / parts;
    const double rest = rate - std::floor(rate);
    if (rest == 0) return static_cast<uint32_t>(ticks);
    const double parts_per_second = static_cast<double>(parts);
    const double span = static_cast<double>(seconds) + static_cast<double>(part) / parts_per_second;
    const double more = static_cast<double>(scaled % parts) / parts_per_second + span * rest;
    return static_cast<uint32_t>(ticks + static_cast<uint64_t>(more));
}

namespace rtp {

bool report_due(trak_t& trak) noexcept {
    if (trak.time < trak.next_rtcp) return false;
    trak.next_rtcp = trak.time + report_interval;
    return true;
}

void sender_report_t::write(uint8_t* out) const noexcept {
    *out++ = version_2;
    *out++ = rtcp_sr;
    out = put16(out, size / 4 - 1);
    out = put32(out, ssrc);
    out = put32(out, static_cast<uint32_t>(ntp >> 32));
    out = put32(out, static_cast<uint32_t>(ntp));
    out = put32(out, rtp_time);
    out = put32(out, packets);
    put32(out, octets);
}

void send_sender_report(Rtp& rtp, trak_t& trak, report_clock_t clock) noexcept {
    rtp.current = &trak;
    const uint64_t ntp = time_core_to_ntp(trak.time, nullptr, nullptr);
    const uint32_t rtp_time = clock == report_clock_t::packets ? trak.rtp_time : ntp_ticks(ntp, trak.clock_rate);
    sender_report_t{trak.ssrc, ntp, rtp_time, trak.packets, trak.octets}.write(rtp.packet.data);
    hand_over(rtp, event_t::rtcp, sender_report_t::size);

    if (!core_log_wanted(rtp.log)) return;
    char time[32];
    time_format(trak.time, "%Y-%m-%d %H:%M:%S.%s", time, sizeof time);
    core_log_print(rtp.log, "%u: send rtcp sr %u: %s %u.%u rtp:%u count:%u bytes:%u", static_cast<unsigned>(rtp.id),
                   trak.ssrc, time, static_cast<unsigned>(ntp >> 32), static_cast<unsigned>(ntp), rtp_time,
                   trak.packets, trak.octets);
}

void send_receiver_report(Rtp& rtp, trak_t& trak) noexcept {
    rtp.current = &trak;
    uint8_t* out = rtp.packet.data;
    *out++ = version_2 | 1;
    *out++ = rtcp_rr;
    out = put16(out, rr_words - 1);
    out = put32(out, 0);  // our own SSRC: there is none, as nothing is sent
    out = put32(out, trak.ssrc);
    out = put32(out, 0x00FFFFFF);  // fraction lost 0 and a cumulative loss of -1: servers slow down on a reported loss
    out = put32(out, trak.seq);
    out = put32(out, 0);
    out = put32(out, trak.lsr_sec << 16 | trak.lsr_frac >> 16);
    put32(out, 1);
    hand_over(rtp, event_t::rtcp, 4 * rr_words);
    core_log_print(rtp.log, "%d: send rtcp rr %u: seq: %hu lsr:%u.%u", rtp.id, trak.ssrc, trak.seq, trak.lsr_sec,
                   trak.lsr_frac);
}

bool says_bye(std::span<const uint8_t> compound, uint32_t ssrc) noexcept {
    while (compound.size() >= 4) {
        const size_t size = 4 * (size_t{get16(compound, 2)} + 1);
        if (size > compound.size()) break;
        const size_t sources = compound[1] == rtcp_bye ? compound[0] & 0x1F : 0;
        for (size_t at = 4; at <= 4 * sources && at + 4 <= size; at += 4) {
            if (get32(compound, at) == ssrc) return true;
        }
        compound = compound.subspan(size);
    }
    return false;
}

}  // namespace rtp
