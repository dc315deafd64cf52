// H.264 (RFC 6184): single NAL unit packets and FU-A, both ways.
#include "rtp/depacketizer.h"
#include "rtp/h264_cut.h"
#include "rtp/packetizer.h"

#include <cstring>
#include <utility>

namespace {

constexpr uint8_t type_bits = 0x1F;

void set_nal_header(rtp::trak_t& trak, uint8_t header) noexcept {
    trak.nal_type = header & type_bits;
    trak.nal_nri = (header >> 5) & 3;
}

}  // namespace

namespace rtp {

// Sending

void packetizer::pack_h264(std::span<const uint8_t> stream) noexcept {
    access_unit(stream).each_sent([this](nal_t nal) { pack_nal(nal); });
}

void packetizer::pack_nal(std::span<const uint8_t> nal) noexcept {
    each_packet(nal, [this](const nal_packet_t& packet) {
        uint8_t* const out = start_packet(packet.last ? rtp_.current->pt | marker : rtp_.current->pt);
        std::memcpy(packet.put_fu(out), packet.bytes.data(), packet.bytes.size());
        send_packet(header_size + packet.fu_size + static_cast<uint32_t>(packet.bytes.size()));
    });
}

// Receiving

void depacketizer::unpack_h264(std::span<const uint8_t> payload) noexcept {
    if (payload.empty()) return;
    const uint8_t type = payload[0] & type_bits;
    if (type == fu_a) return unpack_h264fua(payload);
    if (type > fu_a) {
        core_log_print(rtp_.log, "%u: %u: unknown type:%hhu", static_cast<unsigned>(rtp_.id), trak_->ssrc, type);
        return;
    }
    core_log_print(rtp_.log, "%u: %u: type:%hhu", static_cast<unsigned>(rtp_.id), trak_->ssrc, type);
    if (!append(trak_->frame, payload)) return;
    set_nal_header(*trak_, payload[0]);
    deliver();
}

void depacketizer::unpack_h264fua(std::span<const uint8_t> payload) noexcept {
    if (payload.size() < 2) return;
    track_t& trak = *trak_;
    const auto header = static_cast<uint8_t>((payload[0] & ~type_bits) | (payload[1] & type_bits));
    const bool end = (payload[1] & fu_end) != 0;
    const auto piece = payload.subspan(2);
    if (payload[1] & fu_start) {
        core_log_print(rtp_.log, "%u: %u: type:%hhu start data:%u fua:%u", static_cast<unsigned>(rtp_.id), trak.ssrc,
                       fu_a, static_cast<unsigned>(piece.size()), trak.fua.length);
        trak.frame.length = 0;
        trak.fua.length = 0;
        if (!append(trak.fua, {&header, 1})) return;
    } else {
        core_log_print(rtp_.log, "%u: %u: type:%hhu fua end:%u data:%u fua:%u", static_cast<unsigned>(rtp_.id),
                       trak.ssrc, fu_a, unsigned{end}, static_cast<unsigned>(piece.size()), trak.fua.length);
    }
    // Pieces without a start belong to a NAL unit whose beginning is lost.
    if (trak.fua.length == 0 || !append(trak.fua, piece) || !end) return;
    std::swap(trak.frame, trak.fua);
    trak.fua.length = 0;
    set_nal_header(trak, trak.frame.data[0]);
    deliver();
}

}  // namespace rtp
