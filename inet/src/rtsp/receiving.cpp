// Frames in: what the packetizer hands over is put together by its RTP time.
#include "bounded.h"
#include "rtp/packet.h"
#include "rtsp/session.h"

#include "avc/fcc.h"
#include "core/time.h"

#include <algorithm>

namespace rtsp3 {

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint8_t start_code[] = {0, 0, 1};
constexpr uint32_t max_parameter_sets = 64 * 1024;
// Packets in a row that are dropped as late before their numbering is believed.
constexpr uint32_t max_late = 100;
constexpr int64_t us_per_second = 1000000;

enum nal_type : uint8_t { slice = 1, idr_slice = 5, sps = 7, pps = 8, stap_a = 24 };

using rtp::get16;
using rtp::get32;

// A described clock may be as slow as 1 Hz, and timestamps may then claim more time than there is.
int64_t ticks_to_us(int64_t ticks, uint32_t rate) noexcept {
    constexpr int64_t max_seconds = INT64_MAX / us_per_second - 1;
    if (rate == 0) return 0;
    const int64_t seconds = std::clamp(ticks / rate, -max_seconds, max_seconds);
    return seconds * us_per_second + ticks % rate * us_per_second / rate;
}

/// Formats of which one packet holds a part that stands for itself, so that a gap before it takes nothing from it.
bool stands_alone(const trak_t& trak, bytes_t data) noexcept {
    if (trak.fcc == av::fcc_jpeg) return data.size() > 1 && data[0] == 0xff && data[1] == 0xd8;
    return trak.fcc != av::fcc_h264 && trak.fcc != av::fcc_meta;
}

}  // namespace

void Rtsp::process_rtp(unsigned short channel, buffer_t packet) noexcept {
    if (closed_ || gathering_ || packing_ || !packet.data) return;
    const running call(*this);
    trak_t* const trak = trak_of_channel(channel);
    const bool report = trak ? channel != trak->channel : (channel & 1) != 0;
    if (role_ == role_t::server) {
        // Nothing in a receiver report changes what a server does.
        activity_ += report ? 1 : 0;
        return;
    }
    if (report) {
        take_report(trak, packet);
        rtp_.unpack_rtc(packet);
    } else {
        rtp_.set_arrival(core_timer());
        rtp_.unpack_rtp(packet);
        if (rtp_.current) resume_numbering(*rtp_.current);
    }
}

// A server that numbers anew, or told another number than it sends, would be dropped as late for ever.
void Rtsp::resume_numbering(rtp::trak_t& rtp) noexcept {
    trak_t** const end = traks_ + trak_count_;
    trak_t** const found = std::find_if(traks_, end, [&](const trak_t* trak) { return trak->rtp == &rtp; });
    if (found == end) return;
    trak_t::gathered_t& gathered = *(*found)->gathered;
    if (rtp.received != gathered.received) gathered.late = rtp.late;
    gathered.received = rtp.received;
    if (rtp.late - gathered.late > max_late) rtp.seq = 0;
}

trak_t* Rtsp::trak_of_channel(unsigned channel) noexcept {
    trak_t** const end = traks_ + trak_count_;
    trak_t** const found = std::find_if(traks_, end, [&](const trak_t* trak) {
        return trak->set_up && (channel == trak->channel || channel == trak->channel + 1U);
    });
    return found == end ? nullptr : *found;
}

// A sender report (RFC 3550, 6.4.1) says which moment of the server's clock an RTP time is.
void Rtsp::take_report(trak_t* trak, buffer_t packet) noexcept {
    constexpr uint8_t sender_report = 200;
    constexpr size_t sender_info_end = 20;
    const bytes_t bytes(packet.data, packet.size);
    if (!trak || bytes.size() < sender_info_end || bytes[0] >> 6 != 2 || bytes[1] != sender_report) return;
    // Tracks that a server put on one channel are told apart by their SSRC.
    for (uint32_t i = 0; i < trak_count_ && trak->rtp->ssrc != get32(bytes, 4); ++i) {
        const trak_t& other = *traks_[i];
        if (other.set_up && other.channel == trak->channel && other.rtp->ssrc == get32(bytes, 4)) trak = traks_[i];
    }
    trak->gathered->reported = true;
    trak->gathered->report_time = time_ntp_to_core(get32(bytes, 8), get32(bytes, 12));
    trak->gathered->report_rtp_time = get32(bytes, 16);
}

void Rtsp::take_data(rtp::trak_t* from) noexcept {
    trak_t** const end = traks_ + trak_count_;
    trak_t** const found = std::find_if(traks_, end, [&](const trak_t* trak) { return trak->rtp == from; });
    if (found == end || !(*found)->set_up) return;
    trak_t& trak = **found;
    trak_t::gathered_t& gathered = *trak.gathered;
    const bytes_t data(from->frame.data, from->frame.length);
    const bool another = gathered.rtp_time != from->rtp_time;
    note_loss(trak, another, data);
    if (another) deliver(trak);
    if (another || gathered.frame.length == 0) start_frame(trak);
    // Pieces of a picture whose header did not come make no file.
    if (trak.fcc == av::fcc_jpeg && gathered.frame.length == 0 && !stands_alone(trak, data)) gathered.broken = true;

    gathered.marks_units = gathered.marks_units || (gathered.marked && !another);
    gathered.marked = from->marker != 0;
    if (trak.fcc == av::fcc_h264) {
        add_h264(trak, data);
    } else {
        add(trak, data);
        gathered.picture = true;
    }
}

// A gap between two frames may have been in either, unless the marker says that the first was over (RFC 6184, 5.1).
void Rtsp::note_loss(trak_t& trak, bool another, std::span<const uint8_t> data) noexcept {
    trak_t::gathered_t& gathered = *trak.gathered;
    const bool lost = trak.rtp->lost != gathered.lost || trak.rtp->discarded != gathered.discarded ||
                      trak.rtp->restarts != gathered.restarts;
    gathered.lost = trak.rtp->lost;
    gathered.discarded = trak.rtp->discarded;
    gathered.restarts = trak.rtp->restarts;
    if (!lost) return;
    const bool over = gathered.marked && !gathered.marks_units;
    if (!another || (!over && (trak.fcc == av::fcc_h264 || trak.fcc == av::fcc_jpeg))) gathered.broken = true;
    gathered.torn = another && !stands_alone(trak, data);
}

void Rtsp::start_frame(trak_t& trak) noexcept {
    trak_t::gathered_t& gathered = *trak.gathered;
    if (!gathered.started) {
        gathered.started = true;
        gathered.last_rtp_time = trak.rtp->rtp_time;
        trak.rtp->time = play_time_;
        // The packetizer, which did not know where time starts, may have put it off by nearly a minute.
        trak.rtp->next_rtcp = std::min(trak.rtp->next_rtcp, play_time_);
    }
    gathered.ticks += static_cast<int32_t>(trak.rtp->rtp_time - gathered.last_rtp_time);
    gathered.last_rtp_time = gathered.rtp_time = trak.rtp->rtp_time;
    gathered.time = trak.rtp->time;
    gathered.broken = gathered.broken || (gathered.torn && !stands_alone(trak, {}));
    gathered.torn = false;
}

// Aggregates (RFC 6184, 5.7.1), in which encoders send parameter sets, are taken apart.
void Rtsp::add_h264(trak_t& trak, std::span<const uint8_t> nal) noexcept {
    if (nal.empty()) return;
    if ((nal[0] & 0x1f) != stap_a) return add_nal(trak, nal);
    nal = nal.subspan(1);
    while (nal.size() > 2) {
        const size_t size = std::min<size_t>(get16(nal, 0), nal.size() - 2);
        if (size > 0) add_nal(trak, nal.subspan(2, size));
        nal = nal.subspan(2 + size);
    }
}

void Rtsp::add_nal(trak_t& trak, std::span<const uint8_t> nal) noexcept {
    trak_t::gathered_t& gathered = *trak.gathered;
    const uint8_t type = nal[0] & 0x1f;
    if (type == sps || type == pps) return keep_parameter_set(trak, nal, type == sps);
    constexpr uint8_t zero[] = {0};
    if (gathered.frame.length == 0) add(trak, zero);
    if (type == slice || type == idr_slice) {
        const bool due = (type == idr_slice || gathered.sets_changed) && !gathered.picture;
        if (due || parameter_sets_ == parameter_sets_t::slices)
            add(trak, {trak.parameter_sets.data, trak.parameter_sets.length});
        gathered.sets_changed = false;
        gathered.picture = true;
        gathered.key = gathered.key || type == idr_slice;
    }
    add(trak, start_code);
    add(trak, nal);
}

void Rtsp::keep_parameter_set(trak_t& trak, std::span<const uint8_t> nal, bool restart) noexcept {
    buf_t& sets = trak.parameter_sets;
    if (restart) sets.length = 0;
    const auto size = static_cast<uint32_t>(sizeof start_code + nal.size());
    if (!bounded::make_room(sets, size, max_parameter_sets, file_, line_)) return;
    core_buf_read(&sets, start_code, sizeof start_code);
    core_buf_read(&sets, nal.data(), static_cast<uint32_t>(nal.size()));
    trak.gathered->sets_changed = true;
}

void Rtsp::add(trak_t& trak, std::span<const uint8_t> bytes) noexcept {
    trak_t::gathered_t& gathered = *trak.gathered;
    if (gathered.left_out || bytes.empty()) return;
    const auto size = static_cast<uint32_t>(bytes.size());
    if (bounded::make_room(gathered.frame, size, frame_limit_, file_, line_)) {
        core_buf_read(&gathered.frame, bytes.data(), size);
        return;
    }
    core_log_print(log_, "%d: frame of track %u left out: too long, or no memory", id_, unsigned{trak.rtp->pt});
    gathered.left_out = true;
    gathered.frame.length = 0;
}

void Rtsp::deliver(trak_t& trak) noexcept {
    trak_t::gathered_t& gathered = *trak.gathered;
    if (gathered.frame.length > 0 && !closed_) {
        frame_ = {};
        frame_.fcc = trak.fcc;
        frame_.time = gathered.time;
        frame_.data = gathered.frame.data;
        frame_.size = gathered.frame.length;
        frame_.rate = trak.channels || trak.fcc == av::fcc_pcmu || trak.fcc == av::fcc_pcma ? trak.rate : 0;
        frame_.channels = trak.channels;
        frame_.key = trak.fcc != av::fcc_h264 || gathered.key;
        frame_.complete = gathered.picture && !gathered.broken && (frame_.key || !gathered.orphaned);
        gathered.orphaned = false;
        trak.media_time = ticks_to_us(gathered.ticks, trak.rate);
        trak.ntp_time = 0;
        if (gathered.reported) {
            const auto since = static_cast<int32_t>(gathered.rtp_time - gathered.report_rtp_time);
            trak.ntp_time = gathered.report_time + static_cast<uint64_t>(ticks_to_us(since, trak.rate));
        }
        trak_t* const outer = std::exchange(trak_, &trak);
        raise_receiving(event_t::rtsp_frame);
        trak_ = outer;
        frame_ = {};
    }
    gathered.frame.length = 0;
    gathered.orphaned = gathered.orphaned || gathered.left_out;
    gathered.picture = gathered.key = gathered.broken = gathered.left_out = false;
}

void Rtsp::flush() noexcept {
    if (gathering_ || closed_) return;
    const running call(*this);
    for (uint32_t i = 0; i < trak_count_ && role_ == role_t::client; ++i)
        deliver(*traks_[i]);
}

// A report that is due; over TCP it is left out when those before it are not read.
void Rtsp::send_report() noexcept {
    trak_t** const end = traks_ + trak_count_;
    trak_t** const found = std::find_if(traks_, end, [&](const trak_t* trak) { return trak->rtp == rtp_.current; });
    if (found == end || !(*found)->set_up || role_ != role_t::client) return;
    trak_t& trak = **found;
    if (trak.protocol != protocol_t::rtp_tcp) {
        trak_t* const outer = std::exchange(trak_, &trak);
        raise_receiving(event_t::rtsp_rtcp);
        trak_ = outer;
        return;
    }
    const uint32_t start = send_.length;
    const uint32_t length = rtp_.packet.length;
    if (start > max_replies_waiting || !core_buf_respace(&send_, interleaved_header + length, file_, line_)) return;
    const uint8_t framing[] = {'$', static_cast<uint8_t>(trak.channel + 1), static_cast<uint8_t>(length >> 8),
                               static_cast<uint8_t>(length)};
    core_buf_read(&send_, framing, sizeof framing);
    core_buf_read(&send_, rtp_.packet.data, length);
    if (encode_tunnel(start)) raise_receiving(event_t::rtsp_send);
}

// The packetizer is still at work on the track, so the tracks stay.
void Rtsp::raise_receiving(event_t::enum_t event) noexcept {
    gathering_ = true;
    raise(event);
    gathering_ = false;
}

}  // namespace rtsp3
