// Transport of a SETUP (RFC 2326, 12.39).
#pragma once

#include "inet/rtsp_protocol.h"

#include <cstdint>

namespace rtsp3 {

struct transport_choice {
    protocol_t::enum_t protocol = protocol_t::rtp_tcp;
    bool has_channel = false;  ///< the player named the channels
    uint8_t channel = 0;
    uint16_t client_port = 0;
};

/// Takes the first alternative of a Transport value that can be served: interleaved, or UDP unicast with a client port.
/// @return 0; 400 when no alternative can be read; 461 when none can be served; 500 when memory is out
unsigned choose_transport(const char* value, const char* file, int line, transport_choice* out) noexcept;

}  // namespace rtsp3
