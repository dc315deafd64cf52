#include "watcher/rtmp.h"

#include "watcher/address.h"
#include "watcher/rtmp_login.h"

#include "avc/fcc.h"
#include "common/variant.h"
#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <new>
#include <span>
#include <string_view>

namespace media::fetch {

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t tick_time = second / 10;
constexpr uint64_t lookup_time = second / 100;
/// After such a pause the picture that came last is whole.
constexpr uint64_t pause = second;
/// What is held of one track until the other one is known.
constexpr size_t most_early = 256;
constexpr uint32_t most_early_bytes = 8U << 20;
constexpr int64_t longest_early = second;
/// How much longer one track may be than the other at the end.
constexpr int64_t longest_overrun = second;

outcome_t outcome_of(net::rtmp_end_t why) noexcept {
    switch (why) {
        case net::rtmp_end_t::no_connection:
            return outcome_t::no_connection;
        case net::rtmp_end_t::lost:
        case net::rtmp_end_t::ended:
            return outcome_t::connection_lost;
        case net::rtmp_end_t::refused:
            return outcome_t::refused;
        case net::rtmp_end_t::not_found:
            return outcome_t::not_found;
        case net::rtmp_end_t::bad_peer:
            return outcome_t::protocol_error;
        case net::rtmp_end_t::failed:
            break;
    }
    return outcome_t::failed;
}

}  // namespace

void rtmp_attempt::start() noexcept {
    deadline_ = core_timer() + wanted_.timeout;
    wanted_.lookup.begin(wanted_.address.host);
    connect();
}

/// @return false when memory is out
bool rtmp_attempt::open() noexcept {
    const address_t& to = wanted_.address;
    rtmp_.reset(net::ProtocolRtmp::create(CORE_HERE));
    if (!rtmp_ || !rtmp_->parse_url(to.uri.get())) return false;
    rtmp_->init(this);
    if (!login_) return true;
    const core::owned_text application(core_sprintf(CORE_HERE, "%s%s", rtmp_->application(), login_.get()));
    const core::owned_text url(
        application ? core_sprintf(CORE_HERE, "rtmp://%s:%u/%s", to.host, unsigned{to.port}, application.get())
                    : nullptr);
    return url && rtmp_->set({.tc_url = url.get(), .application = application.get()});
}

/// As soon as the address of the host is known.
void rtmp_attempt::connect() noexcept {
    if (wanted_.lookup.state() == name_lookup::state_t::running) return;
    if (wanted_.lookup.state() != name_lookup::state_t::found)
        return end({outcome_t::no_connection, "no such host: %s", wanted_.address.host});
    if (!open()) return end({outcome_t::failed, "no memory"});
    stage_ = stage_t::asking;
    if (rtmp_->connect(wanted_.nt, wanted_.lookup.address()) != 0)
        end({outcome_t::no_connection, "cannot connect to %s:%u", wanted_.address.host,
             unsigned{wanted_.address.port}});
}

uint64_t rtmp_attempt::tick(uint64_t now) noexcept {
    if (stage_ == stage_t::looking_up) connect();
    const char* const host = wanted_.address.host;
    if (stage_ == stage_t::playing) {
        const uint64_t silent = now - last_frame_;
        if (silent >= wanted_.timeout) {
            end(has_frames_ ? ending_t{outcome_t::connection_lost, "no media comes any more"}
                            : ending_t{outcome_t::nothing_received, "no media comes"});
        } else if (silent >= pause && !flushed_) {
            flushed_ = true;
            rtmp_->flush();
        }
    } else if (stage_ != stage_t::ended && now >= deadline_) {
        end(rtmp_->received() ? ending_t{outcome_t::protocol_error, "%s does not answer", host}
                              : ending_t{outcome_t::no_connection, "%s cannot be reached", host});
    }
    return now + (stage_ == stage_t::looking_up ? lookup_time : tick_time);
}

size_t rtmp_attempt::counts(std::span<track_counts_t> out) const noexcept {
    size_t count = 0;
    for (const track_t& each : tracks_) {
        if (each.is_here && each.place < out.size()) out[each.place] = each.received.counts();
        count += each.is_here && each.place < out.size();
    }
    return count;
}

void rtmp_attempt::end(const ending_t& result) noexcept {
    if (stage_ == stage_t::ended) return;
    stage_ = stage_t::ended;
    result_ = result;
    rtmp_.reset();
    owner_.ended();
}

// A server that asks for the password is connected to again, twice.
void rtmp_attempt::on_rtmp_ended(net::ProtocolRtmp*, net::rtmp_end_t why, const char* text) noexcept {
    constexpr unsigned most_logins = 2;
    if (why == net::rtmp_end_t::refused && logins_ < most_logins) {
        login_ = rtmp_login(text, wanted_.address.user.get(), wanted_.address.password.get());
        ++logins_;
        if (login_) {
            stage_ = stage_t::looking_up;  // tick() goes on
            return;
        }
    }
    end({outcome_of(why), "%s", text});
}

void rtmp_attempt::on_rtmp_playing(net::ProtocolRtmp*) noexcept {
    stage_ = stage_t::playing;
    last_frame_ = core_timer();
    owner_.tell({.what = watch_event_t::playing});
}

void rtmp_attempt::on_rtmp_metadata(net::ProtocolRtmp*, const Variant& data) noexcept {
    constexpr double pictures[] = {7};
    constexpr double sounds[] = {2, 7, 8, 10, 14};  // those of net::ProtocolRtmp
    const auto expect = [&](kind_t kind, const char* key, std::string_view name, std::span<const double> numbers) {
        const Variant& codec = data[key];
        const bool received =
            codec == name ||
            (codec.IsNumber() && std::ranges::find(numbers, static_cast<double>(codec)) != numbers.end());
        tracks_[static_cast<size_t>(kind)].is_expected = received && (wanted_.kinds & only(kind)) != 0;
    };
    expect(kind_t::video, "videocodecid", "avc1", pictures);
    expect(kind_t::audio, "audiocodecid", "mp4a", sounds);
}

void rtmp_attempt::on_rtmp_track(net::ProtocolRtmp*, const net::rtmp_track_t& track) noexcept {
    if (!track.fcc) {
        const ending_t why(outcome_t::protocol_error, "codec %u cannot be received", unsigned{track.codec});
        return owner_.tell({.what = watch_event_t::track_refused, .outcome = why.what, .text = why.text});
    }
    const kind_t kind = kind_of(track.fcc);
    if (static_cast<size_t>(kind) >= tracks_.size() || (wanted_.kinds & only(kind)) == 0) return;
    track_t& known = tracks_[static_cast<size_t>(kind)];
    try {
        known.config.assign(track.config.data, track.config.data + track.config.size);
    } catch (const std::bad_alloc&) {
        return end({outcome_t::failed, "no memory"});
    }
    if (known.format.fcc != track.fcc) known.received = receipt(track.fcc, wanted_.duration);
    known.format = {.fcc = track.fcc,
                    .width = track.width,
                    .height = track.height,
                    .rate = track.rate,
                    .channels = track.channels,
                    .config = {known.config.data(), static_cast<uint32_t>(known.config.size())}};
    if (!known.is_here) known.place = track_count_++;
    known.is_here = true;
    told_ = false;
}

/// Some servers describe a track when its first frame comes. Films want to know both before they begin.
bool rtmp_attempt::waits_for_tracks(int64_t media_time) const noexcept {
    const auto is_missing = [](const track_t& each) { return each.is_expected && !each.is_here; };
    const bool has_room = early_.size() < most_early && early_bytes_ < most_early_bytes;
    const bool is_soon = early_.empty() || media_time - early_.front().media_time < longest_early;
    return !told_ && std::ranges::any_of(tracks_, is_missing) && has_room && is_soon;
}

bool rtmp_attempt::hold(const av::frame_t& frame, int64_t media_time) noexcept {
    early_t made{.frame = {}, .media_time = media_time};
    try {
        early_.reserve(early_.size() + 1);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!avc_frame_share(&made.frame, &frame, CORE_HERE)) return false;
    early_.push_back(made);
    early_bytes_ += frame.size;
    return true;
}

void rtmp_attempt::drop_early() noexcept {
    for (early_t& each : early_)
        avc_frame_drop(&each.frame);
    early_.clear();
    early_bytes_ = 0;
}

void rtmp_attempt::tell_tracks() noexcept {
    told_ = true;
    std::array<format_t, std::tuple_size_v<decltype(tracks_)>> formats;
    for (const track_t& each : tracks_) {
        if (each.is_here) formats[each.place] = each.format;
    }
    uint32_t count = track_count_;
    if (video().is_expected && !video().is_here) formats[count++] = {.fcc = av::fcc_h264};
    owner_.tell({.what = watch_event_t::tracks, .formats = formats.data(), .format_count = count});
}

void rtmp_attempt::on_rtmp_frame(net::ProtocolRtmp*, const av::frame_t& frame, int64_t media_time) noexcept {
    const auto kind = static_cast<size_t>(kind_of(frame.fcc));
    if (stage_ != stage_t::playing || kind >= tracks_.size() || tracks_[kind].format.fcc != frame.fcc) return;
    last_frame_ = core_timer();
    has_frames_ = true;
    flushed_ = false;
    if (waits_for_tracks(media_time) && hold(frame, media_time)) return;
    if (!told_) tell_tracks();
    for (const early_t& each : early_)
        deliver(each.frame, each.media_time);
    drop_early();
    deliver(frame, media_time);
}

void rtmp_attempt::deliver(const av::frame_t& frame, int64_t media_time) noexcept {
    if (stage_ != stage_t::playing) return;
    track_t& track = tracks_[static_cast<size_t>(kind_of(frame.fcc))];
    const bool begins = !track.received.has_begun();
    if (track.received.take(frame, media_time)) {
        count_from_picture(track, begins, media_time);
        if (!owner_.take({.frame = frame, .track = track.place, .media_time = media_time})) return end({});
    }
    if (is_complete()) end({});
}

/// What is wanted of the sound counts from the first picture on.
void rtmp_attempt::count_from_picture(track_t& taken, bool begins, int64_t media_time) noexcept {
    const bool is_picture = &taken == &video();
    if (is_picture && begins)
        tracks_[static_cast<size_t>(kind_t::audio)].received.count_from(media_time);
    else if (!is_picture && (video().is_expected || video().is_here) && !video().received.has_begun())
        taken.received.count_from(media_time);
}

/// Sound and picture have come to the end that was wanted.
bool rtmp_attempt::is_complete() const noexcept {
    if (!wanted_.duration) return false;
    bool any = false;
    bool all = true;
    bool overrun = false;
    for (const track_t& each : tracks_) {
        if (!each.is_here) continue;
        any = any || each.received.is_done();
        all = all && each.received.is_done();
        overrun = overrun || each.received.length() >= static_cast<int64_t>(wanted_.duration) + longest_overrun;
    }
    return any && (all || overrun);
}

}  // namespace media::fetch
