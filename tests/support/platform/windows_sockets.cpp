#include "support/sockets.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace test {

int value_of(int fd, option which) {
    // In the order of `option`.
    constexpr int places[][2] = {
        {SOL_SOCKET, SO_TYPE},          {SOL_SOCKET, SO_KEEPALIVE},      {IPPROTO_TCP, TCP_NODELAY},
        {SOL_SOCKET, SO_REUSEADDR},     {SOL_SOCKET, SO_RCVBUF},         {IPPROTO_IP, IP_TTL},
        {IPPROTO_IP, IP_MULTICAST_TTL}, {IPPROTO_IP, IP_MULTICAST_LOOP}, {IPPROTO_IP, IP_MULTICAST_IF},
    };
    const auto [level, name] = places[static_cast<size_t>(which)];
    int value = 0;
    int size = sizeof value;
    const auto handle = static_cast<SOCKET>(fd);
    return getsockopt(handle, level, name, reinterpret_cast<char*>(&value), &size) == 0 ? value : -1;
}

bool is_inherited(int fd) {
    DWORD flags = 0;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a socket is a handle
    return GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(fd)), &flags) &&
           (flags & HANDLE_FLAG_INHERIT);
}

bool send_urgent(int fd) { return send(static_cast<SOCKET>(fd), "!", 1, MSG_OOB) == 1; }

}  // namespace test
