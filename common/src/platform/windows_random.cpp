#include "platform/system.h"

#include <algorithm>
#include <climits>
#include <windows.h>
// Behind windows.h, which it needs.
#include <bcrypt.h>

namespace common::platform {

bool fill_random(void* out, size_t size) noexcept {
    constexpr size_t most_at_once = ULONG_MAX;
    auto* bytes = static_cast<UCHAR*>(out);
    while (size > 0) {
        const size_t part = std::min(size, most_at_once);
        if (BCryptGenRandom(nullptr, bytes, static_cast<ULONG>(part), BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0)
            return false;
        bytes += part;
        size -= part;
    }
    return true;
}

}  // namespace common::platform
