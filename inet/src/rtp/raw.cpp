// Payloads that are cut anywhere: sound samples and text.
#include "rtp/depacketizer.h"
#include "rtp/packetizer.h"

#include <algorithm>
#include <cstring>

namespace rtp {

void packetizer::pack_pieces(std::span<const uint8_t> bytes, bool mark_every) noexcept {
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min<size_t>(max_piece, bytes.size()));
        bytes = bytes.subspan(piece.size());
        uint8_t* out = start_packet(mark_every || bytes.empty() ? rtp_.current->pt | marker : rtp_.current->pt);
        std::memcpy(out, piece.data(), piece.size());
        send_packet(header_size + static_cast<uint32_t>(piece.size()));
    }
}

void depacketizer::unpack_pcmu(std::span<const uint8_t> payload) noexcept {
    if (append(trak_->frame, payload)) deliver();
}

// A text ends with the marker bit; of one that was given up, no tail is handed over either.
void depacketizer::unpack_univ(std::span<const uint8_t> payload) noexcept {
    const bool whole = !trak_->skipping && append(trak_->frame, payload);
    if (!trak_->marker) return;
    trak_->skipping = false;
    if (whole) deliver();
}

}  // namespace rtp
