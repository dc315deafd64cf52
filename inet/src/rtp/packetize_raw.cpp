// Payloads that are cut anywhere: sound samples and text.
#include "rtp/packet.h"

#include <algorithm>
#include <cstring>

namespace rtp {

void Rtp::pack_pcmu(std::span<const uint8_t> samples) noexcept { pack_pieces(samples, true); }

void Rtp::pack_univ(std::span<const uint8_t> bytes) noexcept { pack_pieces(bytes, false); }

void Rtp::pack_pieces(std::span<const uint8_t> bytes, bool mark_every) noexcept {
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min<size_t>(max_piece, bytes.size()));
        bytes = bytes.subspan(piece.size());
        uint8_t* out = start_packet(mark_every || bytes.empty() ? current->pt | marker : current->pt);
        std::memcpy(out, piece.data(), piece.size());
        send_packet(header_size + static_cast<uint32_t>(piece.size()));
    }
}

}  // namespace rtp
