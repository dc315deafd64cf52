// The parameter sets of a received H.264 track, in Annex B form.
#pragma once

#include "core/buf.h"

#include <cstdint>
#include <span>

namespace rtp {

inline constexpr uint32_t max_parameter_sets = 64 * 1024;

enum class kept_t : uint8_t {
    unchanged,  ///< it is held already, or there is no room for it
    added,
    restarted,  ///< it is another SPS: what was held before is gone
};

/// Keeps an SPS or PPS. A PPS takes the place of the one with its number.
/// @param sets  at most max_parameter_sets bytes
kept_t keep_parameter_set(buf_t& sets, std::span<const uint8_t> nal, const char* file, int line) noexcept;

std::span<const uint8_t> without_trailing_zeros(std::span<const uint8_t> nal) noexcept;

}  // namespace rtp
