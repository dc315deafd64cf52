/// GOST R 34.11-2012 hash with a 256-bit result (RFC 6986). Any thread; allocates nothing.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

/// Hashes `size` bytes; `data` may be null when there are none. Message and digest are in the order of transmission:
/// the first byte is the one that RFC 6986, which writes numbers, prints last.
/// @return 1; 0, with `out` as before, when `out` is null or bytes are missing.
INET_API int core_hash_gost(const void* data, size_t size, uint8_t out[32]) noexcept;
