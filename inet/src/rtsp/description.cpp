#include "rtsp/client.h"
#include "scan.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "inet/net_sdp.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

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

bool description::take(const header_s* header) noexcept {
    const core::owned_text text(
        core_strndup(reinterpret_cast<const char*>(talk_.body.data), talk_.body.size, talk_.file, talk_.line));
    core_log_print(talk_.log, "%u: sdp:\n%s", static_cast<unsigned>(talk_.number), text ? text.get() : "");
    if (!take_base(header) || (talk_.body.size && !text)) return false;
    if (!text) return true;
    const std::unique_ptr<net::sdp::sdp_t, sdp_deleter> sdp(sdp_parse(text.get(), talk_.file, talk_.line));
    if (!sdp) return false;
    for (net::sdp::trak_t** media = sdp->traks; media && *media; ++media) {
        if (talk_.trak_total == max_traks) {
            core_log_print(talk_.log, "%d: more than %u tracks", talk_.number, max_traks);
            break;
        }
        if (!add(**media)) return false;
    }
    return true;
}

bool description::take_base(const header_s* header) noexcept {
    base_.reset();
    for (const char* name : {"Content-Base", "Content-Location"}) {
        const char* value = field(header, name);
        if (!value || !is_absolute(value) || !is_request_uri(value)) continue;
        base_.reset(core_strdup(value, talk_.file, talk_.line));
        return base_ != nullptr;
    }
    return true;
}

bool description::add(const net::sdp::trak_t& media) noexcept {
    core::owned_object<track_t> track(core::create<track_t>(talk_.file, talk_.line));
    if (!track) return false;
    track->gathered.reset(core::create<gathered_t>(talk_.file, talk_.line));
    track->name.reset(core_strdup(media.media ? media.media : "", talk_.file, talk_.line));
    track->control.reset(core_strdup(media.control, talk_.file, talk_.line));
    track->encoding.reset(core_strdup(media.encoding, talk_.file, talk_.line));
    track->uri = control_uri(media.control);
    if (!track->gathered || !track->name || (media.control && !track->control) || !track->uri) return false;
    track->media = track->name.get();
    track->channel = static_cast<uint8_t>(2 * talk_.trak_total);
    track->rate = media.clock_rate;
    track->channels = media.channels;
    if (media.connection && is_group(media.connection)) {
        track->destination.reset(
            core_strndup(media.connection, std::strcspn(media.connection, "/"), talk_.file, talk_.line));
        track->server_port = static_cast<uint16_t>(media.port <= max_port ? media.port : 0);
    }

    const encoding_t* encoding = find_encoding(media);
    if (encoding) {
        track->fcc = encoding->fcc;
        if (!track->rate) track->rate = encoding->clock_rate;
        if (track->fcc == av::fcc_mp4a) sdp_parse_config(media.config, &track->config, talk_.file, talk_.line);
        if (track->fcc == av::fcc_h264)
            sdp_parse_sprop_parameter_sets(media.sprop_parameter_sets, &track->parameter_sets, talk_.file, talk_.line);
        track->gathered->sets_changed = track->parameter_sets.length > 0;
    }
    if (encoding && media.pt < 128 && !talk_.rtp.get_trak_pt(static_cast<uint8_t>(media.pt)) &&
        is_request_uri(track->uri.get())) {
        track->rtp = talk_.rtp.add_trak(static_cast<uint8_t>(media.pt), track->fcc);
        if (!track->rtp) return false;
        track->rtp->clock_rate = track->rate;
        track->wanted = 1;
    }
    talk_.add(std::move(track));
    return true;
}

// Appended to the base, as servers mean it, and not resolved against it (RFC 3986, 5.2): bases often lack the last '/'.
core::owned_text description::control_uri(const char* control) const noexcept {
    const std::string_view base = scan::text(base_ ? base_.get() : talk_.content_base.get());
    const std::string_view value = scan::text(control);
    const auto print = [&](std::string_view front, const char* between, std::string_view back) {
        return core::owned_text(core_sprintf(talk_.file, talk_.line, "%.*s%s%.*s", static_cast<int>(front.size()),
                                             front.data(), between, static_cast<int>(back.size()), back.data()));
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
void description::take_start(const char* rtp_info, uint64_t play_time) noexcept {
    bool taken[max_traks] = {};
    // What has already come is more certain than what was announced.
    const auto waits = [](const track_t& track) {
        return track.rtp && track.rtp->received == track.gathered->before_play;
    };
    for (track_t* each : talk_.tracks()) {
        if (!waits(*each)) continue;
        each->rtp->time = play_time;
        each->gathered->started = false;
    }
    const std::unique_ptr<net::sdp::rtp_info_s*, rtp_info_deleter> infos(
        sdp_parse_rtp_info(rtp_info, talk_.file, talk_.line));
    for (net::sdp::rtp_info_s** info = infos.get(); info && *info; ++info) {
        const std::string_view url = scan::text((*info)->url);
        track_t* track = track_of_url(url, true, taken);
        if (!track) track = track_of_url(url, false, taken);
        if (!track) continue;
        taken[std::ranges::find(talk_.tracks(), track) - talk_.tracks().begin()] = true;
        if (!waits(*track)) continue;
        const auto seq = scan::number(scan::text((*info)->seq));
        const auto rtptime = scan::number(scan::text((*info)->rtptime));
        if (seq) track->rtp->seq = track->gathered->first_seq = static_cast<uint16_t>(*seq);
        track->gathered->announced = seq.has_value();
        if (!rtptime) continue;
        track->rtp->rtp_time = track->gathered->last_rtp_time = *rtptime;
        track->gathered->started = true;
    }
}

track_t* description::track_of_url(std::string_view url, bool exact, const bool* taken) const noexcept {
    for (size_t i = 0; i < talk_.trak_total; ++i) {
        track_t* const track = talk_.traks[i];
        const std::string_view control = scan::text(track->control.get());
        if (taken[i] || !track->set_up) continue;
        if (exact ? names_control(url, control) : url.find(control) != std::string_view::npos) return track;
    }
    return nullptr;
}

}  // namespace rtsp3
