// Session descriptions by both faces, and the texts in them that set up a decoder.
#include "fuzz.h"

#include "core/array.h"
#include "inet/net_sdp.h"

namespace {

bool same(const char* a, const char* b) { return a && b ? std::strcmp(a, b) == 0 : a == b; }

template <class Record>
uint32_t count(Record* const* list) {
    return core_array_length(reinterpret_cast<void* const*>(list));
}

/// These are the tracks of the object.
template <class Track>
void compare(Track* const* tracks, const net::sdp::Sdp& object) {
    require(count(tracks) <= sdp_max_traks && count(tracks) == count(object.medias));
    for (uint32_t i = 0; i < count(tracks); ++i) {
        const Track& a = *tracks[i];
        const net::sdp::media_s& b = *object.medias[i];
        require(a.pt == b.pt && a.port == b.port && a.framerate == b.framerate && a.clock_rate == b.clock_rate);
        require(a.channels == b.channels && same(a.media, b.media) && same(a.control, b.control));
        require(same(a.encoding, b.encoding) && same(a.config, b.config));
        require(same(a.sprop_parameter_sets, b.sprop_parameter_sets));
    }
}

/// A track that could not be held takes its lines with it: no other gets them.
template <class Record>
void require_own_lines(Record* const* tracks, Record* const* whole) {
    for (uint32_t i = 0; i < count(tracks); ++i)
        require(std::any_of(whole, whole + count(whole), [&track = *tracks[i]](const Record* of) {
            return of->port == track.port && of->pt == track.pt && (!track.control || same(of->control, track.control));
        }));
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
    // Both faces decode the same; without memory, which fails one of the two, that one nothing.
    const auto text_of = [](const uint8_t* data, size_t size) { return fuzz::text_of({data, size}); };
    const std::string code("\0\0\1", 3);
    const std::string both = code + text_of(sps.data, sps.size) + code + text_of(pps.data, pps.size);
    require(text_of(sets.data, sets.length) == (std::strchr(value, ',') ? both : "") ||
            (fuzz::starved && (sets.length == 0 || sps.size + pps.size == 0)));
    require(text_of(config.data, config.length) == text_of(bytes.data, bytes.size) ||
            (fuzz::starved && (config.length == 0 || bytes.size == 0)));
    for (buf_t* buf : {&sets, &config})
        core_buf_free(buf);
    for (buffer_t* buffer : {&sps, &pps, &bytes})
        core_buffer_free(buffer);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    using held_sdp = core::owned<net::sdp::sdp_t, sdp_free>;
    std::string text = fuzz::text_of(input);
    const held_sdp sdp(sdp_parse(text.c_str(), CORE_HERE));
    require(sdp || fuzz::starved);
    net::sdp::Sdp object;
    object.parse(text.c_str());
    net::sdp::Sdp copied;
    copied = object;
    if (copied.medias || !fuzz::starved) compare(copied.medias, object);
    copied.free_configs();
    if (!fuzz::starved) compare(sdp->traks, object);
    if (fuzz::starved) {
        const held_sdp whole(sdp_parse(text.c_str(), CORE_HERE));
        if (sdp) require_own_lines(sdp->traks, whole->traks);
        net::sdp::Sdp object_whole;
        object_whole.parse(text.c_str());
        require_own_lines(object.medias, object_whole.medias);
        object_whole.free_configs();
    }
    object.free_configs();
    set_up(text.data());
}
