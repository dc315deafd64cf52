#include "bounded.h"
#include "rtsp/client.h"
#include "rtsp/tidy.h"
#include "scan.h"
#include "uri/reference.h"

#include "avc/fcc.h"
#include "common/digest.h"
#include "core/text.h"
#include "inet/net_sdp.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace rtsp3 {

using net::uri::is_absolute;
using net::uri::without_login;

using net::http::header_s;

namespace {

/// The control behind the base, as servers mean it, which often leave out the last '/' of the base. One is put between
/// them unless it stands there, or the control begins a path or a query. Null when memory is out.
core::owned_text append_control(std::string_view base, std::string_view control, const char* file, int line) noexcept {
    const bool touches = base.ends_with('/') || control.starts_with('/') || control.starts_with('?');
    return core::owned_text(core_sprintf(file, line, "%.*s%s%.*s", static_cast<int>(base.size()), base.data(),
                                         touches ? "" : "/", static_cast<int>(control.size()), control.data()));
}

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

/// A static payload type means its encoding whatever an rtpmap calls it.
const encoding_t* find_encoding(const net::sdp::trak_t& media) noexcept {
    const auto* found = std::ranges::find_if(encodings, [&](const encoding_t& known) {
        return media.encoding && core_strcasecmp(media.encoding, known.name) == 0;
    });
    if (found != std::end(encodings)) return found;
    found = std::ranges::find_if(encodings, [&](const encoding_t& known) {
        return known.media && media.pt == known.pt && core_strcasecmp(media.media, known.media) == 0;
    });
    return found == std::end(encodings) ? nullptr : found;
}

/// Appends the parameter sets of "SPS,PPS", however many there are, in Annex B form.
void read_parameter_sets(std::string_view text, buf_t& out, const char* file, int line) noexcept {
    constexpr uint8_t start_code[] = {0, 0, 1};
    while (!text.empty()) {
        const std::string_view set = scan::take(text, ',');
        const auto room = static_cast<uint32_t>(set.size() / 4 * 3 + 3 + sizeof start_code);
        if (!bounded::make_room(out, room, max_parameter_sets, file, line)) return;
        const uint32_t before = out.length;
        core_buf_read(&out, start_code, sizeof start_code);
        if (b64_decode(set.data(), set.size(), &out, file, line) == 0) out.length = before;
    }
}

/// The layout of AU headers (RFC 3640, 4.1); that of AAC-hbr where it is not told.
void take_unit_headers(std::string_view fmtp, rtp::trak_t& track) noexcept {
    constexpr uint32_t longest = 32;
    track.au_size_bits = 13;
    track.au_index_bits = track.au_delta_bits = 3;
    scan::for_each_element(fmtp, ';', [&](std::string_view parameter) {
        const scan::pair one = scan::split(parameter, '=');
        const auto take = [&](std::string_view name, uint8_t& bits) {
            const auto value = scan::number(one.value);
            const bool named = one.key.size() == name.size() &&
                               core_strncasecmp(one.key.data(), name.data(), static_cast<uint32_t>(name.size())) == 0;
            if (named && value) bits = static_cast<uint8_t>(std::min(*value, longest));
        };
        take("sizelength", track.au_size_bits);
        take("indexlength", track.au_index_bits);
        take("indexdeltalength", track.au_delta_bits);
    });
}

bool is_group(std::string_view address) noexcept {
    const uint32_t first = scan::decimal(address);
    return first >= 224 && first <= 239;
}

}  // namespace

bool description::take(const header_s* header) noexcept {
    const std::string_view body(reinterpret_cast<const char*>(talk_.body.data), talk_.body.size);
    core_log_print(talk_.log, "%u: sdp:\n%.*s", static_cast<unsigned>(talk_.number), static_cast<int>(body.size()),
                   body.data() ? body.data() : "");
    std::string_view control;
    const core::owned_text text = tidy(body, &control, talk_.file, talk_.line);
    if (!text || !take_base(header) || !take_aggregate(control)) return false;
    const core::owned<net::sdp::sdp_t, sdp_free> sdp(sdp_parse(text.get(), talk_.file, talk_.line));
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
        base_ = without_login(value, talk_.file, talk_.line);
        return base_ != nullptr;
    }
    return true;
}

// Without a base that the server named, this is where the session's tracks stand, too.
bool description::take_aggregate(std::string_view control) noexcept {
    aggregate_.reset();
    if (!is_absolute(control) || !is_request_uri(control)) return true;
    aggregate_ = without_login(control, talk_.file, talk_.line);
    if (aggregate_ && !base_) base_.reset(core_strdup(aggregate_.get(), talk_.file, talk_.line));
    return aggregate_ && base_;
}

bool description::add(const net::sdp::trak_t& media) noexcept {
    core::owned_object<track_t> track(core::create<track_t>(talk_.file, talk_.line));
    if (!track) return false;
    track->gathered.reset(core::create<gathered_t>(talk_.file, talk_.line));
    track->name.reset(core_strdup(media.media ? media.media : "", talk_.file, talk_.line));
    track->control.reset(core_strdup(media.control, talk_.file, talk_.line));
    track->encoding.reset(core_strdup(media.encoding, talk_.file, talk_.line));
    track->uri = control_uri(media.control, 0);
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
            read_parameter_sets(scan::text(media.sprop_parameter_sets), track->parameter_sets, talk_.file, talk_.line);
        track->gathered->sets_changed = track->parameter_sets.length > 0;
    }
    if (encoding && media.pt < 128 && is_request_uri(track->uri.get())) {
        track->gathered->pt = static_cast<uint8_t>(media.pt);
        track->rtp = talk_.rtp.add_trak(inside_pt(track->gathered->pt), track->fcc);
        if (!track->rtp) return false;
        track->rtp->clock_rate = track->rate;
        if (track->fcc == av::fcc_mp4a && talk_.all_formats) take_unit_headers(scan::text(media.fmtp), *track->rtp);
        track->wanted = 1;
    }
    talk_.add(std::move(track));
    return true;
}

// Packets of media that have one payload type are told apart by where they come, and by another one inside.
uint8_t description::inside_pt(uint8_t pt) const noexcept {
    for (uint8_t other = 127; talk_.rtp.get_trak_pt(pt); --other)
        pt = other;
    return pt;
}

// The content base is what the server named, or the session's URI with a '/' behind it.
core::owned_text description::control_uri(const char* control, uint32_t form) const noexcept {
    const std::string_view value = scan::text(control);
    const auto copy = [&](const char* text) { return core::owned_text(core_strdup(text, talk_.file, talk_.line)); };
    if (value.empty() || value == "*") return form == 0 ? copy(aggregate_uri()) : nullptr;
    if (is_absolute(value)) return form == 0 ? without_login(value, talk_.file, talk_.line) : nullptr;
    const std::string_view named(base());
    switch (form) {
        case 0:
            return append_control(base_ || named.ends_with('/') ? named : talk_.content_base.get(), value, talk_.file,
                                  talk_.line);
        case 1:
            return net::uri::resolve(named, value, talk_.file, talk_.line);
        case 2:  // as others read it who put no '/' behind the session's URI
            if (base_ || !(value.starts_with('/') || value.starts_with('?'))) return nullptr;
            return append_control(named, value, talk_.file, talk_.line);
        default:
            return nullptr;
    }
}

bool description::try_next_uri(track_t& track) noexcept {
    constexpr uint32_t forms = 3;
    while (++track.gathered->form < forms) {
        core::owned_text next = control_uri(track.control.get(), track.gathered->form);
        if (!next || std::string_view(next.get()) == track.uri.get()) continue;
        track.uri = std::move(next);
        return true;
    }
    return false;
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
        each->gathered->started = each->gathered->timed = each->gathered->announced = false;
    }
    const core::owned<net::sdp::rtp_info_s*, sdp_free_rtp_info> infos(
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
        track->gathered->started = track->gathered->timed = true;
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
