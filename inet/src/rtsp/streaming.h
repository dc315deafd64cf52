// The frames that a server sends: packets are built where they are sent from, or shown where they stand.
#pragma once

#include "rtsp/outbox.h"

#include "inet/rtp_packets.h"

namespace rtsp3 {

class streaming final : public rtp::IRtp {
public:
    streaming(conversation& of, outbox& out) noexcept : talk_(of), out_(out) {}
    streaming(const streaming&) = delete;
    streaming& operator=(const streaming&) = delete;

    void set_limit(uint32_t bytes) noexcept { limit_ = bytes; }

    // As those of the Rtsp.

    int send(const av::frame_t* frame) noexcept;
    int send(const av::meta_t* meta) noexcept;
    int send(rtp::Packets& packets) noexcept;
    buffer_t lent() const noexcept { return lent_; }
    void take_lent(uint32_t count) noexcept;

private:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override;

    bool start(uint32_t fcc) noexcept;
    int finish() noexcept;
    void make_room() noexcept;
    void add_cut() noexcept;
    bool keep_lent(uint32_t whole) noexcept;

    conversation& talk_;
    outbox& out_;
    uint32_t limit_ = 1024 * 1024;

    // The frame at hand
    track_t* trak_ = nullptr;
    const trak_t* outer_trak_ = nullptr;
    bool interleaved_ = false;
    bool has_room_ = false;  // its packets are built in the outbox
    bool spilled_ = false;   // memory ran out within it
    bool lends_ = false;     // its packets were cut before and are shown where they stand
    uint32_t packed_ = 0;
    uint32_t start_ = 0;
    buffer_t lent_;
};

}  // namespace rtsp3
