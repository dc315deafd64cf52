// The RTSP fields Transport and RTP-Info.
#include "core/array.h"
#include "core/memory.h"
#include "inet/net_sdp.h"

#include <cstdlib>
#include <string>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    net::sdp::transport_t* transport = sdp_parse_transport(text.c_str(), CORE_HERE);
    unsigned ssrc = 0;
    unsigned channels[2];
    net::sdp::Sdp().parse_transport(text.c_str(), &ssrc, &channels[0], &channels[1]);
    require(transport->ssrc == ssrc);
    require(transport->unicast <= 1 && transport->multicast <= 1 && transport->tcp <= 1);
    sdp_free_transport(transport);

    net::sdp::rtp_info_s** infos = sdp_parse_rtp_info(text.c_str(), CORE_HERE);
    require(core_array_length(reinterpret_cast<void* const*>(infos)) <= sdp_max_rtp_infos);
    sdp_free_rtp_info(infos);
    require(core_mem_blocks() == 0);
    return 0;
}
