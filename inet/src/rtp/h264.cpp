// H.264 (RFC 6184): single NAL unit packets and FU-A, both ways.
#include "common/h264.h"

#include "rtp/depacketizer.h"
#include "rtp/packetizer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace {

using nal_t = std::span<const uint8_t>;

// FU-A (5.8): its type, and the ends of a NAL unit.
constexpr uint8_t fu_a = 28;
constexpr uint8_t fu_start = 0x80;
constexpr uint8_t fu_end = 0x40;

constexpr uint8_t type_bits = 0x1F;

// Room for the two FU-A bytes is kept for every NAL unit, so that one limit serves whole and cut ones.
constexpr uint32_t max_nal_piece = rtp::max_piece - 2;

// The NAL units of an access unit, found in one pass over its bytes. The parameter sets go first, and whether they are
// there shows only at the end, so the pass is remembered; a stream of more pieces than any encoder makes is searched
// again from where the room ended.
class access_unit {
public:
    explicit access_unit(nal_t stream) noexcept : rest_(stream) {
        while (count_ < nals_.size()) {
            const nal_t nal = h264_next_nal(rest_);
            if (nal.empty()) break;
            nals_[count_++] = nal;
        }
    }

    nal_t find(uint8_t type) const noexcept {
        const auto end = nals_.begin() + count_;
        const auto found = std::find_if(nals_.begin(), end, [type](nal_t nal) { return h264_nal_type(nal) == type; });
        return found != end ? *found : h264_find(rest_, type);
    }

    template <class Visit>
    void for_each(Visit visit) const noexcept {
        for (uint32_t i = 0; i < count_; ++i)
            visit(nals_[i]);
        nal_t rest = rest_;
        for (nal_t nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest))
            visit(nal);
    }

private:
    std::array<nal_t, 64> nals_;
    uint32_t count_ = 0;
    nal_t rest_;
};

void set_nal_header(rtp::trak_t& trak, uint8_t header) noexcept {
    trak.nal_type = header & type_bits;
    trak.nal_nri = (header >> 5) & 3;
}

}  // namespace

namespace rtp {

// Sending

void packetizer::pack_h264(std::span<const uint8_t> stream) noexcept {
    const access_unit unit(stream);
    nal_t sps = unit.find(h264_sps);
    nal_t pps = unit.find(h264_pps);
    if (sps.empty() || pps.empty()) {
        sps = pps = {};
    } else {
        pack_nal(sps);
        pack_nal(pps);
    }
    unit.for_each([&](nal_t nal) {
        if (nal.data() != sps.data() && nal.data() != pps.data()) pack_nal(nal);
    });
}

void packetizer::pack_nal(std::span<const uint8_t> nal) noexcept {
    const uint8_t type = h264_nal_type(nal);
    if (type == h264_aud || type == h264_sei) return;
    if (nal.size() > max_nal_piece) return pack_h264fua(nal);
    uint8_t* out = start_packet(rtp_.current->pt | marker);
    std::memcpy(out, nal.data(), nal.size());
    send_packet(header_size + static_cast<uint32_t>(nal.size()));
}

void packetizer::pack_h264fua(std::span<const uint8_t> nal) noexcept {
    const uint8_t header = nal[0];
    const auto indicator = static_cast<uint8_t>((header & 0xE0) | fu_a);
    const auto type = static_cast<uint8_t>(header & 0x1F);
    // Pieces are counted over the whole NAL unit; its header byte is not sent, so the first one is a byte shorter.
    for (size_t offset = 0; offset < nal.size(); offset += max_nal_piece) {
        nal_t piece = nal.subspan(offset, std::min<size_t>(max_nal_piece, nal.size() - offset));
        const bool first = offset == 0;
        const bool last = offset + piece.size() == nal.size();
        if (first) piece = piece.subspan(1);
        uint8_t* out = start_packet(last ? rtp_.current->pt | marker : rtp_.current->pt);
        *out++ = indicator;
        *out++ = static_cast<uint8_t>(type | (first ? fu_start : 0) | (last ? fu_end : 0));
        std::memcpy(out, piece.data(), piece.size());
        send_packet(header_size + 2 + static_cast<uint32_t>(piece.size()));
    }
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
