#include "system.h"

#include <ctime>

namespace core::platform {

int64_t local_offset(int64_t seconds) noexcept {
    const auto when = static_cast<time_t>(seconds);
    tm local{};
    return localtime_r(&when, &local) ? local.tm_gmtoff : 0;
}

}  // namespace core::platform
