// The half of an rtp::Rtp that sends: frames become packets.
#pragma once

#include "rtp/packet.h"

#include "inet/rtp_packets.h"
#include "inet/rtp_protocol.h"

#include <cstdint>
#include <span>

namespace rtp {

class packetizer {
public:
    packetizer(Rtp& rtp, const char* file, int line) noexcept : rtp_(rtp), file_(file), line_(line) {}
    packetizer(const packetizer&) = delete;
    packetizer& operator=(const packetizer&) = delete;

    /// Null for the object's own room.
    void set_room(uint8_t* room) noexcept;
    void set_all_formats(bool on) noexcept { all_formats_ = on; }
    void set_report_clock(report_clock_t clock) noexcept { report_clock_ = clock; }

    void pack(const av::frame_t& frame) noexcept;
    void pack(Packets& packets) noexcept;
    void pack_meta(const av::meta_t& meta) noexcept;
    void send_report(trak_t& trak) noexcept { send_sender_report(rtp_, trak, report_clock_); }

private:
    trak_t* find(uint32_t fcc, uint64_t time) noexcept;
    bool begin(uint32_t fcc, uint64_t time) noexcept;
    bool is_sent(uint32_t fcc) const noexcept;
    void finish() noexcept;
    void log_frame(uint16_t first_seq) noexcept;
    void log_unknown(const char* what) noexcept;

    uint8_t* start_packet(uint32_t pt) noexcept;
    void send_packet(uint32_t length) noexcept;

    void pack_h264(std::span<const uint8_t> stream) noexcept;
    void pack_nal(std::span<const uint8_t> nal) noexcept;
    void pack_jpeg(std::span<const uint8_t> jpeg) noexcept;
    void pack_jpeg_large(std::span<const uint8_t> jpeg) noexcept;
    void pack_mp4a(std::span<const uint8_t> unit) noexcept;
    /// Payloads that are cut anywhere. The marker bit is on the last piece, or on every one.
    void pack_pieces(std::span<const uint8_t> bytes, bool mark_every) noexcept;

    Rtp& rtp_;
    const char* file_;
    int line_;
    report_clock_t report_clock_ = report_clock_t::ntp;
    bool all_formats_ = false;
    uint8_t* room_ = nullptr;  // where packets are built
    uint8_t own_room_[packet_size];
};

}  // namespace rtp
