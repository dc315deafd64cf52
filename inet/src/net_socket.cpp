#include "inet/net_socket.h"

#include "net_socket/open_sockets.h"
#include "report.h"

namespace platform = net::platform;

namespace {

constexpr int first_own_descriptor = 3;  // below stand the standard streams

// Registers a new socket and gives its descriptor, or closes it and gives -1.
int adopt(int fd, const char* file, int line) noexcept {
    net::descriptor socket(fd);
    socket_options(fd);
    return net::enter_socket(fd, file, line) ? socket.release() : -1;
}

}  // namespace

int socket_get_error_code() noexcept { return platform::last_error(); }

int net_socket_get_error(int fd) noexcept { return platform::pending_error(fd); }

void socket_init() noexcept { platform::start_sockets(); }

void socket_free() noexcept {
    for (int fd = net::leave_any_socket(); fd >= 0; fd = net::leave_any_socket())
        net::report("not closed socket: %d", fd);
    platform::stop_sockets();
}

int net_socket_create(int family, int type, int protocol, const char* file, int line) noexcept {
    const int fd = platform::open_socket(family, type, protocol);
    if (fd < 0) return -1;
    if (fd < first_own_descriptor) net::report("warning: open socket fd: %d", fd);
    return adopt(fd, file, line);
}

int net_socket_accept(int fd, sockaddr_in* peer, const char* file, int line) noexcept {
    const int accepted = platform::accept_socket(fd, peer);
    return accepted < 0 ? accepted : adopt(accepted, file, line);
}

void net_socket_close(int fd) noexcept {
    if (fd < first_own_descriptor) return;
    if (!net::leave_socket(fd)) net::report("socket_close: unknown socket: %d", fd);
    platform::close_socket(fd);
}

bool socket_nonBlock(int fd) noexcept { return platform::set_blocking(fd, false); }

bool socket_keepAlive(int fd) noexcept {
    platform::set_option(fd, platform::option::keep_alive, 1);
    return true;
}

bool socket_noNagle(int fd) noexcept { return platform::set_option(fd, platform::option::no_delay, 1); }

bool socket_reuseAddress(int fd) noexcept { return platform::set_option(fd, platform::option::reuse_address, 1); }

bool socket_TTL(int fd, unsigned char ttl) noexcept {
    platform::set_option(fd, platform::option::ttl, ttl);
    return true;
}

bool socket_multicastTTL(int fd, unsigned char ttl) noexcept {
    platform::set_option(fd, platform::option::multicast_ttl, ttl);
    return true;
}

bool socket_options(int fd) noexcept {
    if (!socket_nonBlock(fd)) return false;
    socket_keepAlive(fd);
    socket_noNagle(fd);
    return socket_reuseAddress(fd);
}

int net_socket_set_size(int fd, int first, int second) noexcept {
    bool applied = true;
    for (const int size : {first, second}) {
        if (size != 0) applied = platform::set_option(fd, platform::option::receive_buffer, size) && applied;
    }
    return applied ? 0 : -1;
}
