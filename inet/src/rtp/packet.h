// Shared inside the RTP family: limits, network byte order, framing, clocks and reports.
#pragma once

#include "core/buf.h"
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

// A wider step of the sequence numbers is another start of the sender, no loss and no disorder (RFC 3550, A.1).
inline constexpr int max_dropout = 3000;
inline constexpr int max_misorder = 100;

// Big-endian writers; each returns the place behind what it wrote.
inline uint8_t* put16(uint8_t* out, uint32_t value) noexcept {
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
    return out + 2;
}

inline uint8_t* put32(uint8_t* out, uint32_t value) noexcept { return put16(put16(out, value >> 16), value); }

/// Writes the fixed header (RFC 3550, 5.1). @param pt  payload type, with the marker
inline uint8_t* put_header(uint8_t* out, uint32_t pt, uint32_t seq, uint32_t rtp_time, uint32_t ssrc) noexcept {
    out[0] = version_2;
    out[1] = static_cast<uint8_t>(pt);
    return put32(put32(put16(out + 2, seq), rtp_time), ssrc);
}

// Big-endian readers; the bytes are there.
inline uint16_t get16(std::span<const uint8_t> bytes, size_t at) noexcept {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

inline uint32_t get32(std::span<const uint8_t> bytes, size_t at) noexcept {
    return uint32_t{get16(bytes, at)} << 16 | get16(bytes, at + 2);
}

// Packets one behind the other, each behind the framing for an RTSP connection (RFC 2326, 10.12), built in place.

inline constexpr uint32_t interleaved_header = 4;

/// Makes room behind the held bytes for the longest packet with its framing, and has the next one built there.
/// @return false when memory is out; the packet then has the packetizer's own room
inline bool make_interleaved_room(buf_t& to, Rtp& packetizer, const char* file, int line) noexcept {
    const bool there = core_buf_respace(&to, interleaved_header + packet_size, file, line) != 0;
    packetizer.set_packet_room(there ? to.data + to.length + interleaved_header : nullptr);
    return there;
}

/// Takes in the packet that was built there.
inline void add_interleaved(buf_t& to, uint8_t channel, uint32_t length) noexcept {
    uint8_t* const framing = to.data + to.length;
    framing[0] = '$';
    framing[1] = channel;
    put16(framing + 2, length);
    to.length += interleaved_header + length;
}

/// Ticks of a clock of `rate` Hz in `seconds` + `part` / `parts` seconds, truncated, modulo 2^32. `part` is below
/// `parts` and that at most 2^32. Exact for whole rates; a rate outside 0 up to 2^32 counts as 0.
uint32_t clock_ticks(uint64_t seconds, uint64_t part, uint64_t parts, double rate) noexcept;

/// The same of an NTP time since 1900.
inline uint32_t ntp_ticks(uint64_t ntp, double rate) noexcept {
    return clock_ticks(ntp >> 32, static_cast<uint32_t>(ntp), uint64_t{1} << 32, rate);
}

/// Media time between two reports, in microseconds.
inline constexpr uint64_t report_interval = 2000000;

/// A sender report without report blocks (RFC 3550, 6.4.1).
struct sender_report_t {
    static constexpr uint32_t size = 28;

    uint32_t ssrc;
    uint64_t ntp;
    uint32_t rtp_time;
    uint32_t packets;
    uint32_t octets;

    void write(uint8_t* out) const noexcept;
};

/// Sets the packet's length and tells the handler.
inline void hand_over(Rtp& rtp, event_t::enum_t event, uint32_t length) noexcept {
    rtp.packet.length = length;
    if (rtp.handler) rtp.handler->on_rtp_event(&rtp, event);
}

/// Whether the media time of the track has come to its next report; then the one after it is set.
bool report_due(trak_t& trak) noexcept;
/// Each makes the track current and sends one report on it.
void send_sender_report(Rtp& rtp, trak_t& trak, report_clock_t clock) noexcept;
void send_receiver_report(Rtp& rtp, trak_t& trak) noexcept;
/// Whether one of the packets of a compound (RFC 3550, 6.1) is a BYE (6.6) of the source.
bool says_bye(std::span<const uint8_t> compound, uint32_t ssrc) noexcept;

}  // namespace rtp
