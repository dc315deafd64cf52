// What the common floor asks of the operating system. posix_*.cpp and windows_*.cpp implement the same functions.
#pragma once

#include <cstddef>

namespace common::platform {

/// Fills bytes from the system's random generator. @return false when the system has none to give.
bool fill_random(void* out, size_t size) noexcept;

}  // namespace common::platform
