#include "platform/system.h"

#include <algorithm>
#include <cstdint>
#include <unistd.h>

namespace common::platform {

bool fill_random(void* out, size_t size) noexcept {
    constexpr size_t most_at_once = 256;  // what POSIX lets getentropy() give
    auto* bytes = static_cast<uint8_t*>(out);
    while (size > 0) {
        const size_t part = std::min(size, most_at_once);
        if (getentropy(bytes, part) != 0) return false;
        bytes += part;
        size -= part;
    }
    return true;
}

}  // namespace common::platform
