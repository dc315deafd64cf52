// Session descriptions by both faces, and the texts in them that set up a decoder.
#include "fuzz.h"

#include "core/array.h"
#include "core/memory.h"
#include "inet/net_sdp.h"

#include <cstring>
#include <string>

namespace {

using fuzz::require;

bool same(const char* a, const char* b) { return a && b ? std::strcmp(a, b) == 0 : a == b; }

/// Both faces find the same tracks.
void compare(const net::sdp::sdp_t& sdp, const net::sdp::Sdp& object) {
    const uint32_t count = core_array_length(reinterpret_cast<void* const*>(sdp.traks));
    require(count <= sdp_max_traks);
    require(count == core_array_length(reinterpret_cast<void* const*>(object.medias)));
    for (uint32_t i = 0; i < count; ++i) {
        const net::sdp::trak_t& trak = *sdp.traks[i];
        const net::sdp::media_s& media = *object.medias[i];
        require(trak.pt == media.pt && trak.port == media.port && trak.clock_rate == media.clock_rate);
        require(same(trak.control, media.control) && same(trak.encoding, media.encoding));
        require(same(trak.sprop_parameter_sets, media.sprop_parameter_sets) && same(trak.config, media.config));
    }
}

void set_up(char* value) {
    buf_t sets;
    buf_t config;
    sdp_parse_sprop_parameter_sets(value, &sets, CORE_HERE);
    sdp_parse_config(value, &config, CORE_HERE);
    buffer_t sps;
    buffer_t pps;
    buffer_t bytes;
    net::sdp::Sdp().parse_sprop_parameter_sets(value, sps, pps);
    net::sdp::Sdp().parse_config(value, bytes);
    require(fuzz::starved || sets.length == (std::strchr(value, ',') ? sps.size + pps.size + 6 : 0));
    require((fuzz::starved || config.length == bytes.size) && bytes.size <= std::strlen(value) / 2);
    for (buf_t* buf : {&sets, &config})
        core_buf_free(buf);
    for (buffer_t* buffer : {&sps, &pps, &bytes})
        core_buffer_free(buffer);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    std::string text = fuzz::text_of(input);
    net::sdp::sdp_t* sdp = sdp_parse(text.c_str(), CORE_HERE);
    require(sdp || fuzz::starved);
    {
        net::sdp::Sdp object;
        object.parse(text.c_str());
        if (!fuzz::starved) compare(*sdp, object);
        object.free_configs();
    }
    sdp_free(sdp);
    set_up(text.data());
}
