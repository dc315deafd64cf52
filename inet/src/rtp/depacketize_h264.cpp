// H.264 payload received (RFC 6184): single NAL unit packets and FU-A.
#include "rtp/packet.h"

#include <utility>

namespace {

constexpr uint8_t type_bits = 0x1F;

void set_nal_header(rtp::trak_t& trak, uint8_t header) noexcept {
    trak.nal_type = header & type_bits;
    trak.nal_nri = (header >> 5) & 3;
}

}  // namespace

namespace rtp {

void Rtp::unpack_h264(std::span<const uint8_t> payload) noexcept {
    if (payload.empty()) return;
    const uint8_t type = payload[0] & type_bits;
    if (type == fu_a) return unpack_h264fua(payload);
    if (type > fu_a) {
        core_log_print(log, "%u: %u: unknown type:%hhu", static_cast<unsigned>(id), current->ssrc, type);
        return;
    }
    core_log_print(log, "%u: %u: type:%hhu", static_cast<unsigned>(id), current->ssrc, type);
    if (!append(current->frame, payload)) return;
    set_nal_header(*current, payload[0]);
    call_frame();
}

void Rtp::unpack_h264fua(std::span<const uint8_t> payload) noexcept {
    if (payload.size() < 2) return;
    trak_t& trak = *current;
    const auto header = static_cast<uint8_t>((payload[0] & ~type_bits) | (payload[1] & type_bits));
    const bool end = (payload[1] & fu_end) != 0;
    const auto piece = payload.subspan(2);
    if (payload[1] & fu_start) {
        core_log_print(log, "%u: %u: type:%hhu start data:%u fua:%u", static_cast<unsigned>(id), trak.ssrc, fu_a,
                       static_cast<unsigned>(piece.size()), trak.fua.length);
        trak.frame.length = 0;
        trak.fua.length = 0;
        if (!append(trak.fua, {&header, 1})) return;
    } else {
        core_log_print(log, "%u: %u: type:%hhu fua end:%u data:%u fua:%u", static_cast<unsigned>(id), trak.ssrc, fu_a,
                       unsigned{end}, static_cast<unsigned>(piece.size()), trak.fua.length);
    }
    // Pieces without a start belong to a NAL unit whose beginning is lost.
    if (trak.fua.length == 0 || !append(trak.fua, piece) || !end) return;
    std::swap(trak.frame, trak.fua);
    trak.fua.length = 0;
    set_nal_header(trak, trak.frame.data[0]);
    call_frame();
}

}  // namespace rtp
