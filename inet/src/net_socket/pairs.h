// Two connected sockets over loopback in the making. Whoever else connects to its listener holds it up, so it is asked
// again and again whether it is done.
#pragma once

#include "net_socket/open_sockets.h"

namespace net {

class loopback_pair {
public:
    /// Begins anew. @return false when the system refused
    bool begin() noexcept;

    bool has_begun() const noexcept { return bool{listener_}; }

    /// Never waits. @return 1 when `fds` hold the connecting and the accepted end, blocking and registered; 0 when it
    /// is not done yet; -1 when it failed
    int finish(int* fds, const char* file, int line) noexcept;

    /// Waits a moment for finish() to get on.
    void wait() const noexcept;

private:
    int accept() noexcept;
    void end() noexcept;

    descriptor listener_, near_end_, far_end_;
};

}  // namespace net
