// RTCP reports (RFC 3550, section 6).
#include "rtp/packet.h"

#include "core/time.h"

namespace {

constexpr uint64_t report_interval = 2000000;
constexpr uint8_t rtcp_sr = 200;
constexpr uint32_t sr_words = 7;  // RFC 3550, 6.4.1, without report blocks

}  // namespace

namespace rtp {

void Rtp::report_if_due() noexcept {
    if (current->time < current->next_rtcp) return;
    pack_rtcp_sr(current);
    current->next_rtcp = current->time + report_interval;
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

}  // namespace rtp
