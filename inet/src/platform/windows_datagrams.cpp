// Many datagrams, one call for each: Winsock has no call for more that every Windows 10 knows.
#include "platform/socket_api.h"

namespace net::platform {

int send_datagrams(int fd, std::span<const datagram_t> datagrams) noexcept {
    int sent = 0;
    for (const datagram_t& each : datagrams) {
        if (send_bytes(fd, {each.data, each.size}, each.to) < 0) return sent != 0 ? sent : -1;
        ++sent;
    }
    return sent;
}

}  // namespace net::platform
