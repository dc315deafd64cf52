// Describes the tracks (RFC 4566) in answer to DESCRIBE.
#include "rtsp/server.h"

#include "avc/fcc.h"
#include "common/digest.h"
#include "common/h264.h"
#include "core/text.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace rtsp3 {

const format_t* find_format(uint32_t fcc) noexcept {
    static constexpr format_t formats[] = {
        {av::fcc_h264, "video", 0, "H264/90000", 90000},
        {av::fcc_meta, "application", 107, "vnd.onvif.metadata/90000", 90000},
        {av::fcc_jpeg, "video", 26, nullptr, 90000},
        {av::fcc_pcmu, "audio", 0, "PCMU/8000/1", 8000},
        {av::fcc_univ, "univ", 0, "univ.metadata/90000", 90000},
        {av::fcc_pcma, "audio", 8, "PCMA/8000/1", 8000, true},
        {av::fcc_mp4a, "audio", 0, "mpeg4-generic", 0, true},
    };
    const auto format =
        std::find_if(std::begin(formats), std::end(formats), [&](const format_t& known) { return known.fcc == fcc; });
    return format == std::end(formats) ? nullptr : format;
}

namespace {

constexpr uint64_t us_per_second = 1000000;

/// Of a format whose clock and channels the owner told, these stand behind its name.
core::owned_text rtpmap(const conversation& talk, const track_t& track) noexcept {
    const char* const usual = find_format(track.fcc)->rtpmap;
    if (!usual || track.rate == 0) return core::owned_text(core_strdup(usual, talk.file, talk.line));
    return core::owned_text(core_sprintf(talk.file, talk.line, "%.*s/%u/%u", static_cast<int>(std::strcspn(usual, "/")),
                                         usual, track.rate, std::max(track.channels, 1U)));
}

/// RFC 3640, 4.1. The profile level is "not specified" (ISO/IEC 14496-3, table 1.14).
core::owned_text fmtp(const conversation& talk, const track_t& track) noexcept {
    core::owned_text line(core_sprintf(talk.file, talk.line,
                                       "a=fmtp:%hhu streamtype=5;profile-level-id=254;mode=AAC-hbr;sizelength=13;"
                                       "indexlength=3;indexdeltalength=3;config=",
                                       track.rtp->pt));
    for (uint32_t i = 0; line && i < track.config.length; ++i)
        line.reset(core_sprintf(talk.file, talk.line, "%s%02x", line.get(), unsigned{track.config.data[i]}));
    return line;
}

/// The description with the parameter sets of a track behind it (RFC 6184, 8.1); null when memory is out.
core::owned_text add_parameter_sets(core::owned_text sdp, const track_t& track, const char* file, int line) noexcept {
    std::span<const uint8_t> sets(track.parameter_sets.data, track.parameter_sets.length);
    const auto sps = h264_find(sets, h264_sps);
    if (!sdp || sps.size() < 4) return sdp;
    sdp.reset(core_sprintf(file, line,
                           "%sa=fmtp:%hhu packetization-mode=1;profile-level-id=%02x%02x%02x;sprop-parameter-sets",
                           sdp.get(), track.rtp->pt, unsigned{sps[1]}, unsigned{sps[2]}, unsigned{sps[3]}));
    const char* before = "=";
    for (auto set = h264_next_nal(sets); sdp && !set.empty(); set = h264_next_nal(sets)) {
        if (h264_nal_type(set) != h264_sps && h264_nal_type(set) != h264_pps) continue;
        const core::owned_text coded(b64(set.data(), set.size(), file, line));
        sdp.reset(coded ? core_sprintf(file, line, "%s%s%s", sdp.get(), before, coded.get()) : nullptr);
        before = ",";
    }
    if (sdp) sdp.reset(core_sprintf(file, line, "%s\r\n", sdp.get()));
    return sdp;
}

}  // namespace

core::owned_text describe(const conversation& talk, const char* name, uint64_t start_us, uint64_t end_us) noexcept {
    core::owned_text sdp(core_sprintf(talk.file, talk.line,
                                      "v=0\r\n"
                                      "o=- 0 0 IN IP4 0.0.0.0\r\n"
                                      "s=%s\r\n"
                                      "c=IN IP4 0.0.0.0\r\n"
                                      "t=0 0\r\n"
                                      "a=recvonly\r\n",
                                      name));
    if (sdp && start_us && end_us) {
        const uint64_t span = end_us > start_us ? end_us - start_us : 0;
        sdp.reset(core_sprintf(talk.file, talk.line, "%sa=range:npt=0-%u\r\n", sdp.get(),
                               static_cast<unsigned>(span / us_per_second)));
    }
    for (const track_t* each : talk.tracks()) {
        if (!sdp) break;
        sdp.reset(core_sprintf(talk.file, talk.line,
                               "%s"
                               "m=%s 0 RTP/AVP %hhu\r\n"
                               "a=recvonly\r\n"
                               "a=control:%s\r\n",
                               sdp.get(), each->media, each->rtp->pt, each->media));
        const core::owned_text map = sdp && find_format(each->fcc)->rtpmap ? rtpmap(talk, *each) : nullptr;
        if (sdp && find_format(each->fcc)->rtpmap)
            sdp.reset(
                map ? core_sprintf(talk.file, talk.line, "%sa=rtpmap:%hhu %s\r\n", sdp.get(), each->rtp->pt, map.get())
                    : nullptr);
        sdp = add_parameter_sets(std::move(sdp), *each, talk.file, talk.line);
        if (!sdp || each->config.length == 0) continue;
        const core::owned_text parameters = fmtp(talk, *each);
        sdp.reset(parameters ? core_sprintf(talk.file, talk.line, "%s%s\r\n", sdp.get(), parameters.get()) : nullptr);
    }
    return sdp;
}

}  // namespace rtsp3
