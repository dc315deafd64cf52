// What a client receives, looked at as cheaply as the figures allow: the heads of packets and the times of pictures.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace load {

using bytes = std::span<const uint8_t>;

/// Of a packet only this much is looked at: the RTP header and what tells an H.264 key picture.
constexpr size_t head_size = 16;

/// Microseconds of the monotonic clock.
int64_t clock_now();

/// Counts one RTP stream of H.264 video (RFC 3550, RFC 6184). Counters run only while measuring. A picture ends where
/// the timestamp changes: the marker bit ends NAL units with some servers.
class video_stream {
public:
    /// @param ticks  of the 90 kHz clock from one picture to the next
    explicit video_stream(uint32_t ticks) : ticks_(ticks) {}

    /// @param head    the first head_size bytes, or the whole packet when it is shorter
    /// @param length  of the whole packet
    void take(bytes head, size_t length, int64_t now, bool measuring);

    /// When the first picture that can be decoded was complete; 0 before.
    int64_t first_picture() const { return first_picture_; }

    uint64_t bytes_taken = 0;
    uint64_t packets = 0;
    uint64_t lost = 0;  ///< packets, by sequence number
    uint64_t pictures = 0;
    uint64_t missing = 0;  ///< pictures that never came, by the step between timestamps
    /// Arrival minus RTP time of every picture in microseconds, counted from that of the first packet.
    std::vector<int32_t> transit;

private:
    void take_sequence(uint16_t sequence, bool measuring);
    void finish_picture(uint32_t next, bool measuring);

    uint32_t ticks_;
    bool begun_ = false;
    bool key_ = false;  ///< the picture that comes in is a key picture
    uint16_t next_sequence_ = 0;
    uint32_t first_timestamp_ = 0;
    uint32_t timestamp_ = 0;
    int64_t first_arrival_ = 0;
    int64_t arrival_ = 0;  ///< of the last packet
    int64_t first_picture_ = 0;
};

/// Takes a connection apart into interleaved packets (RFC 2326, section 10.12), whose payload is skipped, and
/// responses.
class interleaved_stream {
public:
    /// channel, head and length of a packet
    std::function<void(uint8_t, bytes, size_t)> on_packet;
    /// header with body
    std::function<void(const std::string&)> on_response;

    /// @return false when the peer talks nonsense.
    bool feed(bytes in);

private:
    bool take_text(bytes& in);
    void take_head(bytes& in);

    std::array<uint8_t, 4 + head_size> head_{};
    size_t filled_ = 0;
    size_t skip_ = 0;
    std::string text_;
    bool header_ended_ = false;
    size_t body_ = 0;  ///< bytes that are still to come after the header
};

/// Value of a header of a response, empty when it has none.
std::string header_value(const std::string& response, std::string_view name);

}  // namespace load
