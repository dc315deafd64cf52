#include "rtsp/receiver.h"

#include "avc/fcc.h"
#include "core/time.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace rtsp3 {

namespace {

using bytes_t = std::span<const uint8_t>;

// Packets in a row that are dropped as late before their numbering is believed.
constexpr uint32_t max_late = 100;
constexpr int64_t us_per_second = 1000000;
// Tracks whose first frames come within this time began together.
constexpr uint64_t together = 200000;

using rtp::get16;
using rtp::get32;

// A described clock may be as slow as 1 Hz, and timestamps may then claim more time than there is.
int64_t ticks_to_us(int64_t ticks, uint32_t rate) noexcept {
    constexpr int64_t max_seconds = INT64_MAX / us_per_second - 1;
    if (rate == 0) return 0;
    const int64_t seconds = std::clamp(ticks / rate, -max_seconds, max_seconds);
    return seconds * us_per_second + ticks % rate * us_per_second / rate;
}

int64_t us_to_ticks(int64_t us, uint32_t rate) noexcept {
    if (rate == 0) return 0;
    const int64_t seconds = std::min(us / us_per_second, INT64_MAX / 4 / rate);
    return seconds * rate + us % us_per_second * rate / us_per_second;
}

/// Formats whose frames travel in several packets, the last with the marker bit.
bool is_picture(const track_t& track) noexcept { return track.fcc == av::fcc_h264 || track.fcc == av::fcc_jpeg; }

/// Formats of which one packet holds a part that stands for itself, so that a gap before it takes nothing from it. Of
/// H.264 the first slice tells.
bool stands_alone(const track_t& track, bytes_t data) noexcept {
    if (track.fcc == av::fcc_jpeg) return data.size() > 1 && data[0] == 0xff && data[1] == 0xd8;
    return track.fcc != av::fcc_h264 && track.fcc != av::fcc_meta;
}

/// Whether a track begins at about the RTP time that was announced, as far as it can: some servers tell any.
bool is_near(const track_t& track, uint64_t since) noexcept {
    constexpr int64_t farthest = 10 * us_per_second;
    const auto ahead = static_cast<int32_t>(track.rtp->rtp_time - track.gathered->last_rtp_time);
    const int64_t us = ticks_to_us(ahead, track.rate);
    return us >= -farthest && us <= farthest + static_cast<int64_t>(since);
}

}  // namespace

void receiver::take(unsigned channel, buffer_t packet) noexcept {
    if (talk_.ended || talk_.at_work || !packet.data) return;
    const conversation::call running(talk_);
    track_t* const track = talk_.track_of_channel(channel);
    const bool report = track ? channel != track->channel : (channel & 1) != 0;
    if (report) {
        take_report(track, packet);
        talk_.rtp.unpack_rtc(packet);
    } else {
        if (track) note_first(*track, packet);
        talk_.rtp.set_arrival(core_timer());
        unpack(channel, packet);
        if (talk_.rtp.current) resume_numbering(*talk_.rtp.current);
    }
}

// Of media with one payload type the one of that channel is meant, which has another type inside.
void receiver::unpack(unsigned channel, buffer_t packet) noexcept {
    constexpr uint8_t marker = 0x80;
    if (packet.size < rtp::header_size) return;
    const auto pt = static_cast<uint8_t>(packet.data[1] & ~marker);
    const auto all = talk_.tracks();
    const auto found = std::ranges::find_if(all, [&](const track_t* each) {
        return each->rtp && each->set_up && each->channel == channel && each->gathered->pt == pt;
    });
    const bool renamed = found != all.end() && (*found)->rtp->pt != pt;
    if (renamed) packet.data[1] = static_cast<uint8_t>((packet.data[1] & marker) | (*found)->rtp->pt);
    talk_.rtp.unpack_rtp(packet);
    if (renamed) packet.data[1] = static_cast<uint8_t>((packet.data[1] & marker) | pt);
}

// A group joined before its first packet is whole from there on. Servers announce numbers that they do not send: over
// TCP nothing can be missing before the first packet, and elsewhere not much.
void receiver::note_first(track_t& track, buffer_t packet) noexcept {
    constexpr int most_missing = 100;
    gathered_t& gathered = *track.gathered;
    const bool first = gathered.announced && track.rtp->received == gathered.before_play;
    if (!first || packet.size < rtp::header_size) return;
    const auto ahead = static_cast<int16_t>(get16({packet.data, packet.size}, 2) - gathered.first_seq);
    if (ahead == 0 && track.rtp->received == 0) gathered.torn = false;
    if (ahead != 0 && (track.protocol == protocol_t::rtp_tcp || std::abs(ahead) > most_missing)) track.rtp->seq = 0;
}

void receiver::begin(uint64_t now) noexcept {
    play_time_ = now;
    if (std::exchange(paused_, false)) go_on();
    first_frame_ = 0;
    for (track_t* each : talk_.tracks()) {
        if (each->rtp) each->gathered->before_play = each->rtp->received;
    }
}

// All tracks go on where the furthest one was, whatever their RTP times do.
void receiver::go_on() noexcept {
    int64_t reached = 0;
    for (const track_t* each : talk_.tracks())
        reached = std::max(reached, ticks_to_us(each->gathered->ticks, each->rate));
    for (track_t* each : talk_.tracks()) {
        each->gathered->ticks = std::max(each->gathered->ticks, us_to_ticks(reached, each->rate));
        each->gathered->started = each->gathered->timed = false;
    }
}

void receiver::on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept {
    if (talk_.ended) return;
    if (event == rtp::event_t::rtcp) send_report();
    if (event == rtp::event_t::frame) take_data(rtp->current);
}

// A server that numbers anew, or told another number than it sends, would be dropped as late for ever.
void receiver::resume_numbering(rtp::trak_t& rtp) noexcept {
    const track_t* const track = talk_.track_of(&rtp);
    if (!track) return;
    gathered_t& gathered = *track->gathered;
    if (rtp.received != gathered.received) gathered.late = rtp.late;
    gathered.received = rtp.received;
    if (rtp.late - gathered.late > max_late) rtp.seq = 0;
}

// A sender report (RFC 3550, 6.4.1) says which moment of the server's clock an RTP time is.
void receiver::take_report(track_t* track, buffer_t packet) noexcept {
    constexpr uint8_t sender_report = 200;
    constexpr size_t sender_info_end = 20;
    const bytes_t bytes(packet.data, packet.size);
    if (!track || bytes.size() < sender_info_end || bytes[0] >> 6 != 2 || bytes[1] != sender_report) return;
    // Tracks that a server put on one channel are told apart by their SSRC.
    for (track_t* other : talk_.tracks()) {
        if (track->rtp->ssrc == get32(bytes, 4)) break;
        if (other->set_up && other->channel == track->channel && other->rtp->ssrc == get32(bytes, 4)) track = other;
    }
    track->gathered->reported = true;
    track->gathered->report_time = time_ntp_to_core(get32(bytes, 8), get32(bytes, 12));
    track->gathered->report_rtp_time = get32(bytes, 16);
}

void receiver::take_data(rtp::trak_t* from) noexcept {
    track_t* const found = talk_.track_of(from);
    if (!found || !found->set_up) return;
    track_t& track = *found;
    gathered_t& gathered = *track.gathered;
    const bytes_t data(from->frame.data, from->frame.length);
    const bool another = gathered.rtp_time != from->rtp_time;
    note_loss(track, another, data);
    if (paused_) {
        gathered.torn = true;
        return;
    }
    if (another) {
        learn_ends(track);
        deliver(track);
    }
    if (another || gathered.frame.length == 0) start_frame(track, data);
    // Pieces of a picture whose header did not come make no file.
    if (track.fcc == av::fcc_jpeg && gathered.frame.length == 0 && !stands_alone(track, data)) gathered.broken = true;

    gathered.marks_units = gathered.marks_units || (gathered.marked && !another);
    gathered.marked = from->marker != 0;
    if (track.fcc == av::fcc_h264) {
        add_h264(track, data);
    } else {
        add(track, data);
        gathered.picture = true;
    }
    if (note_end(track)) deliver(track);
}

// @return whether the frame at hand is over, by what this sender did so far
bool receiver::note_end(track_t& track) noexcept {
    const gathered_t& gathered = *track.gathered;
    ends_t& ends = track.gathered->ends;
    if (!gathered.picture) return false;  // parameter sets and the like stand before it
    if (ends.early) ends.unknowable = true;
    if (is_picture(track) && !gathered.marked) return false;
    ++ends.seen;
    if (!settings_.prompt || ends.early || !ends.is_reached()) return false;
    ends.early = true;
    return true;
}

// A frame is over because the next one has begun. One with a gap says nothing.
void receiver::learn_ends(track_t& track) noexcept {
    gathered_t& gathered = *track.gathered;
    ends_t& ends = gathered.ends;
    const bool whole = ends.early || (gathered.picture && !gathered.broken && !gathered.left_out);
    if (whole && ends.seen == ends.usual) {
        if (ends.alike < ends_t::proof) ++ends.alike;
    } else if (whole) {
        ends.usual = ends.seen;
        ends.alike = 1;
    }
    // What came behind a picture that had been handed over.
    if (ends.early && !gathered.picture) gathered.frame.length = 0;
    if (ends.early && is_picture(track)) gathered.broken = true;
    ends.seen = 0;
    ends.early = false;
}

void receiver::note_loss(track_t& track, bool another, std::span<const uint8_t> data) noexcept {
    rtp::note_loss(*track.gathered, *track.rtp, another, stands_alone(track, data), is_picture(track));
}

void receiver::start_frame(track_t& track, std::span<const uint8_t> data) noexcept {
    gathered_t& gathered = *track.gathered;
    if (!first_frame_) first_frame_ = core_timer();
    const uint64_t since = core_timer() - first_frame_;
    if (gathered.timed && !is_near(track, since)) gathered.started = false;
    gathered.timed = false;
    if (!gathered.started) {
        gathered.started = true;
        // A track that comes later, as pictures do that wait for a key, would be out of step with the others.
        if (since > together) gathered.ticks += static_cast<int64_t>(since) * track.rate / us_per_second;
        gathered.last_rtp_time = track.rtp->rtp_time;
        track.rtp->time = play_time_;
        // The packetizer, which did not know where time starts, may have put it off by nearly a minute.
        track.rtp->next_rtcp = std::min(track.rtp->next_rtcp, play_time_);
    }
    gathered.ticks += static_cast<int32_t>(track.rtp->rtp_time - gathered.last_rtp_time);
    gathered.last_rtp_time = gathered.rtp_time = track.rtp->rtp_time;
    gathered.time = track.rtp->time;
    if (track.fcc == av::fcc_h264) return;
    gathered.broken = gathered.broken || (gathered.torn && !stands_alone(track, data));
    gathered.torn = false;
}

void receiver::add_h264(track_t& track, std::span<const uint8_t> nal) noexcept {
    gathered_t& gathered = *track.gathered;
    const bool left_out = gathered.left_out;
    if (rtp::add_h264(gathered, track.parameter_sets, nal, limits()) == rtp::kept_t::restarted) gathered.ends.forget();
    if (gathered.left_out && !left_out) log_left_out(track);
}

void receiver::add(track_t& track, std::span<const uint8_t> bytes) noexcept {
    if (!rtp::add_bytes(*track.gathered, bytes, limits())) log_left_out(track);
}

rtp::gathering_limits receiver::limits() const noexcept {
    return {settings_.parameter_sets == parameter_sets_t::slices, settings_.frame_limit, {talk_.file, talk_.line}};
}

void receiver::log_left_out(const track_t& track) const noexcept {
    core_log_print(talk_.log, "%d: frame of track %u left out: too long, or no memory", talk_.number,
                   unsigned{track.rtp->pt});
}

void receiver::deliver(track_t& track) noexcept {
    gathered_t& gathered = *track.gathered;
    if (gathered.frame.length > 0 && !talk_.ended) {
        frame_ = {};
        frame_.fcc = track.fcc;
        frame_.time = gathered.time;
        frame_.data = gathered.frame.data;
        frame_.size = gathered.frame.length;
        frame_.rate = track.channels || track.fcc == av::fcc_pcmu || track.fcc == av::fcc_pcma ? track.rate : 0;
        frame_.channels = track.channels;
        frame_.key = track.fcc != av::fcc_h264 || gathered.key;
        frame_.complete = rtp::is_complete(gathered, frame_.key != 0);
        track.media_time = ticks_to_us(gathered.ticks, track.rate);
        track.ntp_time = 0;
        if (gathered.reported) {
            const auto since = static_cast<int32_t>(gathered.rtp_time - gathered.report_rtp_time);
            track.ntp_time = gathered.report_time + static_cast<uint64_t>(ticks_to_us(since, track.rate));
        }
        raise(track, event_t::rtsp_frame);
        frame_ = {};
    }
    rtp::end_frame(gathered);
}

void receiver::flush() noexcept {
    if (talk_.at_work || talk_.ended) return;
    const conversation::call running(talk_);
    for (track_t* each : talk_.tracks()) {
        gathered_t& gathered = *each->gathered;
        const bool half = is_picture(*each) && gathered.picture && !gathered.marked;
        gathered.broken = gathered.broken || half;
        deliver(*each);
        gathered.broken = half;
    }
}

// A report that is due; over TCP it is left out when those before it are not read.
void receiver::send_report() noexcept {
    track_t* const track = talk_.track_of(talk_.rtp.current);
    if (!track || !track->set_up) return;
    if (track->protocol != protocol_t::rtp_tcp) return raise(*track, event_t::rtsp_rtcp);
    if (!out_.add_packet(static_cast<uint8_t>(track->channel + 1), talk_.rtp.packet)) return;
    talk_.at_work = true;
    talk_.raise(event_t::rtsp_send);
    talk_.at_work = false;
}

// The packetizer is still at work on the track, so the tracks stay.
void receiver::raise(const track_t& track, event_t::enum_t event) noexcept {
    const trak_t* const outer = std::exchange(talk_.event_trak, &track);
    talk_.at_work = true;
    talk_.raise(event);
    talk_.at_work = false;
    talk_.event_trak = outer;
}

}  // namespace rtsp3
