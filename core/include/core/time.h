/// Time. The library's clock counts microseconds since 1970-01-01 UTC. Any thread.
#pragma once

#include "core/api.h"

#include <cstdint>
#include <ctime>

/// Microseconds of a monotonic clock with an arbitrary start, for measuring spans.
INET_API uint64_t core_timer() noexcept;

/// Microseconds since 1970-01-01 UTC. It never runs backwards: when the system clock is set back, it returns its last
/// value until the clock has reached that value. Measure spans with core_timer(), which goes on meanwhile.
INET_API uint64_t time_now() noexcept;

/// The same shifted by the local offset from UTC, so that core_timeUtc() gives local calendar fields.
INET_API uint64_t time_now_local() noexcept;

/// Calendar fields in UTC of a time in microseconds. @return 1, or 0 when `out` is null.
INET_API int core_timeUtc(uint64_t us, tm* out) noexcept;

/// Seconds since 1970-01-01 UTC of UTC calendar fields; fields out of range carry over.
INET_API int64_t core_timegm(const tm* fields) noexcept;

/// Formats a time in UTC with a strftime pattern in the C locale, in which %s stands for the milliseconds in three
/// digits: "%Y-%m-%dT%H:%M:%S.%sZ" gives "2015-11-25T15:47:30.042Z". @return a new text for core_mfree(), or null.
INET_API char* core_str_from_time(uint64_t us, const char* pattern, const char* file, int line) noexcept;

/// The same into a caller's buffer, cut to it and always terminated. @return the bytes written.
INET_API uint32_t time_format(uint64_t us, const char* pattern, char* out, uint32_t size) noexcept;

/// Reads a time in UTC in the basic form of ISO 8601, "20261122T101500Z" or with milliseconds "20261122T101500.250Z".
/// Fields out of range carry over. @return 1, or 0 for another form, or a time before 1970; `us` is then untouched.
INET_API int core_time_from_stamp(const char* text, uint32_t size, uint64_t* us) noexcept;

/// 100-nanosecond intervals since 1601-01-01 UTC, the file time of Windows.
INET_API uint64_t time_to_FileTime(uint64_t us) noexcept;

/// For tests: replaces the clocks behind core_timer() and time_now(); null restores the system's.
INET_API void core_time_set_clock(uint64_t (*clock)()) noexcept;
