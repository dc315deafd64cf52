// Shared inside the RTP family: limits, network byte order and the media clock.
#pragma once

#include "inet/rtp_protocol.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace rtp {

inline constexpr uint8_t marker = 0x80;
inline constexpr uint8_t version_mask = 0xC0;
inline constexpr uint8_t version_2 = 0x80;
inline constexpr uint32_t header_size = 12;
inline constexpr uint8_t jpeg_pt = 26;
inline constexpr uint32_t max_piece = packet_size - header_size;
// Room for the two FU-A bytes is kept for every NAL unit, so that one limit serves whole and cut ones.
inline constexpr uint32_t max_nal_piece = max_piece - 2;

// A wider step of the sequence numbers is another start of the sender, no loss and no disorder (RFC 3550, A.1).
inline constexpr int max_dropout = 3000;
inline constexpr int max_misorder = 100;

// FU-A (RFC 6184, 5.8): its type, and the ends of a NAL unit.
inline constexpr uint8_t fu_a = 28;
inline constexpr uint8_t fu_start = 0x80;
inline constexpr uint8_t fu_end = 0x40;

// Big-endian writers; each returns the place behind what it wrote.
inline uint8_t* put16(uint8_t* out, uint32_t value) noexcept {
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
    return out + 2;
}

inline uint8_t* put32(uint8_t* out, uint32_t value) noexcept { return put16(put16(out, value >> 16), value); }

// Big-endian readers; the bytes are there.
inline uint16_t get16(std::span<const uint8_t> bytes, size_t at) noexcept {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

inline uint32_t get32(std::span<const uint8_t> bytes, size_t at) noexcept {
    return uint32_t{get16(bytes, at)} << 16 | get16(bytes, at + 2);
}

// Ticks of a clock of `rate` Hz in `seconds` + `part` / `parts` seconds, truncated, modulo 2^32. `part` is below
// `parts` and that at most 2^32. Exact for whole rates; a rate outside 0 up to 2^32 counts as 0.
uint32_t clock_ticks(uint64_t seconds, uint64_t part, uint64_t parts, double rate) noexcept;

}  // namespace rtp
