// Frames out: packets are built where they are sent from.
#include "rtsp/session.h"

#include <algorithm>

namespace rtsp3 {

int Rtsp::send_frame(const av::frame_t* frame) noexcept {
    const running call(*this);
    if (!frame || !start_picture(frame->fcc)) return 0;
    rtp_.pack(frame);
    return finish_picture();
}

int Rtsp::send_meta(const av::meta_t* meta) noexcept {
    const running call(*this);
    if (!meta || !start_picture(meta->fcc)) return 0;
    rtp_.pack_meta(meta);
    return finish_picture();
}

bool Rtsp::start_picture(uint32_t fcc) noexcept {
    if (!playing_ || closed_ || packing_ || role_ == role_t::client) return false;
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
        rtp_.set_packet_room(datagram_room_);
    }
    return true;
}

void Rtsp::set_packet_room(uint8_t* room) noexcept {
    datagram_room_ = room;
    if (packing_ && sending_->protocol != protocol_t::rtp_tcp) rtp_.set_packet_room(room);
}

// The next packet is built right behind the framing it will need.
void Rtsp::make_packet_room() noexcept {
    spilled_ = spilled_ || !core_buf_respace(&send_, interleaved_header + rtp::packet_size, file_, line_);
    rtp_.set_packet_room(spilled_ ? nullptr : send_.data + send_.length + interleaved_header);
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
    } else if (!spilled_) {
        add_interleaved(static_cast<uint8_t>(sending_->channel + (report ? 1 : 0)));
        make_packet_room();
    }
}

void Rtsp::add_interleaved(uint8_t channel) noexcept {
    uint8_t* framing = send_.data + send_.length;
    const uint32_t length = rtp_.packet.length;
    framing[0] = '$';
    framing[1] = channel;
    framing[2] = static_cast<uint8_t>(length >> 8);
    framing[3] = static_cast<uint8_t>(length);
    send_.length += interleaved_header + length;
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
