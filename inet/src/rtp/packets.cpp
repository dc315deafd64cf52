#include "rtp/interleaved.h"
#include "rtp/packet.h"

#include "avc/fcc.h"
#include "inet/rtp_packets.h"

namespace rtp {

Packets::Packets(const char* file, int line) noexcept
    : packer_(file, line), trak_(packer_.add_trak(0, 0)), bytes_{}, file_(file), line_(line) {
    // The lines about a frame are those of the streams that send it.
    core_log_free(packer_.log);
    packer_.log = nullptr;
    packer_.set_handler(this);
    if (!trak_) return;
    trak_->active = 1;
    trak_->next_rtcp = UINT64_MAX;
}

Packets::~Packets() { core_buf_free(&bytes_); }

int Packets::cut(const av::frame_t* frame) noexcept {
    bytes_.length = count_ = 0;
    if (!frame || !trak_) return 0;
    trak_->fcc = frame->fcc;
    trak_->time = frame->time;
    out_of_memory_ = !make_interleaved_room(bytes_, packer_, file_, line_);
    packer_.pack(frame);
    if (out_of_memory_) bytes_.length = count_ = 0;
    return bytes_.length != 0 ? 1 : 0;
}

void Packets::on_rtp_event(Rtp* rtp, event_t::enum_t) noexcept {
    if (out_of_memory_) return;
    add_interleaved(bytes_, 0, rtp->packet.length);
    ++count_;
    out_of_memory_ = !make_interleaved_room(bytes_, *rtp, file_, line_);
}

void Packets::set_channel(uint8_t channel) noexcept {
    for (uint32_t at = 0; at < bytes_.length; at += interleaved_header + interleaved_length(bytes_.data + at))
        bytes_.data[at + 1] = channel;
}

void Rtp::pack(Packets& packets) noexcept {
    if (!begin(packets.fcc(), packets.time())) return;
    const uint16_t first_seq = current->seq;
    const uint8_t pt = fcc_unic(current->fcc) == av::fcc_jpeg ? jpeg_pt : current->pt;
    const buf_t& bytes = packets.bytes_;
    for (uint32_t at = 0; at < bytes.length;) {
        const uint32_t length = interleaved_length(bytes.data + at);
        at += interleaved_header;
        packet.data = bytes.data + at;
        packet.data[1] = static_cast<uint8_t>((packet.data[1] & marker) | pt);
        stamp_packet();
        send_packet(length);
        at += length;
    }
    set_packet_room(room_);
    log_frame(first_seq);
    if (report_due()) pack_rtcp_sr(current);
}

}  // namespace rtp
