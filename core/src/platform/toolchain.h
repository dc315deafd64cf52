/// Where compilers and their runtimes differ: the address checker of a test build, the end of thread-local objects.
#pragma once

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CORE_ADDRESS_CHECKER 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define CORE_ADDRESS_CHECKER 1
#endif

#if defined(CORE_ADDRESS_CHECKER)
#include <sanitizer/asan_interface.h>
#endif

namespace core::platform {

/// Whether the destructor of a thread-local object finds it whole. MinGW-w64's GCC keeps such objects in blocks that it
/// releases first and runs the destructors afterwards.
#if defined(__MINGW32__)
inline constexpr bool thread_locals_end_whole = false;
#else
inline constexpr bool thread_locals_end_whole = true;
#endif

// The heads of our blocks: no other code may touch them.
#if defined(CORE_ADDRESS_CHECKER)
inline constexpr bool address_checker = true;
/// Touching these bytes is a fault from now on.
inline void forbid(const void* start, size_t size) noexcept { __asan_poison_memory_region(start, size); }
/// Takes forbid() back.
inline void permit(const void* start, size_t size) noexcept { __asan_unpoison_memory_region(start, size); }
#else
inline constexpr bool address_checker = false;
inline void forbid(const void*, size_t) noexcept {}
inline void permit(const void*, size_t) noexcept {}
#endif

/// Copy of a small record, without the address checker's eye: for looking at memory that may not be ours.
#if defined(CORE_ADDRESS_CHECKER)
template <class Record>
[[gnu::no_sanitize_address, gnu::noinline]] Record peek(const Record* record) noexcept {
    return *record;
}
#else
template <class Record>
Record peek(const Record* record) noexcept {
    return *record;
}
#endif

}  // namespace core::platform
