#include "rtmp/flv.h"

#include <algorithm>

namespace inet::rtmp::flv {

namespace {

uint8_t* put_set(uint8_t* at, uint8_t count, std::span<const uint8_t> set) noexcept {
    *at++ = count;
    *at++ = static_cast<uint8_t>(set.size() >> 8);
    *at++ = static_cast<uint8_t>(set.size());
    return std::copy(set.begin(), set.end(), at);
}

}  // namespace

uint32_t put_avc_header(std::span<const uint8_t> sps, std::span<const uint8_t> pps,
                        std::span<uint8_t, max_header> out) noexcept {
    constexpr size_t around = 5 + 5 + 3 + 3;  // prefix, configuration, counts and lengths
    if (sps.size() < 4 || pps.empty() || sps.size() > out.size() || pps.size() > out.size()) return 0;
    if (around + sps.size() + pps.size() > out.size()) return 0;
    const auto prefix = picture_prefix(true, codec_avc, is_header, 0);
    uint8_t* at = std::copy(prefix.begin(), prefix.end(), out.data());
    // Version, profile, its compatibility, level, and NAL lengths of four bytes.
    for (const uint8_t byte : {uint8_t{1}, sps[1], sps[2], sps[3], uint8_t{0xFF}})
        *at++ = byte;
    at = put_set(at, 0xE1, sps);
    at = put_set(at, 1, pps);
    return static_cast<uint32_t>(at - out.data());
}

uint8_t sound_prefix(uint8_t codec, uint32_t rate, uint32_t channels, uint32_t bits) noexcept {
    const uint32_t other = codec == codec_mp3 ? 3 : 0;  // MP3 of 48,000 Hz, too, says 44,100: players read its headers
    const uint32_t step = rate == 11025 ? 1 : rate == 22050 ? 2 : rate == 44100 ? 3 : other;
    const bool wide = bits == 16 || codec == codec_mp3;
    return static_cast<uint8_t>(uint32_t{codec} << 4 | step << 2 | (wide ? 2U : 0U) | (channels > 1 ? 1U : 0U));
}

}  // namespace inet::rtmp::flv
