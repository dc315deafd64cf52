// Frames out: packets are built where they are sent from.
#include "rtsp/session.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace rtsp3 {

int Rtsp::send_frame(const av::frame_t* frame) noexcept {
    const running call(*this);
    if (!frame || !start_picture(frame->fcc)) return 0;
    rtp_.pack(frame);
    return finish_picture();
}

int Rtsp::send_packets(rtp::Packets& packets) noexcept {
    const running call(*this);
    if (packets.count() == 0 || !start_picture(packets.fcc())) return 0;
    const buffer_t whole = packets.interleaved();
    const bool interleaved = sending_->protocol == protocol_t::rtp_tcp;
    lends_ = interleaved && send_.length == 0;
    if (interleaved) packets.set_channel(sending_->channel);
    rtp_.pack(packets);
    if (lends_ && !spilled_ && packed_ != 0) lent_ = whole;
    const int sent = finish_picture();
    return keep_lent(whole.size) ? sent : 0;
}

// What the owner did not send at once goes in front of the report that may stand in the send buffer.
bool Rtsp::keep_lent(uint32_t whole) noexcept {
    const buffer_t rest = std::exchange(lent_, {});
    if (rest.size == 0 || closed_) return true;
    if (!core_buf_respace(&send_, rest.size, file_, line_)) {
        if (rest.size != whole) fail("no memory for the rest of a picture");
        return false;
    }
    std::memmove(send_.data + rest.size, send_.data, send_.length);
    std::memcpy(send_.data, rest.data, rest.size);
    send_.length += rest.size;
    raise(event_t::rtsp_send);
    return true;
}

void Rtsp::take_lent(uint32_t count) noexcept {
    const uint32_t taken = std::min(count, lent_.size);
    lent_ = {lent_.data + taken, lent_.size - taken};
}

int Rtsp::send_meta(const av::meta_t* meta) noexcept {
    const running call(*this);
    if (!meta || !start_picture(meta->fcc)) return 0;
    rtp_.pack_meta(meta);
    return finish_picture();
}

bool Rtsp::start_picture(uint32_t fcc) noexcept {
    if (!playing_ || closed_ || packing_ || lent_.size != 0 || role_ == role_t::client) return false;
    trak_t** const end = traks_ + trak_count_;
    trak_t** const found = std::find_if(traks_, end, [&](const trak_t* trak) { return trak->fcc == fcc; });
    if (found == end || !(*found)->set_up || (*found)->shared) return false;
    const bool interleaved = (*found)->protocol == protocol_t::rtp_tcp;
    if (interleaved && send_.length >= send_limit_) return false;

    packing_ = true;
    spilled_ = false;
    packed_ = 0;
    picture_start_ = send_.length;
    sending_ = *found;
    outer_trak_ = trak_;
    if (interleaved) {
        make_packet_room();
    } else {
        trak_ = sending_;
    }
    return true;
}

void Rtsp::make_packet_room() noexcept {
    spilled_ = spilled_ || !rtp::make_interleaved_room(send_, rtp_, file_, line_);
}

void Rtsp::on_rtp_event(rtp::Rtp*, rtp::event_t::enum_t event) noexcept {
    if (closed_) return;
    const bool report = event == rtp::event_t::rtcp;
    if (!sending_) {
        if (report) send_report();
        if (event == rtp::event_t::frame) take_data(rtp_.current);
        return;
    }
    ++packed_;
    if (sending_->protocol != protocol_t::rtp_tcp) {
        raise(report ? event_t::rtsp_rtcp : event_t::send_rtp);
    } else if (event == rtp::event_t::packets) {
        add_cut();
    } else if (!spilled_) {
        rtp::add_interleaved(send_, static_cast<uint8_t>(sending_->channel + (report ? 1 : 0)), rtp_.packet.length);
        make_packet_room();
    }
}

// Behind what waits there has to be a copy.
void Rtsp::add_cut() noexcept {
    if (lends_ || spilled_) return;
    const buffer_t whole = rtp_.cut->interleaved();
    spilled_ = core_buf_read(&send_, whole.data, whole.size) != whole.size;
    make_packet_room();
}

// A picture that did not fit into memory is taken back whole.
int Rtsp::finish_picture() noexcept {
    const bool interleaved = sending_->protocol == protocol_t::rtp_tcp;
    rtp_.set_packet_room(nullptr);
    packing_ = false;
    sending_ = nullptr;
    trak_ = outer_trak_;
    if (spilled_) {
        send_.length = picture_start_;
        core_log_print(log_, "%d: picture left out: no memory", id_);
        return 0;
    }
    if (packed_ == 0) return 0;
    if (interleaved) {
        replies_ = 0;
        raise(event_t::rtsp_send);
    }
    return 1;
}

}  // namespace rtsp3
