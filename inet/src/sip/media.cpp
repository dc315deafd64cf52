#include "sip/media.h"

#include "rtp/packet.h"

#include "avc/fcc.h"
#include "common/digest.h"
#include "core/time.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace sip {

namespace {

constexpr uint8_t pcmu_pt = 0;
constexpr uint8_t h264_pt = 96;
constexpr uint8_t event_pt = 101;
constexpr uint8_t digits = 16;  ///< events of telephone keys
constexpr double pcmu_rate = 8000;
constexpr double h264_rate = 90000;
constexpr uint64_t us_per_second = 1000000;
constexpr uint64_t piece_us = 20000;
constexpr uint64_t widest_step = 200000;  // of sound whose times jump: it is sent by its own times again
constexpr uint64_t silence = 200000;      // after which a picture is over
constexpr uint64_t first_sign = 3000000;  // of life, on a channel on which the owner sends nothing
constexpr uint64_t sign_step = 15000000;  // RFC 6263, 4
constexpr uint32_t places = 4;
constexpr rtp::gathering_limits limits = {false, 2U << 20, {"net_sip.cpp", 0}};

constexpr uint8_t pcmu_silence = 0xff;
constexpr uint64_t never = UINT64_MAX;

double rate_of(uint32_t fcc) noexcept { return fcc == av::fcc_h264 ? h264_rate : pcmu_rate; }

}  // namespace

uint64_t channel::khz() const noexcept { return static_cast<uint64_t>(rate_of(fcc_)) / 1000; }

channel::channel(uint32_t fcc, frame_taker& to) noexcept : fcc_(fcc), to_(to), out_(CORE_HERE), in_(CORE_HERE) {
    out_.set_handler(this);
    in_.set_handler(this);
    out_.set_report_clock(rtp::report_clock_t::packets);
    in_.skip_extensions(true);
}

channel::~channel() {
    rtp::Port::destroy(port_);
    core_buf_free(&sets_);
}

bool channel::open(net::nt_ctx* nt, log_ctx* log) noexcept {
    log_ = log;
    if (!nt) return true;
    port_ = rtp::Port::create(nt, this, CORE_HERE);
    return port_ && port_->open() == 1;
}

void channel::start(const target_t& target, uint8_t own_pt, in_addr own) noexcept {
    target_ = target;
    if (!target.wanted) return;
    // One goes out, whatever number the other end gives it in the course of the call.
    rtp::trak_t* const known = out_.get_trak_fcc(fcc_);
    rtp::trak_t* const sent = known ? known : out_.add_trak(target.pt, fcc_);
    rtp::trak_t* const received = in_.add_trak(own_pt, fcc_);
    rtp::trak_t* const other = in_.add_trak(target.pt, fcc_);
    for (rtp::trak_t* each : {sent, received, other})
        if (each) each->clock_rate = rate_of(fcc_);
    if (!sent) return;
    sent->pt = target.pt;
    if (sent->ssrc == 0) common_random(&sent->ssrc, sizeof sent->ssrc);
    if (sign_at_ == 0) sign_at_ = core_timer() + first_sign;
    sent->active = is_taken();
    if (!port_ || target.rtp.sin_addr.s_addr == 0) return;
    port_->forget_sources();
    port_->add_source(target.rtp.sin_addr);
    if (target.rtcp.sin_addr.s_addr != target.rtp.sin_addr.s_addr) port_->add_source(target.rtcp.sin_addr);
    // Another program of this host sends from the address that it sends to.
    if (is_loopback(own) || is_loopback(target.rtp.sin_addr)) port_->add_source(own);
}

void channel::stop() noexcept {
    if (port_) port_->stop();
    target_.wanted = false;
}

void channel::send_pictures(rtp::Packets& packets) noexcept {
    if (!target_.wanted || !port_) return;
    sign_at_ = never;
    out_.pack(packets);
}

void channel::send_sound(const av::frame_t& frame) noexcept {
    if (!target_.wanted || !port_) return;
    sign_at_ = never;
    const uint64_t expected = piece_time_ + held_ * us_per_second / 8000;
    const uint64_t off = frame.time > expected ? frame.time - expected : expected - frame.time;
    if (off > widest_step) {
        held_ = 0;
        piece_time_ = frame.time;
    }
    for (uint32_t at = 0; at < frame.size;) {
        const uint32_t more = std::min<uint32_t>(sizeof piece_ - held_, frame.size - at);
        std::memcpy(piece_ + held_, frame.data + at, more);
        held_ += more;
        at += more;
        if (held_ == sizeof piece_) send_piece();
    }
}

void channel::send_piece() noexcept {
    av::frame_t piece = {};
    piece.fcc = av::fcc_pcmu;
    piece.time = piece_time_;
    piece.data = piece_;
    piece.size = sizeof piece_;
    out_.pack(&piece);
    held_ = 0;
    piece_time_ += piece_us;
}

// Where nothing is sent, no way back would open through a gateway of addresses (NAT), and a relay of media would not
// learn where we are.
void channel::give_sign(uint64_t now) noexcept {
    sign_at_ = now + sign_step;
    rtp::trak_t* const sent = out_.get_trak_fcc(fcc_);
    if (!sent || !sent->active || !target_.wanted) return;
    uint8_t packet[rtp::header_size + sizeof piece_];
    const uint32_t time = rtp::timestamp(time_now(), sent->clock_rate);
    uint8_t* const payload = rtp::put_header(packet, sent->pt, sent->seq++, time, sent->ssrc);
    std::fill(payload, packet + sizeof packet, pcmu_silence);
    // A picture of nothing has no payload.
    const datagram_t one{packet, fcc_ == av::fcc_pcmu ? uint32_t{sizeof packet} : rtp::header_size, &target_.rtp};
    port_->send(&one, 1);
}

void channel::on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept {
    if (event == rtp::event_t::frame) return take_data(*rtp->current);
    if (event == rtp::event_t::rtcp) return report(rtp->packet);
    if (!port_) return;
    if (event == rtp::event_t::packet) {
        const datagram_t one{rtp->packet.data, rtp->packet.length, &target_.rtp};
        port_->send(&one, 1);
    } else if (event == rtp::event_t::packets) {
        port_->send(rtp->cut->datagrams(target_.rtp), rtp->cut->count());
    }
}

void channel::report(const buf_t& packet) noexcept {
    if (!port_ || !target_.wanted || target_.rtcp.sin_addr.s_addr == 0) return;
    if (core_log_wanted(log_)) {
        char address[net_addr_size];
        net_addr_ip(target_.rtcp, address, sizeof address);
        core_log_print(log_, "sip: send rtc %d bytes to %s", static_cast<int>(packet.length), address);
    }
    port_->send_rtcp({packet.data, packet.length}, target_.rtcp);
}

// An event is sent in several packets of the same RTP time, and its end three times.
void channel::take_event(buffer_t packet) noexcept {
    const std::span<const uint8_t> bytes(packet.data, packet.size);
    const size_t at = 12 + 4 * size_t{bytes[0] & 0x0fU};
    if (bytes.size() < at + 4) return;
    const uint32_t time = rtp::get32(bytes, 4);
    if (event_ == time) return;
    event_ = time;
    if (bytes[at] < digits) to_.on_digit(bytes[at]);
}

void channel::on_rtp_packet(rtp::Port*, buffer_t packet, bool restarted) noexcept {
    heard_ = core_timer();
    restarted_ = restarted_ || restarted;
    for (rtp::trak_t** each = in_.traks; restarted && each && *each; ++each)
        (*each)->seq = 0;
    if (fcc_ == av::fcc_pcmu && packet.size > 12 && (packet.data[1] & 0x7f) == event_pt) return take_event(packet);
    last_data_ = heard_;
    in_.set_arrival(last_data_);
    in_.unpack_rtp(packet);
}

void channel::on_rtcp_packet(rtp::Port*, buffer_t packet) noexcept {
    heard_ = core_timer();
    in_.unpack_rtc(packet);
}

void channel::take_data(rtp::trak_t& from) noexcept {
    const std::span<const uint8_t> data(from.frame.data, from.frame.length);
    const bool picture = fcc_ == av::fcc_h264;
    const bool another = !started_ || gathered_.rtp_time != from.rtp_time;
    rtp::note_loss(gathered_, from, another, !picture, picture);
    if (another) deliver();
    if (!started_) {
        begun_ = time_now();
        first_time_ = from.rtp_time;
        started_ = true;
        restarted_ = false;
    }
    if (another) {
        // Another sender has a clock of its own: as much has passed there as here.
        const auto passed = static_cast<int64_t>((heard_ - shown_) / 1000 * khz());
        ticks_ += std::exchange(restarted_, false) ? passed : static_cast<int32_t>(from.rtp_time - first_time_);
        first_time_ = from.rtp_time;
        shown_ = heard_;
    }
    gathered_.rtp_time = from.rtp_time;
    gathered_.marks_units = gathered_.marks_units || (gathered_.marked && !another);
    gathered_.marked = from.marker != 0;
    if (picture) {
        rtp::add_h264(gathered_, sets_, data, limits);
    } else {
        rtp::add_bytes(gathered_, data, limits);
        gathered_.picture = true;
        deliver();
    }
}

void channel::deliver() noexcept {
    if (gathered_.frame.length > 0) {
        av::frame_t frame = {};
        frame.fcc = fcc_;
        const auto per_ms = static_cast<int64_t>(khz());
        frame.time = begun_ + static_cast<uint64_t>(ticks_ / per_ms * 1000 + ticks_ % per_ms * 1000 / per_ms);
        frame.data = gathered_.frame.data;
        frame.size = gathered_.frame.length;
        if (fcc_ == av::fcc_pcmu) frame.rate = 8000, frame.channels = 1;
        frame.key = fcc_ != av::fcc_h264 || gathered_.key;
        frame.complete = rtp::is_complete(gathered_, frame.key != 0);
        to_.on_frame(frame);
    }
    rtp::end_frame(gathered_);
}

void channel::tick(uint64_t now) noexcept {
    if (!port_) return;
    port_->expire(now);
    if (sign_at_ != 0 && sign_at_ <= now) give_sign(now);
    if (gathered_.picture && last_data_ + silence < now) deliver();  // what has just expired may be later than now
}

bool call_media::open(net::nt_ctx* nt, log_ctx* log, frame_taker& to) noexcept {
    if (is_open()) return true;
    nt_ = nt;
    to_ = &to;
    places_ = true;
    const bool room = !nt || net::net_nt_take_places(nt, static_cast<int32_t>(places)) <= net::nt_places;
    audio_.reset(core::create<channel>(CORE_HERE, av::fcc_pcmu, *static_cast<frame_taker*>(this)));
    video_.reset(core::create<channel>(CORE_HERE, av::fcc_h264, *static_cast<frame_taker*>(this)));
    if (room && audio_ && video_ && audio_->open(nt, log) && video_->open(nt, log)) return true;
    close();
    return false;
}

void call_media::close() noexcept {
    audio_.reset();
    video_.reset();
    if (places_ && nt_) net::net_nt_take_places(nt_, -static_cast<int32_t>(places));
    places_ = false;
}

void call_media::stop() noexcept {
    if (audio_) audio_->stop();
    if (video_) video_->stop();
    to_ = nullptr;
}

void call_media::start(const described_t& described, in_addr own) noexcept {
    if (!is_open()) return;
    audio_->start(described.audio, pcmu_pt, own);
    video_->start(described.video, h264_pt, own);
}

void call_media::tick(uint64_t now) noexcept {
    if (audio_) audio_->tick(now);
    if (video_) video_->tick(now);
}

void call_media::on_frame(av::frame_t& frame) noexcept {
    if (to_) to_->on_frame(frame);
}

void call_media::on_digit(int code) noexcept {
    if (to_) to_->on_digit(code);
}

}  // namespace sip
