// Runs of datagrams that the system may cut itself out of one message. What one message may hold is much the same
// everywhere.
#pragma once

#include "platform/socket_api.h"

#include <algorithm>
#include <span>

namespace net::platform {

inline constexpr size_t max_segments = 64;
inline constexpr size_t max_run_bytes = 65000;  // with headers below 64 KiB

inline bool same_address(const sockaddr_in* a, const sockaddr_in* b) noexcept {
    return a == b || (a && b && a->sin_addr.s_addr == b->sin_addr.s_addr && a->sin_port == b->sin_port);
}

/// Datagrams from the front that one message carries: all of the first one's size, but for the last.
inline size_t run_length(std::span<const datagram_t> datagrams) noexcept {
    const datagram_t& first = datagrams.front();
    size_t bytes = first.size;
    size_t count = 1;
    while (first.size && count < std::min(datagrams.size(), max_segments)) {
        const datagram_t& next = datagrams[count];
        bytes += next.size;
        if (next.size > first.size || next.size == 0 || bytes > max_run_bytes || !same_address(next.to, first.to))
            break;
        ++count;
        if (next.size < first.size) break;
    }
    return count;
}

}  // namespace net::platform
