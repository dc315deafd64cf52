#include "rtsp/transport.h"

#include "rtsp/session.h"

#include "core/owned.h"
#include "core/text.h"

#include <cstring>

namespace rtsp3 {

namespace {

/// "RTP/AVP", "RTP/AVP/UDP" or "RTP/AVP/TCP" at the start of an alternative.
bool is_profile(const char* text, const char* profile) noexcept {
    const size_t length = std::strlen(profile);
    return core_strncasecmp(text, profile, length) == 0 && (text[length] == 0 || text[length] == ';');
}

unsigned choose(const char* text, const net::sdp::transport_t* read, transport_choice* out) noexcept {
    *out = transport_choice();
    const bool udp = is_profile(text, "RTP/AVP") || is_profile(text, "RTP/AVP/UDP");
    if (read->multicast) {
        out->protocol = protocol_t::rtp_multicast;
        return udp ? 0 : 461;
    }
    if (is_profile(text, "RTP/AVP/TCP")) {
        out->protocol = protocol_t::rtp_tcp;
        out->has_channel = std::strstr(text, "interleaved=") && read->client_port <= max_channel;
        out->channel = static_cast<uint8_t>(out->has_channel ? read->client_port : 0);
        return 0;
    }
    if (!udp || !std::strstr(text, "client_port=")) return 461;
    if (read->client_port == 0 || read->client_port > max_port) return 461;
    out->protocol = protocol_t::rtp_udp;
    out->client_port = static_cast<uint16_t>(read->client_port);
    return 0;
}

}  // namespace

unsigned choose_transport(const char** value, const char* file, int line, transport_choice* out) noexcept {
    unsigned result = 400;
    while (*value && **value) {
        *value += std::strspn(*value, " \t,");
        const size_t length = std::strcspn(*value, ",");
        const core::owned_text text(core_strndup(*value, length, file, line));
        if (!text) return 500;
        *value += length;
        if (core_strncasecmp(text.get(), "RTP/", 4) != 0) continue;
        const owned_transport read(sdp_parse_transport(text.get(), file, line));
        if (!read) return 500;
        result = choose(text.get(), read.get(), out);
        if (result == 0) break;
    }
    return result;
}

}  // namespace rtsp3
