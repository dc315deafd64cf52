/// Version texts and the GOST hash.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

/// Forms a version text from a build date and time in the form of __DATE__ and __TIME__: "Nov 25 2015" and "15:47:30"
/// give "2015.11.25.154730". At most 31 bytes and a terminator go into `out`. @return out; empty when a text has
/// another form.
INET_API const char* core_get_version(const char* date, const char* time, char out[32]) noexcept;

/// GOST R 34.11-2012 hash with a 256-bit result (RFC 6986). @return 1, or 0 for a null argument.
INET_API int core_hash_gost(const void* data, size_t size, uint8_t out[32]) noexcept;
