// The chunked transfer coding (RFC 9112, 7.1).
#pragma once

#include "core/buf.h"

#include <cstdint>
#include <span>

namespace net::http {

/// Takes chunks apart. Bounds: 256 bytes of a chunk line, 4096 of trailers.
class chunks {
public:
    enum class result_t : uint8_t { more, end, malformed };

    void begin() noexcept { *this = chunks(); }
    /// Moves what is content from the front of `in` to `out`, as long as `out` holds less than `bound`.
    /// @return `more` also when `out` is full or memory is out, which `full()` tells. After `end`, `end` again
    result_t take(std::span<uint8_t>& in, buf_t& out, uint32_t bound, const char* file, int line) noexcept;
    bool full() const noexcept { return full_; }

private:
    enum class part_t : uint8_t { size, content, line_end, trailer, done };

    result_t take_content(std::span<uint8_t>& in, buf_t& out, uint32_t bound, const char* file, int line) noexcept;
    result_t take_line_end(std::span<uint8_t>& in) noexcept;
    result_t take_size(std::span<uint8_t>& in) noexcept;
    result_t take_trailer(std::span<uint8_t>& in) noexcept;

    part_t part_ = part_t::size;
    uint64_t left_ = 0;
    uint32_t trailers_ = 0;
    bool full_ = false;
};

}  // namespace net::http
