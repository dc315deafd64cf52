// Transport of a SETUP (RFC 2326, 12.39).
#pragma once

#include "inet/rtsp_protocol.h"

#include <cstdint>
#include <span>

namespace rtsp3 {

struct transport_choice {
    protocol_t::enum_t protocol = protocol_t::rtp_tcp;
    bool has_channel = false;  ///< the client named the channels
    uint8_t channel = 0;
    uint16_t client_port = 0;
};

// Server

/// Takes alternatives off the front of a Transport value up to the first that can be served: interleaved, UDP unicast
/// with a client port, or UDP multicast.
/// @param value  moves behind what was taken
/// @return 0; 400 when no alternative can be read; 461 when none can be served; 500 when memory is out
unsigned choose_transport(const char** value, const char* file, int line, transport_choice* out) noexcept;

/// The answer to a SETUP.
void print_granted(const trak_t& trak, const char* destination, unsigned port, std::span<char> out) noexcept;

// Client

/// What a SETUP asks for.
void print_asked(const trak_t& trak, std::span<char> out) noexcept;

/// Takes the answer into the track. What the server leaves out stays as it was asked for.
/// @return false when it cannot be used, or memory is out
bool take_granted(trak_t& trak, const char* value, const char* file, int line) noexcept;

}  // namespace rtsp3
