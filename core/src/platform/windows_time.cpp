#include "system.h"

#include <windows.h>

namespace core::platform {

namespace {

constexpr int64_t ticks_per_second = 10'000'000;
constexpr int64_t seconds_from_1601_to_1970 = 11'644'473'600;
constexpr int64_t last_second = INT64_MAX / ticks_per_second - seconds_from_1601_to_1970;

int64_t ticks_of(const FILETIME& time) noexcept {
    return static_cast<int64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

int64_t seconds_of(const FILETIME& time) noexcept {
    return ticks_of(time) / ticks_per_second - seconds_from_1601_to_1970;
}

FILETIME file_time_of(int64_t seconds) noexcept {
    const int64_t ticks = (seconds + seconds_from_1601_to_1970) * ticks_per_second;
    return {.dwLowDateTime = static_cast<DWORD>(ticks), .dwHighDateTime = static_cast<DWORD>(ticks >> 32)};
}

}  // namespace

// The standard library asks for the time of the last clock tick, up to 16 ms ago.
uint64_t utc_now() noexcept {
    FILETIME now{};
    GetSystemTimePreciseAsFileTime(&now);
    return static_cast<uint64_t>(ticks_of(now) / 10 - seconds_from_1601_to_1970 * 1'000'000);
}

int64_t local_offset(int64_t seconds) noexcept {
    if (seconds < -seconds_from_1601_to_1970 || seconds > last_second) return 0;
    const FILETIME moment = file_time_of(seconds);
    SYSTEMTIME utc{};
    SYSTEMTIME local{};
    FILETIME shifted{};
    // By the rules of that year.
    TIME_ZONE_INFORMATION zone{};
    const bool known = FileTimeToSystemTime(&moment, &utc) &&
                       GetTimeZoneInformationForYear(utc.wYear, nullptr, &zone) &&
                       SystemTimeToTzSpecificLocalTime(&zone, &utc, &local) && SystemTimeToFileTime(&local, &shifted);
    return known ? seconds_of(shifted) - seconds : 0;
}

}  // namespace core::platform
