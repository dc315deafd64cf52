#include "rtp/packet.h"

#include <cmath>

namespace {

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
