// Buffers that a peer fills.
#pragma once

#include "core/buf.h"

#include <algorithm>
#include <cstdint>

namespace bounded {

/// Makes room for `more` bytes behind those that are held: doubling, so that what comes in many pieces is not copied
/// for each of them, but neither content nor room passes `bound`. @return false when it would, or memory is out.
inline bool make_room(buf_t& buf, uint32_t more, uint32_t bound, const char* file, int line) noexcept {
    constexpr uint64_t smallest = 2048;
    if (more > bound || buf.length > bound - more) return false;
    if (more <= buf.size - buf.length) return true;
    const uint64_t wanted = std::max({uint64_t{buf.length} + more, 2 * uint64_t{buf.size}, smallest});
    return core_buf_resize(&buf, static_cast<uint32_t>(std::min<uint64_t>(bound, wanted)), file, line) != 0;
}

}  // namespace bounded
