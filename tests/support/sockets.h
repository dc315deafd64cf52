// Sockets for tests: closed at the end of the scope, awaited, drained, asked for their options, counted.
#pragma once

#include "platform/socket_api.h"

#include "core/memory.h"
#include "inet/net_socket.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace test {

/// The socket layer is up as long as the program runs.
inline const struct socket_layer {
    socket_layer() noexcept { socket_init(); }
} socket_layer_up;

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

using watch = net::platform::watch_t;

/// Waits up to five seconds until a socket can be read or written (watch::read, watch::write), or its end shows.
inline bool await(int fd, uint8_t wanted) {
    watch waited = {.fd = fd, .wanted = wanted, .found = 0};
    return net::platform::wait_sockets({&waited, 1}, 5'000'000) == 1;
}

/// Reads what has arrived on a socket that does not block.
inline void drain(int fd) {
    uint8_t bytes[64];
    while (net::platform::receive_bytes(fd, bytes, nullptr) > 0) {
    }
}

/// A port of 127.0.0.1 on which nobody listens now.
inline unsigned short free_port() {
    const tcp_socket probe;
    net_tcp_listen(probe, "127.0.0.1", 0);
    return net_socket_get_near_port(probe);
}

// Asked of the system, past the functions under test: platform/posix_sockets.cpp and windows_sockets.cpp.

enum class option {
    keep_alive,
    no_delay,
    reuse_address,
    receive_buffer,
    send_buffer,
    ttl,
    multicast_ttl,
    multicast_loop,
    multicast_interface,  ///< the address, in network order
};

/// Value of an option; -1 when the system does not tell.
int value_of(int fd, option which);

bool is_open(int fd);
/// Whether child processes get it, too.
bool is_inherited(int fd);
/// Of this process; with POSIX descriptors of every kind.
size_t open_sockets();

/// Sends a byte as urgent data.
bool send_urgent(int fd);

/// Closes a registered socket so that the peer's connection is reset.
void close_with_reset(int fd);

/// The host's name in UTF-8.
std::string host_name();

/// Processor time that this process has used, in seconds.
double processor_time();

}  // namespace test
