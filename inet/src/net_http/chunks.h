// The chunked transfer coding (RFC 9112, 7.1).
#pragma once

#include "core/buf.h"

#include <cstdint>

namespace net::http {

/// Takes chunks apart. Bounds: 256 bytes of a chunk line, 4096 of trailers.
class chunks {
public:
    enum class result_t : uint8_t { more, end, malformed };

    void begin() noexcept { *this = chunks(); }
    /// Moves what is content from `in` to `out`, as long as `out` holds less than `bound`.
    /// @return `more` also when `out` is full or memory is out, which `full()` tells
    result_t take(buf_t& in, buf_t& out, uint32_t bound, const char* file, int line) noexcept;
    bool full() const noexcept { return full_; }

private:
    enum class part_t : uint8_t { size, content, line_end, trailer };

    result_t take_size(buf_t& in) noexcept;
    result_t take_trailer(buf_t& in) noexcept;

    part_t part_ = part_t::size;
    uint64_t left_ = 0;
    uint32_t trailers_ = 0;
    bool full_ = false;
};

}  // namespace net::http
