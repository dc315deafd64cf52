// G.711 µ-law coding of linear samples (ITU-T G.711, table 2).
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

namespace camera {

constexpr uint8_t mulaw_encode(int16_t sample) {
    constexpr int bias = 0x84;
    constexpr int clip = 32635;
    const int sign = sample < 0 ? 0x80 : 0;
    const int magnitude = std::min(sample < 0 ? -static_cast<int>(sample) : sample, clip) + bias;
    // The segment is the position of the highest bit above the lowest segment's eight.
    const int segment = static_cast<int>(std::bit_width(static_cast<unsigned>(magnitude))) - 8;
    const int mantissa = magnitude >> (segment + 3) & 0x0f;
    return static_cast<uint8_t>(~(sign | segment << 4 | mantissa));
}

}  // namespace camera
