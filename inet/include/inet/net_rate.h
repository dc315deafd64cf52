/// Rate meters: the mean bit rate and frame rate since a start, a sliding rate, and a budget of bytes per second for
/// pacing. All times are microseconds of time_now().
///
/// Plain values, one thread at a time.
#pragma once

#include "core/api.h"

#include <cstdint>

namespace tool {

/// Mean bit rate since a start.
class INET_API Bps {
public:
    uint64_t start = 0;
    uint32_t bytes = 0;

    /// As reset().
    Bps() noexcept;
    /// Starts now, with no bytes.
    void reset() noexcept;
    void add(unsigned n) noexcept;
    /// Bits per second since the start; 0 while no microsecond has passed.
    unsigned get() const noexcept;
    /// Bytes that may still be sent to stay within `bit_rate`, modulo 2^32. 0 when eight times the rate is no more than
    /// the bytes counted.
    unsigned available(unsigned bit_rate) const noexcept;
};

/// Mean frame rate since a start.
class INET_API Fps {
public:
    uint64_t start = 0;
    uint32_t frames = 0;

    /// Starts now, with no frames.
    Fps() noexcept;
    void tick() noexcept;
    /// Frames per second since the start; 0 while no microsecond has passed.
    double get() const noexcept;
};

}  // namespace tool

namespace net {

/// Sliding rate. A zeroed record has not started.
struct bps_t {
    uint32_t rate = 0;          ///< units per second; 0 in the first second
    uint64_t period_start = 0;  ///< 0: not started
    uint64_t pending = 0;       ///< units added in the current period
};

}  // namespace net

/// Counts units. A period of more than a second is closed: the rate is then the mean of the last rate and its own.
INET_API void bps_add(net::bps_t& meter, unsigned n) noexcept;
/// Units per second, after closing a period that is over.
INET_API unsigned bps_get(net::bps_t& meter) noexcept;

namespace net {

/// Budget of bytes per second. A zeroed record has no limit.
struct bandwidth_t {
    uint32_t limit = 0;         ///< bytes per second; 0: no limit
    uint32_t used = 0;          ///< bytes
    uint64_t period_start = 0;  ///< 0: not started
};

}  // namespace net

/// Sets the limit, rounded down to whole bytes, and starts anew.
INET_API void bandwidth_set(net::bandwidth_t& budget, unsigned bits_per_second) noexcept;

/// Bytes that may be sent now; 0xffffffff without a limit. The first call starts the period and returns a second's
/// budget. A later call moves a period that is over on by one second, but only when its budget was used up. Unused
/// budget stays available. From the second call on the result is the budget since the period's start less the used
/// bytes, modulo 2^32: it wraps when more was used than the time that has passed allows.
INET_API unsigned bandwidth_available(net::bandwidth_t& budget) noexcept;
/// Counts bytes that were sent.
INET_API void bandwidth_commit(net::bandwidth_t& budget, unsigned n) noexcept;
