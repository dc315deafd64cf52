// How an access unit of H.264 goes into RTP packets (RFC 6184): which NAL units are sent, in which order, and where
// each is cut. Shared by both senders, which write their own RTP headers before the bytes.
#pragma once

#include "rtp/packet.h"

#include "common/h264.h"

#include <algorithm>
#include <array>
#include <span>

namespace rtp {

using nal_t = std::span<const uint8_t>;

// FU-A (5.8): its type, and the ends of a NAL unit.
inline constexpr uint8_t fu_a = 28;
inline constexpr uint8_t fu_start = 0x80;
inline constexpr uint8_t fu_end = 0x40;
inline constexpr uint32_t fu_header_size = 2;

// Room for the two FU-A bytes is kept for every NAL unit, so that one limit serves whole and cut ones.
inline constexpr uint32_t max_nal_piece = max_piece - fu_header_size;

/// What stands in one packet behind the RTP header.
struct nal_packet_t {
    uint32_t fu_size;            ///< 0 for a whole NAL unit, else fu_header_size
    uint8_t fu[fu_header_size];  ///< FU indicator and FU header
    nal_t bytes;                 ///< of the NAL unit
    bool last;                   ///< of it: the marker bit is set

    /// Writes the FU-A bytes, if there are any. `out` has room for two in any case. @return the place behind them
    uint8_t* put_fu(uint8_t* out) const noexcept {
        out[0] = fu[0];
        out[1] = fu[1];
        return out + fu_size;
    }
};

/// Calls `send(packet)` for each packet of a NAL unit.
template <class Send>
void each_packet(nal_t nal, Send send) noexcept {
    if (nal.size() <= max_nal_piece) return send(nal_packet_t{0, {}, nal, true});
    const auto indicator = static_cast<uint8_t>((nal[0] & 0xE0) | fu_a);
    const auto type = static_cast<uint8_t>(nal[0] & 0x1F);
    // Pieces are counted over the whole NAL unit; its header byte is not sent, so the first one is a byte shorter.
    for (size_t offset = 0; offset < nal.size(); offset += max_nal_piece) {
        const nal_t piece = nal.subspan(offset, std::min<size_t>(max_nal_piece, nal.size() - offset));
        const bool first = offset == 0;
        const bool last = offset + piece.size() == nal.size();
        const auto header = static_cast<uint8_t>(type | (first ? fu_start : 0) | (last ? fu_end : 0));
        send(nal_packet_t{fu_header_size, {indicator, header}, first ? piece.subspan(1) : piece, last});
    }
}

/// The NAL units of an access unit, found in one pass over its bytes. The parameter sets go first, and whether they are
/// there shows only at the end, so the pass is remembered; a stream of more pieces than any encoder makes is searched
/// again from where the room ended.
class access_unit {
public:
    explicit access_unit(nal_t stream) noexcept : rest_(stream) {
        while (count_ < nals_.size()) {
            const nal_t nal = h264_next_nal(rest_);
            if (nal.empty()) break;
            nals_[count_++] = nal;
        }
    }

    bool empty() const noexcept { return count_ == 0; }

    /// Calls `send(nal)` for each NAL unit that is sent: the first SPS and PPS where both are there, then the others in
    /// order. Delimiters and SEI are left out.
    template <class Send>
    void each_sent(Send send) const noexcept {
        nal_t sps = find(h264_sps);
        nal_t pps = find(h264_pps);
        if (sps.empty() || pps.empty()) {
            sps = pps = {};
        } else {
            send(sps);
            send(pps);
        }
        for_each([&](nal_t nal) {
            const uint8_t type = h264_nal_type(nal);
            if (type == h264_aud || type == h264_sei) return;
            if (nal.data() != sps.data() && nal.data() != pps.data()) send(nal);
        });
    }

private:
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

    std::array<nal_t, 64> nals_;
    uint32_t count_ = 0;
    nal_t rest_;
};

}  // namespace rtp
