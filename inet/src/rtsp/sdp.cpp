// Describes the tracks (RFC 4566) in answer to DESCRIBE.
#include "rtsp/session.h"

#include "avc/fcc.h"
#include "core/text.h"

#include <algorithm>
#include <iterator>

namespace rtsp3 {

const format_t* find_format(uint32_t fcc) noexcept {
    static constexpr format_t formats[] = {
        {av::fcc_h264, "video", 0, "H264/90000", 90000},
        {av::fcc_meta, "application", 107, "vnd.onvif.metadata/90000", 90000},
        {av::fcc_jpeg, "video", 26, nullptr, 90000},
        {av::fcc_pcmu, "audio", 0, "PCMU/8000/1", 8000},
        {av::fcc_univ, "univ", 0, "univ.metadata/90000", 90000},
    };
    const auto format =
        std::find_if(std::begin(formats), std::end(formats), [&](const format_t& known) { return known.fcc == fcc; });
    return format == std::end(formats) ? nullptr : format;
}

namespace {

constexpr uint64_t us_per_second = 1000000;

}  // namespace

core::owned_text Rtsp::describe(const char* name, uint64_t start_us, uint64_t end_us) const noexcept {
    core::owned_text sdp(core_sprintf(file_, line_,
                                      "v=0\r\n"
                                      "o=- 0 0 IN IP4 0.0.0.0\r\n"
                                      "s=%s\r\n"
                                      "c=IN IP4 0.0.0.0\r\n"
                                      "t=0 0\r\n"
                                      "a=recvonly\r\n",
                                      name));
    if (sdp && start_us && end_us) {
        const uint64_t span = end_us > start_us ? end_us - start_us : 0;
        sdp.reset(core_sprintf(file_, line_, "%sa=range:npt=0-%u\r\n", sdp.get(),
                               static_cast<unsigned>(span / us_per_second)));
    }
    for (uint32_t i = 0; sdp && i < trak_count_; ++i) {
        const trak_t* trak = traks_[i];
        sdp.reset(core_sprintf(file_, line_,
                               "%s"
                               "m=%s 0 RTP/AVP %hhu\r\n"
                               "a=recvonly\r\n"
                               "a=control:%s\r\n",
                               sdp.get(), trak->media, trak->rtp->pt, trak->media));
        const char* rtpmap = find_format(trak->fcc)->rtpmap;
        if (sdp && rtpmap)
            sdp.reset(core_sprintf(file_, line_, "%sa=rtpmap:%hhu %s\r\n", sdp.get(), trak->rtp->pt, rtpmap));
    }
    return sdp;
}

int Rtsp::send_sdp(const char* s1, const char* s2, const char* s3, uint64_t start_us, uint64_t end_us) noexcept {
    if (!s1 || !s2 || !s3) {
        core_log_print(log_, "%u: sender %s not found", static_cast<unsigned>(id_), uri_ ? uri_.get() : "");
        return send_error(404);
    }
    const core::owned_text name(core_sprintf(file_, line_, "%s %s %s", s1, s2, s3));
    const core::owned_text sdp(name ? describe(name.get(), start_us, end_us) : nullptr);
    if (!sdp) return 0;
    const auto size = static_cast<uint32_t>(core_strlen(sdp.get()));
    reply ok(200, "OK", cseq_);
    ok.put("Content-Base", content_base_ ? content_base_.get() : "");
    ok.put("Content-Type", "application/sdp");
    ok.put_number("Content-Length", size);

    const uint32_t start = send_.length;
    if (!append_header(ok.header(), nullptr)) return 0;
    if (core_buf_read(&send_, sdp.get(), size) != size) {
        send_.length = start;
        return 0;
    }
    core_log_print(log_, "%u: sdp:\n%s", static_cast<unsigned>(id_), sdp.get());
    return announce_reply(start);
}

}  // namespace rtsp3
