// Packets one behind the other, each behind the framing for an RTSP connection (RFC 2326, 10.12), built in place.
#pragma once

#include "core/buf.h"
#include "inet/rtp_protocol.h"

#include <cstdint>

namespace rtp {

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
    framing[2] = static_cast<uint8_t>(length >> 8);
    framing[3] = static_cast<uint8_t>(length);
    to.length += interleaved_header + length;
}

/// Length of the packet behind a framing.
inline uint32_t interleaved_length(const uint8_t* framing) noexcept {
    return static_cast<uint32_t>(framing[2] << 8 | framing[3]);
}

}  // namespace rtp
