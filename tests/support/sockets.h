// Sockets for tests: closed at the end of the scope, awaited, drained, counted.
#pragma once

#include "platform/socket_api.h"

#include "core/memory.h"
#include "inet/net_socket.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>

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
    tcp_socket(tcp_socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    tcp_socket& operator=(tcp_socket&&) = delete;

    operator int() const { return fd_; }
    void close() { net_socket_close(std::exchange(fd_, -1)); }

private:
    int fd_;
};

struct udp_socket : tcp_socket {
    udp_socket() : tcp_socket(net_socket_create(2, 2, 17, CORE_HERE)) {}
};

/// The ends of a TCP connection with socket_options().
struct socket_pair {
    explicit socket_pair(std::pair<int, int> fds = open()) : here(fds.first), there(fds.second) {
        socket_options(here);
        socket_options(there);
    }
    static std::pair<int, int> open() {
        int fds[2] = {-1, -1};
        net_socket_pair(2, 1, 6, fds, CORE_HERE);
        return {fds[0], fds[1]};
    }
    /// Sends a byte from there to here.
    void poke() const { net_udp_send_msg(there, "x", nullptr); }

    tcp_socket here, there;
};

using watch = net::platform::watch_t;

/// What a socket is found to be (watch::read, watch::write or watch::closed) after a wait of so many microseconds at
/// most.
inline uint8_t found(int fd, uint8_t wanted, int64_t longest) {
    watch waited = {.fd = fd, .wanted = wanted, .found = 0};
    net::platform::wait_sockets({&waited, 1}, longest);
    return waited.found;
}

/// Waits up to five seconds until a socket can be read or written, or its end shows.
inline bool await(int fd, uint8_t wanted) { return found(fd, wanted, 5'000'000) != 0; }

/// Of this process; a socket may count more than once where its number's lowest bits mean nothing.
inline int open_sockets() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd)
        count += found(fd, watch::read, 0) != watch::closed;
    return count;
}

/// Reads what has arrived on a socket that does not block.
inline void drain(int fd) {
    uint8_t bytes[64 * 1024];
    while (net::platform::receive_bytes(fd, bytes, nullptr) > 0) {
    }
}

/// A client of a port of 127.0.0.1.
struct player {
    explicit player(uint16_t port) {
        net_tcp_connect(socket, "127.0.0.1", port);
        EXPECT_TRUE(await(socket, watch::write));
    }
    void say(std::string text) const {
        net_tcp_send_buffer(socket, {reinterpret_cast<uint8_t*>(text.data()), static_cast<uint32_t>(text.size())});
    }
    /// What it is answered next; "closed" at the end of the connection.
    std::string ask(const std::string& text = "") const {
        say(text);
        uint8_t room[16 * 1024];
        buf_t bytes{room, sizeof room, 0};
        EXPECT_TRUE(await(socket, watch::read));
        const int count = net_tcp_recv(socket, bytes);
        return count <= 0 ? "closed" : std::string(reinterpret_cast<char*>(room), bytes.length);
    }
    const tcp_socket socket;
};

/// A port of 127.0.0.1 on which nobody listens now.
inline unsigned short free_port() {
    const tcp_socket probe;
    net_tcp_listen(probe, "127.0.0.1", 0);
    return net_socket_get_near_port(probe);
}

}  // namespace test
