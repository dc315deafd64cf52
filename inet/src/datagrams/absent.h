// Hosts that do not answer when the system asks the network where they are. It keeps what goes to them, in the room
// that all datagrams of a socket share, until it gives up asking after seconds: the others would wait as long.
#pragma once

#include "inet/sockaddr.h"

#include <array>
#include <cstdint>

namespace net {

class absent_hosts {
public:
    /// Whether any are known.
    bool any() const noexcept { return count_ != 0; }
    bool has(in_addr host) const noexcept { return find(host) != count_; }
    /// Looks for them, at most four times a second, as a socket has no room left; it gets more at the first that are
    /// found. @return whether one was found that was not known
    bool look(int fd) noexcept;
    /// How many of some datagrams to a host are sent: all, none, or one a second for the system to ask again.
    uint32_t may_send(int fd, in_addr host, uint32_t datagrams) noexcept;

private:
    struct place_t {
        in_addr host;
        uint64_t tried;  // core_timer() of the last datagram
    };

    uint32_t find(in_addr host) const noexcept;

    std::array<place_t, 16> places_{};
    uint32_t count_ = 0;
    uint64_t looked_ = 0;
    bool widened_ = false;
};

}  // namespace net
