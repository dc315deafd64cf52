// Transport of a SETUP (RFC 2326, 12.39).
#pragma once

#include "inet/net_sdp.h"
#include "inet/rtsp_protocol.h"

#include <cstdint>
#include <memory>

namespace rtsp3 {

struct transport_deleter {
    void operator()(net::sdp::transport_t* transport) const noexcept { sdp_free_transport(transport); }
};
using owned_transport = std::unique_ptr<net::sdp::transport_t, transport_deleter>;

struct transport_choice {
    protocol_t::enum_t protocol = protocol_t::rtp_tcp;
    bool has_channel = false;  ///< the player named the channels
    uint8_t channel = 0;
    uint16_t client_port = 0;
};

/// Takes alternatives off the front of a Transport value up to the first that can be served: interleaved, UDP unicast
/// with a client port, or UDP multicast.
/// @param value  moves behind what was taken
/// @return 0; 400 when no alternative can be read; 461 when none can be served; 500 when memory is out
unsigned choose_transport(const char** value, const char* file, int line, transport_choice* out) noexcept;

}  // namespace rtsp3
