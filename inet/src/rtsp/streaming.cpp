#include "rtsp/streaming.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace rtsp3 {

int streaming::send(const av::frame_t* frame) noexcept {
    const conversation::call running(talk_);
    if (!frame || !start(frame->fcc)) return 0;
    if (interleaved_) make_room();
    talk_.rtp.pack(frame);
    return finish();
}

int streaming::send(const av::meta_t* meta) noexcept {
    const conversation::call running(talk_);
    if (!meta || !start(meta->fcc)) return 0;
    if (interleaved_) make_room();
    talk_.rtp.pack_meta(meta);
    return finish();
}

int streaming::send(rtp::Packets& packets) noexcept {
    const conversation::call running(talk_);
    if (packets.count() == 0 || !start(packets.fcc())) return 0;
    const buffer_t whole = packets.interleaved();
    if (interleaved_) {
        lends_ = out_.bytes().length == 0;
        packets.set_channel(trak_->channel);
        if (packets.time() >= trak_->rtp->next_rtcp) make_room();  // for the report
    }
    talk_.rtp.pack(packets);
    if (spilled_) lent_ = {};
    const int sent = finish();
    return keep_lent(whole.size) ? sent : 0;
}

// What the owner did not send at once goes in front of the report that may stand in the outbox.
bool streaming::keep_lent(uint32_t whole) noexcept {
    const buffer_t rest = std::exchange(lent_, {});
    if (rest.size == 0 || talk_.ended) return true;
    buf_t& out = out_.bytes();
    if (!core_buf_respace(&out, rest.size, talk_.file, talk_.line)) {
        if (rest.size != whole) talk_.fail("no memory for the rest of a picture");
        return false;
    }
    std::memmove(out.data + rest.size, out.data, out.length);
    std::memcpy(out.data, rest.data, rest.size);
    out.length += rest.size;
    talk_.raise(event_t::rtsp_send);
    return true;
}

void streaming::take_lent(uint32_t count) noexcept {
    const uint32_t taken = std::min(count, lent_.size);
    lent_ = {lent_.data + taken, lent_.size - taken};
}

bool streaming::start(uint32_t fcc) noexcept {
    if (!talk_.playing || talk_.ended || talk_.at_work || lent_.size != 0) return false;
    const auto all = talk_.tracks();
    const auto found = std::ranges::find_if(all, [&](const track_t* each) { return each->fcc == fcc; });
    if (found == all.end() || !(*found)->set_up || (*found)->shared) return false;
    interleaved_ = (*found)->protocol == protocol_t::rtp_tcp;
    if (interleaved_ && out_.bytes().length >= limit_) return false;

    talk_.at_work = true;
    spilled_ = lends_ = has_room_ = false;
    packed_ = 0;
    start_ = out_.bytes().length;
    trak_ = *found;
    outer_trak_ = talk_.event_trak;
    if (!interleaved_) talk_.event_trak = trak_;
    return true;
}

// For the next packet, where it is sent from.
void streaming::make_room() noexcept {
    has_room_ = true;
    spilled_ = spilled_ || !rtp::make_interleaved_room(out_.bytes(), talk_.rtp, talk_.file, talk_.line);
}

void streaming::on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept {
    if (talk_.ended || !trak_) return;
    const bool report = event == rtp::event_t::rtcp;
    ++packed_;
    if (!interleaved_) {
        talk_.raise(report ? event_t::rtsp_rtcp : event_t::send_rtp);
    } else if (event == rtp::event_t::packets) {
        add_cut();
    } else if (has_room_ && !spilled_) {
        rtp::add_interleaved(out_.bytes(), static_cast<uint8_t>(trak_->channel + (report ? 1 : 0)), rtp->packet.length);
        make_room();
    }
}

// Behind what waits there has to be a copy.
void streaming::add_cut() noexcept {
    const buffer_t whole = talk_.rtp.cut->interleaved();
    if (lends_) lent_ = whole;
    if (lends_ || spilled_) return;
    spilled_ = core_buf_read(&out_.bytes(), whole.data, whole.size) != whole.size;
    if (has_room_) make_room();
}

// A picture that did not fit into memory is taken back whole.
int streaming::finish() noexcept {
    if (has_room_) talk_.rtp.set_packet_room(nullptr);
    talk_.at_work = false;
    trak_ = nullptr;
    talk_.event_trak = outer_trak_;
    if (spilled_) {
        out_.bytes().length = start_;
        core_log_print(talk_.log, "%d: picture left out: no memory", talk_.number);
        return 0;
    }
    if (packed_ == 0) return 0;
    if (interleaved_) {
        out_.count_replies_anew();
        talk_.raise(event_t::rtsp_send);
    }
    return 1;
}

}  // namespace rtsp3
