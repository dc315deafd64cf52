// The readers and the writers of a wait: two sets of at most 512 descriptors, merged by descriptor. They are told anew
// for each wait; what the system knows of them stays from wait to wait.
#pragma once

#include "platform/socket_api.h"

#include <array>
#include <cstdint>

namespace net {

class watch_sets {
public:
    static constexpr uint32_t capacity = 512;

    /// Nothing is in the sets.
    void clear() noexcept;

    /// Puts a descriptor into each set, or takes it out: of two calls for one descriptor the later decides. What does
    /// not fit stays out. @return whether tell() has something to do
    bool set(int fd, bool read, bool write) noexcept;

    /// Tells the system what was set, while the descriptor is not closed. It need not be: the wait then takes longer.
    void tell(int fd) noexcept;

    /// The number may be that of another socket than before, or somebody has left with it.
    void renew(int fd) noexcept;

    /// What is closed from now on is not waited for, also by a wait that goes on. Any thread.
    void leave(int fd) noexcept { waiter_.leave(fd); }

    /// Waits for the members. @return the number of ready descriptors, 0 when time ran out, -1 when it cannot wait.
    int wait(int64_t microseconds) noexcept;

    /// What the last wait found, in the bits of platform::watch_t.
    uint8_t found(int fd) const noexcept;

private:
    // Those of the last wait and those of the next.
    static constexpr uint32_t most_watches = 2 * platform::max_watches;
    static constexpr uint32_t slot_count = 2 * most_watches;
    static_assert(2 * capacity <= platform::max_watches);

    uint32_t slot_of(int fd) const noexcept;
    uint32_t free_place() noexcept;
    static void change(uint8_t& wanted, uint8_t bit, bool in, uint32_t& members) noexcept;
    void drop_unwanted() noexcept;

    std::array<platform::watch_t, most_watches> watches_;  // each keeps its place; fd -1 is a free one
    std::array<uint16_t, slot_count> slots_ = {};          // hash by descriptor: index in watches_ plus 1, 0 free
    uint32_t count_ = 0;                                   // places that are or were taken
    uint32_t free_ = 0;                                    // of them
    uint32_t readers_ = 0;
    uint32_t writers_ = 0;
    platform::waiter waiter_;
};

}  // namespace net
