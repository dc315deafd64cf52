/// What a fuzz target is: one function that takes any bytes, and aborts where a promise is broken. libFuzzer calls it
/// in the preset fuzz, the replay program in every preset. When it returns, no block of the runtime may be held.
#pragma once

#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <vector>

void fuzz_target(std::span<const uint8_t> input);

namespace fuzz {

/// Whether the replay program let an allocation fail in this run. What was asked for may then be missing.
inline bool starved = false;

/// Aborts unless it holds.
inline void require(bool holds) {
    if (!holds) std::abort();
}

inline void require_utf8(std::string_view text) {
    while (!text.empty()) {
        uint32_t code = 0;
        const size_t size = utf8_decode(text.data(), text.size(), &code);
        require(size > 0);
        text.remove_prefix(size);
    }
}

inline std::string text_of(std::span<const uint8_t> input) { return {input.begin(), input.end()}; }

/// How a dialog of RTSP is cut: into equal pieces, the first of them as long as the sum of all bytes says.
struct cuts_t {
    cuts_t(std::span<const uint8_t> input, size_t size)
        : piece(size),
          sum(std::accumulate(input.begin(), input.end(), size_t{0})),
          in_one_piece(size >= input.size() - 1),
          first(in_one_piece ? size : 1 + sum % size),
          ends_at(in_one_piece ? 1 + sum % 64 : 0) {}

    size_t piece, sum;
    bool in_one_piece;
    size_t first;
    size_t ends_at;  ///< the event from inside which a session is closed, or, if even, its tracks go; 0 for none
};

}  // namespace fuzz

using fuzz::require;
