// What a server says of its stream: the description (RFC 4566), where it stands, and how it starts.
#include "rtsp/client.h"
#include "scan.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "inet/net_sdp.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

namespace rtsp3 {

using net::http::header_s;

namespace {

struct sdp_deleter {
    void operator()(net::sdp::sdp_t* sdp) const noexcept { sdp_free(sdp); }
};
struct rtp_info_deleter {
    void operator()(net::sdp::rtp_info_s** infos) const noexcept { sdp_free_rtp_info(infos); }
};

/// An encoding that is received.
struct encoding_t {
    const char* name;
    const char* media;  ///< that may come without an rtpmap, with
    uint32_t pt;        ///< this payload type (RFC 3551, section 6); null for none
    uint32_t fcc;
    uint32_t clock_rate;  ///< when the description has none
};

constexpr encoding_t encodings[] = {
    {"H264", nullptr, 0, av::fcc_h264, 90000},          {"JPEG", "video", 26, av::fcc_jpeg, 90000},
    {"PCMU", "audio", 0, av::fcc_pcmu, 8000},           {"PCMA", "audio", 8, av::fcc_pcma, 8000},
    {"mpeg4-generic", nullptr, 0, av::fcc_mp4a, 44100}, {"MP4A-LATM", nullptr, 0, av::fcc("MP4A"), 44100},
    {"G726", nullptr, 0, av::fcc_g726, 8000},           {"G726-32", nullptr, 0, av::fcc_g726, 8000},
    {"univ.metadata", nullptr, 0, av::fcc_meta, 90000}, {"vnd.onvif.metadata", nullptr, 0, av::fcc_meta, 90000},
};

const encoding_t* find_encoding(const net::sdp::trak_t& media) noexcept {
    const auto* found = std::ranges::find_if(encodings, [&](const encoding_t& known) {
        if (media.encoding) return core_strcasecmp(media.encoding, known.name) == 0;
        return known.media && media.pt == known.pt && core_strcasecmp(media.media, known.media) == 0;
    });
    return found == std::end(encodings) ? nullptr : found;
}

bool is_absolute(std::string_view uri) noexcept { return uri.find("://") != std::string_view::npos; }

/// Where the path of an absolute URI starts, or its end.
size_t path_start(std::string_view uri) noexcept { return std::min(uri.find('/', uri.find("://") + 3), uri.size()); }

bool is_group(std::string_view address) noexcept {
    const uint32_t first = scan::decimal(address);
    return first >= 224 && first <= 239;
}

}  // namespace

// False when memory is out.
bool Rtsp::take_content_base(const header_s* header) noexcept {
    base_.reset();
    for (const char* name : {"Content-Base", "Content-Location"}) {
        const char* value = field(header, name);
        if (!value || !is_absolute(value) || !is_request_uri(value)) continue;
        base_.reset(core_strdup(value, file_, line_));
        return base_ != nullptr;
    }
    return true;
}

// What PLAY and what follows it ask for (RFC 2326, C.3).
const char* Rtsp::aggregate_uri() const noexcept { return base_ ? base_.get() : uri_.get(); }

// False when memory is out. A description that says nothing leaves no track.
bool Rtsp::take_description(const char* text) noexcept {
    if (!text) return true;
    const std::unique_ptr<net::sdp::sdp_t, sdp_deleter> sdp(sdp_parse(text, file_, line_));
    if (!sdp) return false;
    for (net::sdp::trak_t** media = sdp->traks; media && *media; ++media) {
        if (trak_count_ == max_traks) {
            core_log_print(log_, "%d: more than %u tracks", id_, max_traks);
            break;
        }
        if (!add_described(**media)) return false;
    }
    return true;
}

bool Rtsp::add_described(const net::sdp::trak_t& media) noexcept {
    core::owned_object<trak_t> trak(core::create<trak_t>(file_, line_));
    if (!trak) return false;
    trak->gathered = core::create<trak_t::gathered_t>(file_, line_);
    trak->name.reset(core_strdup(media.media ? media.media : "", file_, line_));
    trak->control.reset(core_strdup(media.control, file_, line_));
    trak->uri = control_uri(media.control);
    if (!trak->gathered || !trak->name || (media.control && !trak->control) || !trak->uri) return false;
    trak->media = trak->name.get();
    trak->channel = static_cast<uint8_t>(2 * trak_count_);
    trak->rate = media.clock_rate;
    trak->channels = media.channels;
    if (media.connection && is_group(media.connection)) {
        trak->destination.reset(core_strndup(media.connection, std::strcspn(media.connection, "/"), file_, line_));
        trak->server_port = static_cast<uint16_t>(media.port <= max_port ? media.port : 0);
    }

    const encoding_t* encoding = find_encoding(media);
    if (encoding) {
        trak->fcc = encoding->fcc;
        if (!trak->rate) trak->rate = encoding->clock_rate;
        if (trak->fcc == av::fcc_mp4a) sdp_parse_config(media.config, &trak->config, file_, line_);
        if (trak->fcc == av::fcc_h264)
            sdp_parse_sprop_parameter_sets(media.sprop_parameter_sets, &trak->parameter_sets, file_, line_);
        trak->gathered->sets_changed = trak->parameter_sets.length > 0;
    }
    if (encoding && media.pt < 128 && !rtp_.get_trak_pt(static_cast<uint8_t>(media.pt)) &&
        is_request_uri(trak->uri.get())) {
        trak->rtp = rtp_.add_trak(static_cast<uint8_t>(media.pt), trak->fcc);
        if (!trak->rtp) return false;
        trak->rtp->clock_rate = trak->rate;
        trak->wanted = 1;
    }
    traks_[trak_count_++] = trak.release();
    return true;
}

// Appended to the base, as servers mean it, and not resolved against it (RFC 3986, 5.2): bases often lack the last '/'.
core::owned_text Rtsp::control_uri(const char* control) const noexcept {
    const std::string_view base = scan::text(base_ ? base_.get() : content_base_.get());
    const std::string_view value = scan::text(control);
    const auto print = [&](std::string_view front, const char* between, std::string_view back) {
        return core::owned_text(core_sprintf(file_, line_, "%.*s%s%.*s", static_cast<int>(front.size()), front.data(),
                                             between, static_cast<int>(back.size()), back.data()));
    };
    if (value.empty() || value == "*") return print(aggregate_uri(), "", "");
    if (is_absolute(value)) {
        const size_t host = value.find("://") + 3;
        const size_t at = value.substr(0, path_start(value)).rfind('@');
        return at == std::string_view::npos || at < host ? print(value, "", "")
                                                         : print(value.substr(0, host), "", value.substr(at + 1));
    }
    if (value.starts_with('/')) return print(base.substr(0, path_start(base)), "", value);
    return print(base, base.ends_with('/') ? "" : "/", value);
}

// Each entry goes to a track of its own, the one named exactly first: tracks of one medium may have one control value.
void Rtsp::take_rtp_info(const char* value) noexcept {
    bool taken[max_traks] = {};
    // What has already come is more certain than what was announced.
    const auto waits = [](const trak_t& trak) { return trak.rtp && trak.rtp->received == trak.gathered->before_play; };
    for (uint32_t i = 0; i < trak_count_; ++i) {
        if (!waits(*traks_[i])) continue;
        traks_[i]->rtp->time = play_time_;
        traks_[i]->gathered->started = false;
    }
    const std::unique_ptr<net::sdp::rtp_info_s*, rtp_info_deleter> infos(sdp_parse_rtp_info(value, file_, line_));
    for (net::sdp::rtp_info_s** info = infos.get(); info && *info; ++info) {
        const std::string_view url = scan::text((*info)->url);
        trak_t* trak = trak_of_url(url, true, taken);
        if (!trak) trak = trak_of_url(url, false, taken);
        if (!trak) continue;
        taken[std::find(traks_, traks_ + trak_count_, trak) - traks_] = true;
        if (!waits(*trak)) continue;
        const auto seq = scan::number(scan::text((*info)->seq));
        const auto rtptime = scan::number(scan::text((*info)->rtptime));
        if (seq) trak->rtp->seq = static_cast<uint16_t>(*seq);
        if (!rtptime) continue;
        trak->rtp->rtp_time = trak->gathered->last_rtp_time = *rtptime;
        trak->gathered->started = true;
    }
}

trak_t* Rtsp::trak_of_url(std::string_view url, bool exact, const bool* taken) noexcept {
    for (uint32_t i = 0; i < trak_count_; ++i) {
        const std::string_view control = scan::text(traks_[i]->control.get());
        if (taken[i] || !traks_[i]->set_up) continue;
        if (exact ? names_control(url, control) : url.find(control) != std::string_view::npos) return traks_[i];
    }
    return nullptr;
}

}  // namespace rtsp3
