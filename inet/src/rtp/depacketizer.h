// The half of an rtp::Rtp that receives: packets become frames.
#pragma once

#include "rtp/packet.h"

#include <cstdint>
#include <span>

namespace rtp {

/// Quantisation tables that came with a picture (RFC 2435, 3.1.8).
struct jpeg_tables_t {
    static constexpr size_t room = 128;

    uint8_t q;  ///< that they belong to; 0 before any came
    uint8_t size;
    uint8_t bytes[room];
};

/// How far the access units of a packet are apart, learned from packet to packet.
struct unit_pace_t {
    static constexpr uint32_t usual = 1024;  ///< samples of an AAC access unit

    uint32_t ticks;      ///< 0 before it is known
    uint32_t count;      ///< whole units of the last packet
    uint32_t timestamp;  ///< of the last packet, as is
    uint16_t seq;
};

/// A track with what its counters need from packet to packet. Every track of an Rtp is one.
struct track_t final : trak_t {
    uint64_t jitter_sum;  ///< in sixteenths of a tick
    uint32_t transit;     ///< arrival less timestamp of the last packet, in ticks
    uint16_t highest;     ///< sequence number
    uint16_t last;        ///< number of the last packet taken
    bool timed;           ///< `transit` is known
    bool skipping;        ///< up to the end of a frame that was given up
    jpeg_tables_t jpeg_tables;
    unit_pace_t unit_pace;
};

struct jpeg_header_t;

class depacketizer {
public:
    depacketizer(Rtp& rtp, const char* file, int line) noexcept : rtp_(rtp), file_(file), line_(line) {}
    depacketizer(const depacketizer&) = delete;
    depacketizer& operator=(const depacketizer&) = delete;

    void set_arrival(uint64_t us) noexcept { arrival_ = us; }
    void skip_extensions(bool on) noexcept { skips_extensions_ = on; }
    void take(buffer_t packet) noexcept;
    void take_report(buffer_t packet) noexcept;

private:
    bool take_sequence(uint16_t seq) noexcept;
    void take_timestamp(uint32_t timestamp) noexcept;
    void count_packet(uint16_t seq, uint32_t timestamp) noexcept;
    void count_jitter(uint32_t timestamp) noexcept;
    void dispatch(std::span<const uint8_t> payload, bool extension) noexcept;

    bool append(buf_t& to, std::span<const uint8_t> bytes) noexcept;
    void discard_frame() noexcept;
    void deliver() noexcept { rtp_.call_frame(); }

    void unpack_h264(std::span<const uint8_t> payload) noexcept;
    void unpack_h264fua(std::span<const uint8_t> payload) noexcept;
    void unpack_jpeg(std::span<const uint8_t> payload) noexcept;
    std::span<const uint8_t> take_jpeg_tables(uint8_t q, std::span<const uint8_t>& scan) noexcept;
    void unpack_jpeg_large(std::span<const uint8_t> payload) noexcept;
    bool begin_jpeg(const jpeg_header_t& header, std::span<const uint8_t>& scan) noexcept;
    void unpack_pcmu(std::span<const uint8_t> payload) noexcept;
    void unpack_univ(std::span<const uint8_t> payload) noexcept;
    void unpack_mp4a(std::span<const uint8_t> payload) noexcept;
    void take_units(std::span<const uint8_t> headers, size_t header_bits, std::span<const uint8_t> units) noexcept;
    void take_unit_piece(size_t size, std::span<const uint8_t> piece) noexcept;
    void learn_pace() noexcept;

    Rtp& rtp_;
    track_t* trak_ = nullptr;  // of the packet at hand
    const char* file_;
    int line_;
    uint64_t arrival_ = 0;
    bool skips_extensions_ = false;
};

}  // namespace rtp
