/// GOST R 34.11-2012 hash with a 256-bit result (RFC 6986). Any thread; allocates nothing.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

/// Hashes `size` bytes; `data` may be null when there are none. Message and digest are in the order of transmission.
/// RFC 6986 prints them as numbers: the first byte here is the last one there.
/// @return 1; 0 when `out` is null, or when `data` is null and `size` is not 0. After 0 `out` is as before.
INET_API int core_hash_gost(const void* data, size_t size, uint8_t out[32]) noexcept;
