/// RTSP as a service of a station: every stream at rtsp://host:port/NAME, over TCP interleaved, UDP, multicast and HTTP
/// (inet/rtsp_protocol.h).
///
/// A client begins with the last key picture. It is sent that picture and all later frames at four times their pace,
/// until it has reached the present. A client that does not keep up loses whole pictures up to the next key picture.
///
/// Formats served: H.264, JPEG, G.711 u-law and A-law, AAC, metadata. DESCRIBE waits up to five seconds for the formats
/// of a stream, then the answer is 503.
///
/// Bounds for one client:
///     unsent        rtsp_settings_t::backlog and one frame
///     unread        the bounds of rtsp3::Rtsp
///     silence       rtsp_settings_t::timeout; ten seconds before the first request
///     stall         rtsp_settings_t::stall
#pragma once

#include "media/api.h"
#include "media/service.h"

#include <cstdint>

namespace media {

/// The texts are copied.
struct rtsp_settings_t {
    uint16_t port = 8554;        ///< 0 lets the system choose
    const char* user = nullptr;  ///< with a password: every request but OPTIONS needs a Digest answer
    const char* password = nullptr;
    bool at_key = true;                  ///< clients begin with the last key picture, else with the next one
    uint32_t backlog = 2 * 1024 * 1024;  ///< bytes that may wait for a client
    unsigned stall = 10;                 ///< seconds after which a client that takes next to nothing is reset
    unsigned timeout = 60;               ///< seconds without request or report after which a session ends
    const char* multicast = nullptr;     ///< group; null for no multicast
    uint16_t multicast_port = 5004;      ///< of the first track's RTP; RTCP and the other tracks follow
    uint8_t ttl = 1;                     ///< time to live of multicast packets, in hops
    const char* without_aac = nullptr;   ///< name of a stream whose AAC is left out; null for none
};

/// @return a service for station::add(); null when memory is out
MEDIA_API service* rtsp_service(const rtsp_settings_t& settings = {}) noexcept;

}  // namespace media
