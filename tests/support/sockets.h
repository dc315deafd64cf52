// Sockets for tests: closed at the end of the scope, awaited, counted.
#pragma once

#include "core/memory.h"
#include "inet/net_socket.h"

#include <filesystem>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>

namespace test {

class tcp_socket {
public:
    tcp_socket() : fd_(net_socket_create(2, 1, 6, CORE_HERE)) {}
    explicit tcp_socket(int fd) : fd_(fd) {}
    ~tcp_socket() { close(); }
    tcp_socket(const tcp_socket&) = delete;
    tcp_socket& operator=(const tcp_socket&) = delete;

    operator int() const { return fd_; }
    void close() {
        if (fd_ >= 0) net_socket_close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

class udp_socket : public tcp_socket {
public:
    udp_socket() : tcp_socket(net_socket_create(2, 2, 17, CORE_HERE)) {}
};

/// Waits up to five seconds for poll events.
inline bool await(int fd, short events) {
    pollfd waited = {.fd = fd, .events = events, .revents = 0};
    return poll(&waited, 1, 5000) == 1;
}

inline int option(int fd, int level, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, level, name, &value, &size) == 0 ? value : -1;
}

inline auto open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

/// A port of 127.0.0.1 on which nobody listens now.
inline unsigned short free_port() {
    const tcp_socket probe;
    net_tcp_listen(probe, "127.0.0.1", 0);
    return net_socket_get_near_port(probe);
}

}  // namespace test
