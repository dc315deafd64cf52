// Bodies of RTMP audio and video messages: those of FLV tags.
#pragma once

#include "common/h264.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace inet::rtmp::flv {

// The first byte of a video body: kind of picture and codec.
inline constexpr uint8_t key_picture = 0x10, other_picture = 0x20;
inline constexpr uint8_t codec_avc = 7, codec_mp4v = 9;
// The second one: what follows.
inline constexpr uint8_t is_header = 0, is_data = 1;
// The first byte of an AAC body (the same for every rate), and codecs of sound.
inline constexpr uint8_t aac = 0xAF;
inline constexpr uint8_t codec_mp3 = 2, codec_pcmu = 8, codec_aac = 10;

inline constexpr uint32_t max_header = 1024;

// What stands before a picture: codec, data or header, and milliseconds from decoding to display.
constexpr std::array<uint8_t, 5> picture_prefix(bool key, uint8_t codec, uint8_t packet,
                                                uint32_t composition) noexcept {
    return {static_cast<uint8_t>((key ? key_picture : other_picture) | codec), packet,
            static_cast<uint8_t>(composition >> 16), static_cast<uint8_t>(composition >> 8),
            static_cast<uint8_t>(composition)};
}

constexpr std::array<uint8_t, 4> nal_length(std::span<const uint8_t> nal) noexcept {
    const auto size = static_cast<uint32_t>(nal.size());
    return {static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 8),
            static_cast<uint8_t>(size)};
}

// Of NAL units, those with a whole slice are sent. Parameter sets stand in the sequence header.
constexpr bool is_sent(uint8_t nal_type) noexcept { return nal_type == h264_slice || nal_type == h264_slice_idr; }

// What stands before a slice that is sent alone.
constexpr std::array<uint8_t, 9> nal_prefix(std::span<const uint8_t> nal, uint32_t composition) noexcept {
    std::array<uint8_t, 9> prefix{};
    const bool key = (nal[0] & 0x1F) == h264_slice_idr;
    const auto picture = picture_prefix(key, codec_avc, is_data, composition);
    const auto length = nal_length(nal);
    std::copy(length.begin(), length.end(), std::copy(picture.begin(), picture.end(), prefix.begin()));
    return prefix;
}

// The AVC sequence header. Returns its bytes; 0 when the SPS has fewer than 4 bytes, the PPS none, or both are too
// long.
uint32_t put_avc_header(std::span<const uint8_t> sps, std::span<const uint8_t> pps,
                        std::span<uint8_t, max_header> out) noexcept;

// The first byte of sound in MP3 or G.711.
uint8_t sound_prefix(uint8_t codec, uint32_t rate, uint32_t channels, uint32_t bits) noexcept;

}  // namespace inet::rtmp::flv
