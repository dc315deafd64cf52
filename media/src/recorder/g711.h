// G.711 as linear samples of 16 bits (ITU-T G.711).
#pragma once

#include <array>
#include <cstdint>

namespace media::record {

constexpr int16_t mulaw_decode(uint8_t code) noexcept {
    constexpr int bias = 0x84;
    const unsigned bits = ~unsigned{code};
    const int magnitude = (static_cast<int>((bits & 0x0f) << 3) + bias) << (bits >> 4 & 7);
    return static_cast<int16_t>(bits & 0x80 ? bias - magnitude : magnitude - bias);
}

constexpr int16_t alaw_decode(uint8_t code) noexcept {
    const unsigned bits = code ^ 0x55U;
    const unsigned segment = bits >> 4 & 7;
    int magnitude = static_cast<int>((bits & 0x0f) << 4) + 8;
    if (segment > 0) magnitude = (magnitude + 0x100) << (segment - 1);
    return static_cast<int16_t>(bits & 0x80 ? magnitude : -magnitude);
}

/// All codes of a law.
constexpr std::array<int16_t, 256> g711_table(int16_t (*decode)(uint8_t)) noexcept {
    std::array<int16_t, 256> table{};
    for (unsigned i = 0; i < table.size(); ++i)
        table[i] = decode(static_cast<uint8_t>(i));
    return table;
}

}  // namespace media::record
