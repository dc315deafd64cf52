// Session descriptions by both faces, and the texts in them that set up a decoder.
#include "fuzz.h"

#include "core/array.h"
#include "core/memory.h"
#include "inet/net_sdp.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

using fuzz::require;

bool same(const char* a, const char* b) { return a && b ? std::strcmp(a, b) == 0 : a == b; }

template <class Record>
uint32_t count(Record* const* list) {
    return core_array_length(reinterpret_cast<void* const*>(list));
}

/// Both faces find the same tracks.
void compare(const net::sdp::sdp_t& sdp, const net::sdp::Sdp& object) {
    require(count(sdp.traks) <= sdp_max_traks && count(sdp.traks) == count(object.medias));
    for (uint32_t i = 0; i < count(sdp.traks); ++i) {
        const net::sdp::trak_t& trak = *sdp.traks[i];
        const net::sdp::media_s& media = *object.medias[i];
        require(trak.pt == media.pt && trak.port == media.port && trak.framerate == media.framerate);
        require(trak.clock_rate == media.clock_rate && trak.channels == media.channels);
        require(same(trak.media, media.media) && same(trak.control, media.control));
        require(same(trak.encoding, media.encoding) && same(trak.config, media.config));
        require(same(trak.sprop_parameter_sets, media.sprop_parameter_sets));
    }
}

/// A track that could not be held takes its lines with it: no other gets them.
template <class Record>
void require_own_lines(Record* const* tracks, Record* const* whole) {
    for (; tracks && *tracks; ++tracks) {
        const Record& track = **tracks;
        const auto is_track = [&track](const Record* of) {
            return of->port == track.port && of->pt == track.pt && (!track.control || same(of->control, track.control));
        };
        require(std::any_of(whole, whole + count(whole), is_track));
    }
}

void copy(const net::sdp::Sdp& object) {
    net::sdp::Sdp copied;
    copied = object;
    require(count(copied.medias) == count(object.medias) || (fuzz::starved && !copied.medias));
    for (uint32_t i = 0; i < count(copied.medias); ++i) {
        const net::sdp::media_s& from = *object.medias[i];
        const net::sdp::media_s& to = *copied.medias[i];
        require(same(to.media, from.media) && same(to.control, from.control) && same(to.encoding, from.encoding));
        require(same(to.sprop_parameter_sets, from.sprop_parameter_sets) && same(to.config, from.config));
    }
    copied.free_configs();
}

std::string text_of(const buf_t& buf) { return fuzz::text_of({buf.data, buf.length}); }
std::string text_of(const buffer_t& buffer) { return fuzz::text_of({buffer.data, buffer.size}); }

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
    // Both faces decode the same; without memory, which fails one of the two, that one nothing.
    const std::string code("\0\0\1", 3);
    const std::string both = std::strchr(value, ',') ? code + text_of(sps) + code + text_of(pps) : "";
    require(text_of(sets) == both || (fuzz::starved && (sets.length == 0 || sps.size + pps.size == 0)));
    require(text_of(config) == text_of(bytes) || (fuzz::starved && (config.length == 0 || bytes.size == 0)));
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
    net::sdp::Sdp object;
    object.parse(text.c_str());
    copy(object);
    if (!fuzz::starved) compare(*sdp, object);
    if (fuzz::starved && sdp) {
        net::sdp::sdp_t* whole = sdp_parse(text.c_str(), CORE_HERE);
        require_own_lines(sdp->traks, whole->traks);
        sdp_free(whole);
        net::sdp::Sdp object_whole;
        object_whole.parse(text.c_str());
        require_own_lines(object.medias, object_whole.medias);
        object_whole.free_configs();
    }
    object.free_configs();
    sdp_free(sdp);
    set_up(text.data());
}
