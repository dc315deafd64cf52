// The RTSP fields Transport and RTP-Info.
#include "fuzz.h"

#include "core/array.h"
#include "inet/net_sdp.h"

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    const core::owned<net::sdp::transport_t, sdp_free_transport> transport(
        sdp_parse_transport(text.c_str(), CORE_HERE));
    unsigned ssrc = 0;
    unsigned channels[2];
    net::sdp::Sdp().parse_transport(text.c_str(), &ssrc, &channels[0], &channels[1]);
    require(fuzz::starved || (transport && transport->ssrc == ssrc));
    if (transport) require(transport->unicast <= 1 && transport->multicast <= 1 && transport->tcp <= 1);

    net::sdp::rtp_info_s** infos = sdp_parse_rtp_info(text.c_str(), CORE_HERE);
    require(core_array_length(reinterpret_cast<void* const*>(infos)) <= sdp_max_rtp_infos);
    sdp_free_rtp_info(infos);
}
