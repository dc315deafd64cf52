// The tracks of a source: which are fetched, their ports, their frames.
#include "watcher/rtsp.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace media::fetch {

namespace {

/// Sound and picture may end so much later than a track that has come to its end.
constexpr int64_t longest_overrun = 1'000'000;

/// As frames of it come: "META" is what ONVIF describes, any other text stays what it is.
uint32_t format_of(const rtsp3::trak_t& source) noexcept {
    if (source.fcc != av::fcc_meta) return source.fcc;
    return core_strcasecmp(source.encoding.get(), "vnd.onvif.metadata") == 0 ? av::fcc_meta : av::fcc_univ;
}

format_t describe(const rtsp3::trak_t& source) noexcept {
    format_t format;
    format.fcc = format_of(source);
    if (fcc_is_audio(source.fcc)) {
        format.rate = source.rate;
        format.channels = source.channels ? source.channels : 1;
    }
    const buf_t& config = source.fcc == av::fcc_h264 ? source.parameter_sets : source.config;
    format.config = {config.data, config.length};
    return format;
}

uint64_t microseconds(double ticks, double rate) noexcept {
    return rate > 0 ? static_cast<uint64_t>(std::llround(ticks / rate * 1e6)) : 0;
}

/// Dotted addresses alone: a name would have to be looked up.
bool is_dotted(const char* text) noexcept {
    return text && std::string_view(text).find_first_not_of("0123456789.") == std::string_view::npos;
}

}  // namespace

/// Of a kind that is not wanted, or that the stream has already, nothing is to come.
void rtsp_attempt::select_tracks() noexcept {
    constexpr uint32_t undelivered = av::fcc("MP4A");  // LATM
    uint32_t taken = 0;
    for (uint32_t i = 0; const rtsp3::trak_t* source = rtsp_->trak(i); ++i) {
        note_unknown(*source);
        if (!source->wanted) continue;
        const uint32_t kind = only(kind_of(source->fcc));
        const bool surplus = wanted_.one_of_a_kind && ((taken & kind) != 0 || source->fcc == undelivered);
        if (surplus || (wanted_.kinds & kind) == 0) {
            rtsp_->select_trak(i, false);
        } else {
            taken |= kind;
        }
    }
}

/// Picture or sound in a format that cannot be received.
void rtsp_attempt::note_unknown(const rtsp3::trak_t& source) noexcept {
    const std::string_view media = source.media;
    const bool picture = media == "video" && (wanted_.kinds & only(kind_t::video)) != 0;
    const bool sound = media == "audio" && (wanted_.kinds & only(kind_t::audio)) != 0;
    if (source.fcc || !source.encoding || !(picture || sound) || *refused_track_.text) return;
    refused_track_ = {outcome_t::protocol_error, "the %s is %s, which cannot be received",
                      picture ? "picture" : "sound", source.encoding.get()};
}

rtsp_attempt::track_t& rtsp_attempt::track_of(const rtsp3::trak_t* source) noexcept {
    uint32_t i = 0;
    while (i + 1 < rtsp3::max_traks && rtsp_->trak(i) != source)
        ++i;
    return tracks_[i];
}

rtsp_attempt::track_t& rtsp_attempt::track_of(const rtp::Port* port) noexcept {
    const auto found = std::ranges::find_if(tracks_, [&](const track_t& each) { return each.port.get() == port; });
    return found == tracks_.end() ? tracks_.back() : *found;
}

bool rtsp_attempt::make_port(track_t& track, const rtsp3::trak_t& source) noexcept {
    track.port.reset(rtp::Port::create(wanted_.nt, this, CORE_HERE));
    if (!track.port) return false;
    track.port->add_source(main_->peer().sin_addr);
    sockaddr_in other{};
    if (is_dotted(source.source.get()) && net_addr_setup(other, source.source.get(), 0) == 0)
        track.port->add_source(other.sin_addr);
    return true;
}

void rtsp_attempt::set_up() noexcept {
    if (wanted_.transport != transport_t::udp) return;
    const rtsp3::trak_t& source = *rtsp_->trak();
    track_t& track = track_of(&source);
    if (make_port(track, source) && track.port->open()) {
        rtsp_->send_setup(nullptr, track.port->port());
    } else {
        end({outcome_t::failed, "no UDP port"});
    }
}

void rtsp_attempt::make_ready() noexcept {
    note_tracks();
    if (*refused_track_.text) {
        owner_.tell(
            {.what = watch_event_t::track_refused, .outcome = refused_track_.what, .text = refused_track_.text});
    }
    if (wanted_.transport != transport_t::multicast) return;
    char via[net_addr_size];
    net_addr_ip(main_->local(), via, sizeof via);
    for (track_t& each : tracks_) {
        if (!each.source) continue;
        const rtsp3::trak_t& source = *each.source;
        if (!make_port(each, source) || !each.port->join(source.destination.get(), source.server_port, via)) {
            return end({outcome_t::protocol_error, "the group that the server names cannot be joined"});
        }
    }
}

void rtsp_attempt::note_tracks() noexcept {
    std::array<format_t, rtsp3::max_traks> formats{};
    uint32_t count = 0;
    for (uint32_t i = 0; const rtsp3::trak_t* source = rtsp_->trak(i); ++i) {
        if (!source->set_up) continue;
        const format_t format = describe(*source);
        const auto same = [&](const format_t& each) { return each.fcc == format.fcc; };
        track_t& track = tracks_[i];
        track.source = source;
        track.received = receipt(format.fcc, wanted_.duration);
        track.place = count;
        track.first = std::none_of(formats.begin(), formats.begin() + count, same);
        formats[count++] = format;
    }
    play_time_ = time_now();
    owner_.tell({.what = watch_event_t::tracks, .formats = formats.data(), .format_count = count});
}

void rtsp_attempt::take_frame() noexcept {
    const rtsp3::trak_t& source = *rtsp_->trak();
    track_t& track = track_of(&source);
    if (!track.source || stage_ > stage_t::playing) return;
    watched_t got{.frame = *rtsp_->frame(),
                  .track = track.place,
                  .first_of_format = track.first,
                  .media_time = source.media_time,
                  .utc = source.ntp_time};
    got.frame.fcc = format_of(source);
    // Exact, where the time of the session's frame advances by whole milliseconds.
    got.frame.time = play_time_ + static_cast<uint64_t>(source.media_time);
    const bool begins = !track.received.has_begun();
    const bool taken = track.received.take(got.frame, got.media_time);
    if (taken && wanted_.duration) count_from_picture(track, begins, got.media_time);
    if (taken && !owner_.take(got)) return leave({});
    if (is_complete()) leave({});
}

/// What is wanted of the other tracks counts from the first picture on.
void rtsp_attempt::count_from_picture(track_t& taken, bool begins, int64_t media_time) noexcept {
    if (kind_of(taken.source->fcc) != kind_t::video) {
        if (waits_for_picture()) taken.received.count_from(media_time);
    } else if (begins) {
        for (track_t& each : tracks_) {
            if (&each != &taken && each.received.has_begun()) each.received.count_from(media_time);
        }
    }
}

/// Pictures are to come, and the first one has not.
bool rtsp_attempt::waits_for_picture() const noexcept {
    const auto waits = [](const track_t& each) {
        return each.source && kind_of(each.source->fcc) == kind_t::video && !each.received.has_begun();
    };
    return std::ranges::any_of(tracks_, waits) && core_timer() - played_ < wanted_.timeout;
}

/// Sound and picture have come to the end that was wanted.
bool rtsp_attempt::is_complete() const noexcept {
    if (!wanted_.duration) return false;
    bool any = false;
    bool all = true;
    bool overrun = false;
    for (const track_t& each : tracks_) {
        if (!each.source) continue;
        const receipt& received = each.received;
        any = any || received.is_done();
        all = all && (received.is_done() || !received.is_media());
        overrun = overrun || received.length() >= static_cast<int64_t>(wanted_.duration) + longest_overrun;
    }
    return any && (all || overrun);
}

void rtsp_attempt::on_rtp_packet(rtp::Port* port, buffer_t packet, bool restarted) noexcept {
    const rtsp3::trak_t* const source = track_of(port).source;
    if (!source || stage_ == stage_t::ended) return;
    // The sender has started anew: its numbers are taken as they come.
    if (restarted) source->rtp->seq = 0;
    rtsp_->process_rtp(source->channel, packet);
}

void rtsp_attempt::on_rtcp_packet(rtp::Port* port, buffer_t packet) noexcept {
    const rtsp3::trak_t* const source = track_of(port).source;
    if (source && stage_ != stage_t::ended)
        rtsp_->process_rtp(static_cast<unsigned short>(source->channel + 1), packet);
}

/// Receivers of a group do not report: all would get the reports of all.
void rtsp_attempt::send_report() noexcept {
    const rtsp3::trak_t& source = *rtsp_->trak();
    const track_t& track = track_of(&source);
    if (!track.port || !source.server_port || source.protocol == rtsp3::protocol_t::rtp_multicast) return;
    sockaddr_in to = main_->peer();
    to.sin_port = htons(static_cast<uint16_t>(source.server_port + 1));
    const buf_t& packet = rtsp_->rtp()->packet;
    track.port->send_rtcp({packet.data, packet.length}, to);
}

size_t rtsp_attempt::counts(std::span<track_counts_t> out) const noexcept {
    size_t count = 0;
    if (stage_ == stage_t::ended) {
        count = std::min(last_count_, out.size());
        std::copy_n(last_counts_.begin(), count, out.begin());
        return count;
    }
    for (const track_t& each : tracks_) {
        if (!each.source || count == out.size()) continue;
        const rtp::trak_t& rtp = *each.source->rtp;
        track_counts_t& now = out[count++];
        now = each.received.counts();
        now.packets = rtp.received;
        now.lost = rtp.lost;
        now.jitter = microseconds(rtp.jitter, rtp.clock_rate);
    }
    return count;
}

}  // namespace media::fetch
