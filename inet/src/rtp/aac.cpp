// AAC (RFC 3640) both ways: access units behind their AU headers.
#include "rtp/depacketizer.h"
#include "rtp/packetizer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

using bytes_t = std::span<const uint8_t>;

// AAC-hbr (3.3.6): the size of the section of AU headers, and one of 13 bits size and 3 bits index.
constexpr uint32_t headers_size = 4;
constexpr uint32_t header_bits = 16;
constexpr size_t max_unit = (1U << 13) - 1;

/// A section of AU headers (3.2.1), bit by bit.
class bit_reader {
public:
    bit_reader(bytes_t bytes, size_t count) noexcept : bytes_(bytes), count_(std::min(count, 8 * bytes.size())) {}

    bool has(size_t bits) const noexcept { return bits <= count_ - at_; }
    /// They are there, 32 at most.
    uint32_t take(size_t bits) noexcept {
        uint32_t value = 0;
        for (const size_t end = at_ + bits; at_ < end; ++at_)
            value = value << 1 | (bytes_[at_ / 8] >> (7 - at_ % 8) & 1U);
        return value;
    }

private:
    bytes_t bytes_;
    size_t count_;
    size_t at_ = 0;
};

}  // namespace

namespace rtp {

// Sending

void packetizer::pack_mp4a(std::span<const uint8_t> unit) noexcept {
    if (unit.size() > max_unit) return log_unknown("size of an access unit");
    const auto header = static_cast<uint32_t>(unit.size() << 3);
    while (!unit.empty()) {
        const auto piece = unit.first(std::min<size_t>(max_piece - headers_size, unit.size()));
        unit = unit.subspan(piece.size());
        uint8_t* out = start_packet(unit.empty() ? rtp_.current->pt | marker : rtp_.current->pt);
        out = put16(put16(out, header_bits), header);
        std::memcpy(out, piece.data(), piece.size());
        send_packet(header_size + headers_size + static_cast<uint32_t>(piece.size()));
    }
}

// Receiving

void depacketizer::unpack_mp4a(std::span<const uint8_t> payload) noexcept {
    if (payload.size() < 2) return;
    const size_t bits = get16(payload, 0);
    const size_t size = (bits + 7) / 8;
    if (2 + size >= payload.size()) return;
    const bytes_t units = payload.subspan(2 + size);
    if (trak_->au_size_bits == 0) return unpack_pcmu(units);
    take_units(payload.subspan(2, size), bits, units);
}

// The units of a packet have its timestamp and those that follow from it.
void depacketizer::take_units(bytes_t headers, size_t bits, bytes_t units) noexcept {
    track_t& trak = *trak_;
    const uint32_t timestamp = trak.rtp_time;
    if (timestamp != trak.unit_pace.timestamp) trak.fua.length = 0;
    learn_pace();
    const uint32_t step = trak.unit_pace.ticks ? trak.unit_pace.ticks : unit_pace_t::usual;
    const size_t size_bits = std::min<size_t>(trak.au_size_bits, 32);
    bit_reader reader(headers, bits);
    uint32_t count = 0;
    while (!units.empty()) {
        const size_t rest = std::min<size_t>(count == 0 ? trak.au_index_bits : trak.au_delta_bits, 32);
        if (!reader.has(size_bits + rest)) break;
        const size_t size = reader.take(size_bits);
        reader.take(rest);
        if (size > units.size() && count == 0) return take_unit_piece(size, units);
        if (size > units.size()) {
            discard_frame();
            break;
        }
        trak.rtp_time = timestamp + count++ * step;
        if (!append(trak.frame, units.first(size))) break;
        units = units.subspan(size);
        deliver();
    }
    trak.rtp_time = timestamp;
    trak.unit_pace.count = count;
}

// Each piece has the header of the whole unit, and all have one timestamp.
void depacketizer::take_unit_piece(size_t size, bytes_t piece) noexcept {
    track_t& trak = *trak_;
    if (trak.skipping || !append(trak.fua, piece)) return;
    if (trak.fua.length == size) {
        std::swap(trak.frame, trak.fua);
        trak.fua.length = 0;
        deliver();
    } else if (trak.fua.length > size || trak.marker) {
        discard_frame();
    }
}

// From the packet before.
void depacketizer::learn_pace() noexcept {
    constexpr uint32_t shortest = 64;
    constexpr uint32_t longest = 8192;
    unit_pace_t& pace = trak_->unit_pace;
    const uint32_t passed = trak_->rtp_time - pace.timestamp;
    const uint32_t ticks = pace.count > 1 ? passed / pace.count : 0;
    const bool next = static_cast<uint16_t>(trak_->seq - pace.seq) == 1;
    if (next && ticks >= shortest && ticks <= longest) pace.ticks = ticks;
    pace.count = 0;
    pace.timestamp = trak_->rtp_time;
    pace.seq = trak_->seq;
}

}  // namespace rtp
