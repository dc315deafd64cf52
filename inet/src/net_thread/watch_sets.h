// The readers and the writers of one wait: two sets of at most 512 descriptors, merged by descriptor.
#pragma once

#include "platform/socket_api.h"

#include <array>
#include <cstdint>

namespace net {

class watch_sets {
public:
    static constexpr uint32_t capacity = 512;

    void clear() noexcept;

    /// Puts a descriptor into each set, or takes it out: of two calls for one descriptor the later decides. What does
    /// not fit stays out.
    void set(int fd, bool read, bool write) noexcept;

    /// Waits for the members. @return the number of ready descriptors, 0 when time ran out, -1 when it cannot wait.
    int wait(int64_t microseconds) noexcept;

    /// What the last wait found, in the bits of platform::watch_t.
    uint8_t found(int fd) const noexcept;

private:
    static constexpr uint32_t slot_count = 2 * platform::max_watches;
    static_assert(2 * capacity <= platform::max_watches);

    uint32_t slot_of(int fd) const noexcept;
    static void change(uint8_t& wanted, uint8_t bit, bool in, uint32_t& members) noexcept;

    std::array<platform::watch_t, platform::max_watches> watches_;
    std::array<uint16_t, slot_count> slots_ = {};  // hash by descriptor: index in watches_ plus 1, 0 free
    uint32_t count_ = 0;
    uint32_t readers_ = 0;
    uint32_t writers_ = 0;
};

}  // namespace net
