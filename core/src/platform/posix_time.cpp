#include "system.h"

#include <ctime>

namespace core::platform {

uint64_t utc_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

int64_t local_offset(int64_t seconds) noexcept {
    const auto when = static_cast<time_t>(seconds);
    tm local{};
    return localtime_r(&when, &local) ? local.tm_gmtoff : 0;
}

}  // namespace core::platform
