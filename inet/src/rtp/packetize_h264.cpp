// H.264 payload (RFC 6184): single NAL unit packets and FU-A.
#include "rtp/packet.h"

#include "common/h264.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

using nal_t = std::span<const uint8_t>;

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

}  // namespace

namespace rtp {

void Rtp::pack_h264(std::span<const uint8_t> stream) noexcept {
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

void Rtp::pack_nal(std::span<const uint8_t> nal) noexcept {
    const uint8_t type = h264_nal_type(nal);
    if (type == h264_aud || type == h264_sei) return;
    if (nal.size() > max_nal_piece) return pack_h264fua(nal);
    uint8_t* out = start_packet(current->pt | marker);
    std::memcpy(out, nal.data(), nal.size());
    send_packet(header_size + static_cast<uint32_t>(nal.size()));
}

void Rtp::pack_h264fua(std::span<const uint8_t> nal) noexcept {
    const uint8_t header = nal[0];
    const auto indicator = static_cast<uint8_t>((header & 0xE0) | fu_a);
    const auto type = static_cast<uint8_t>(header & 0x1F);
    // Pieces are counted over the whole NAL unit; its header byte is not sent, so the first one is a byte shorter.
    for (size_t offset = 0; offset < nal.size(); offset += max_nal_piece) {
        nal_t piece = nal.subspan(offset, std::min<size_t>(max_nal_piece, nal.size() - offset));
        const bool first = offset == 0;
        const bool last = offset + piece.size() == nal.size();
        if (first) piece = piece.subspan(1);
        uint8_t* out = start_packet(last ? current->pt | marker : current->pt);
        *out++ = indicator;
        *out++ = static_cast<uint8_t>(type | (first ? fu_start : 0) | (last ? fu_end : 0));
        std::memcpy(out, piece.data(), piece.size());
        send_packet(header_size + 2 + static_cast<uint32_t>(piece.size()));
    }
}

}  // namespace rtp
