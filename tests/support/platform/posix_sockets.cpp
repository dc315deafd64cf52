#include "support/sockets.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

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
    socklen_t size = sizeof value;
    return getsockopt(fd, level, name, &value, &size) == 0 ? value : -1;
}

bool is_inherited(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0; }

bool send_urgent(int fd) { return send(fd, "!", 1, MSG_OOB) == 1; }

}  // namespace test
