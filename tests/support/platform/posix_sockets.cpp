#include "support/sockets.h"

#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {

int value_of(int fd, option which) {
    // In the order of `option`.
    constexpr int places[][2] = {
        {SOL_SOCKET, SO_KEEPALIVE},     {IPPROTO_TCP, TCP_NODELAY},      {SOL_SOCKET, SO_REUSEADDR},
        {SOL_SOCKET, SO_RCVBUF},        {SOL_SOCKET, SO_SNDBUF},         {IPPROTO_IP, IP_TTL},
        {IPPROTO_IP, IP_MULTICAST_TTL}, {IPPROTO_IP, IP_MULTICAST_LOOP}, {IPPROTO_IP, IP_MULTICAST_IF},
    };
    const auto [level, name] = places[static_cast<size_t>(which)];
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, level, name, &value, &size) == 0 ? value : -1;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

bool is_inherited(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0; }

size_t open_sockets() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<size_t>(std::distance(descriptors, {}));
}

bool send_urgent(int fd) { return send(fd, "!", 1, MSG_OOB) == 1; }

void close_with_reset(int fd) {
    const linger at_once = {.l_onoff = 1, .l_linger = 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    net_socket_close(fd);
}

std::string host_name() {
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

double processor_time() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

}  // namespace test
