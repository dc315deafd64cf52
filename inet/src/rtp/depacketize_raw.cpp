// Sound and text received.
#include "rtp/packet.h"

namespace rtp {

void Rtp::unpack_pcmu(std::span<const uint8_t> payload) noexcept {
    if (append(current->frame, payload)) call_frame();
}

// A text ends with the marker bit; of one that was given up, no tail is handed over either.
void Rtp::unpack_univ(std::span<const uint8_t> payload) noexcept {
    const bool whole = !current->count.skipping && append(current->frame, payload);
    if (!current->marker) return;
    current->count.skipping = false;
    if (whole) call_frame();
}

// RFC 3640, 3.2.1: the AU headers are counted in bits and not looked into.
void Rtp::unpack_mp4a(std::span<const uint8_t> payload) noexcept {
    if (payload.size() < 2) return;
    const size_t skipped = 2 + (size_t{get16(payload, 0)} + 7) / 8;
    if (skipped < payload.size()) unpack_pcmu(payload.subspan(skipped));
}

}  // namespace rtp
