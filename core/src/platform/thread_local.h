/// What a thread-local object may be used for.
#pragma once

namespace core::platform {

/// Whether the destructor of a thread-local object finds it whole. MinGW-w64's GCC keeps such objects in blocks that it
/// releases first and runs the destructors afterwards.
#if defined(__MINGW32__)
inline constexpr bool thread_locals_end_whole = false;
#else
inline constexpr bool thread_locals_end_whole = true;
#endif

}  // namespace core::platform
