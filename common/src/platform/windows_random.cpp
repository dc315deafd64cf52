#include "platform/system.h"

#include <algorithm>
#include <climits>
#include <windows.h>
// Behind windows.h, which it needs.
#include <bcrypt.h>

namespace common::platform {

namespace {

using generate_call = decltype(&BCryptGenRandom);

/// From the system's folder alone: were the library linked by name, one of that name beside the program would be taken.
generate_call find_generate() noexcept {
    const HMODULE library = LoadLibraryExW(L"bcrypt.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return library
               ? reinterpret_cast<generate_call>(reinterpret_cast<void*>(GetProcAddress(library, "BCryptGenRandom")))
               : nullptr;
}

}  // namespace

bool fill_random(void* out, size_t size) noexcept {
    static const generate_call generate = find_generate();
    constexpr size_t most_at_once = ULONG_MAX;
    auto* bytes = static_cast<UCHAR*>(out);
    while (size > 0) {
        const size_t part = std::min(size, most_at_once);
        if (!generate || generate(nullptr, bytes, static_cast<ULONG>(part), BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0)
            return false;
        bytes += part;
        size -= part;
    }
    return true;
}

}  // namespace common::platform
