#include "rtsp/transport.h"

#include "rtsp/conversation.h"

#include "core/owned.h"
#include "core/text.h"
#include "inet/net_sdp.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace rtsp3 {

namespace {

using owned_transport = core::owned<net::sdp::transport_t, sdp_free_transport>;

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

void print_granted(const trak_t& trak, const char* destination, unsigned port, std::span<char> out) noexcept {
    switch (trak.protocol) {
        case protocol_t::rtp_tcp:
            return print_asked(trak, out);
        case protocol_t::rtp_udp:
            std::snprintf(out.data(), out.size(), "RTP/AVP/UDP;unicast;client_port=%u-%u;server_port=%u-%u;",
                          unsigned{trak.client_port}, trak.client_port + 1U, port, port + 1);
            return;
        case protocol_t::rtp_multicast:
            std::snprintf(out.data(), out.size(), "RTP/AVP/UDP;multicast;destination=%s;port=%u-%u", destination, port,
                          port + 1);
            return;
    }
}

void print_asked(const trak_t& trak, std::span<char> out) noexcept {
    switch (trak.protocol) {
        case protocol_t::rtp_tcp:
            std::snprintf(out.data(), out.size(), "RTP/AVP/TCP;unicast;interleaved=%u-%u", unsigned{trak.channel},
                          trak.channel + 1U);
            return;
        case protocol_t::rtp_udp:
            std::snprintf(out.data(), out.size(), "RTP/AVP/UDP;unicast;client_port=%u-%u", unsigned{trak.client_port},
                          trak.client_port + 1U);
            return;
        case protocol_t::rtp_multicast:
            std::snprintf(out.data(), out.size(), "RTP/AVP/UDP;multicast");
            return;
    }
}

bool take_granted(trak_t& trak, const char* value, const char* file, int line) noexcept {
    if (!value) return true;
    const owned_transport read(sdp_parse_transport(value, file, line));
    if (!read) return false;
    trak.server_ssrc = read->ssrc;
    if (trak.protocol == protocol_t::rtp_tcp) {
        const bool has_channel = std::strstr(value, "interleaved=");
        if (has_channel && read->client_port <= max_channel) trak.channel = static_cast<uint8_t>(read->client_port);
        return has_channel || read->tcp;
    }
    if (read->server_port && read->server_port <= max_port) trak.server_port = static_cast<uint16_t>(read->server_port);
    trak.source.reset(std::exchange(read->source, nullptr));
    if (read->destination) trak.destination.reset(std::exchange(read->destination, nullptr));
    // Some name the port of a group as if it were ours.
    const bool named = read->server_port == 0 && read->client_port != 0 && read->client_port <= max_port;
    if (trak.protocol == protocol_t::rtp_multicast && named)
        trak.server_port = static_cast<uint16_t>(read->client_port);
    if (trak.protocol == protocol_t::rtp_multicast) return trak.destination && trak.server_port;
    return !read->tcp;
}

}  // namespace rtsp3
