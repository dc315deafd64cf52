/// What a fuzz target is: one function that takes any bytes, and aborts where a promise is broken. libFuzzer calls it
/// in the preset fuzz, the replay program in every preset. When it returns, no block of the runtime may be held.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

void fuzz_target(std::span<const uint8_t> input);

namespace fuzz {

/// Whether the replay program let an allocation fail in this run. What was asked for may then be missing.
inline bool starved = false;

/// Aborts unless it holds.
inline void require(bool holds) {
    if (!holds) std::abort();
}

inline std::string text_of(std::span<const uint8_t> input) { return {input.begin(), input.end()}; }

}  // namespace fuzz
