/// The RTP packets of one frame, cut once for any number of receivers: what differs between two streams of one frame
/// stands in the first bytes of its packets, so each rtp::Rtp only stamps those (Rtp::pack()), in place, and the
/// payload is copied once for all of them. One thread's; nothing is allocated once the buffer has grown to the longest
/// frame.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "inet/rtp_protocol.h"

#include <cstdint>

namespace rtp {

class INET_API Packets final : private IRtp {
public:
    /// `file` and `line` name what the object allocates; both outlive it.
    Packets(const char* file, int line) noexcept;
    ~Packets();
    Packets(const Packets&) = delete;
    Packets& operator=(const Packets&) = delete;

    /// Cuts a frame of one of the formats that Rtp::pack() takes. What was cut before is gone.
    /// @return 1; 0 for a frame that makes no packet, or when memory is out: there are none then
    int cut(const av::frame_t* frame) noexcept;

    /// Format and time of the frame.
    uint32_t fcc() const noexcept { return trak_ ? trak_->fcc : 0; }
    uint64_t time() const noexcept { return trak_ ? trak_->time : 0; }

    /// All packets, each behind its framing of 4 bytes for an RTSP connection (RFC 2326, 10.12).
    buffer_t interleaved() const noexcept { return {bytes_.data, bytes_.length}; }
    uint32_t count() const noexcept { return count_; }
    /// Writes the channel into the framing.
    void set_channel(uint8_t channel) noexcept;

private:
    friend class Rtp;

    void on_rtp_event(Rtp* rtp, event_t::enum_t event) noexcept override;

    Rtp packer_;
    trak_t* trak_;
    buf_t bytes_;
    uint32_t count_ = 0;
    bool out_of_memory_ = false;
    const char* file_;
    int line_;
};

}  // namespace rtp
