#include "net_socket/addresses.h"
#include "net_socket/open_sockets.h"

namespace platform = net::platform;

namespace {

using net::descriptor;

constexpr int rtp_pair_attempts = 10;

// Making a pair over loopback may be held up by others: a tenth of a second, then it has failed.
constexpr int accept_attempts = 20;
constexpr int64_t accept_wait = 5'000;  // microseconds

descriptor open_stream() noexcept {
    descriptor opened(platform::open_socket(net::family_ipv4, net::type_stream, net::protocol_tcp));
    if (opened && !platform::set_blocking(opened.get(), false)) return descriptor();
    return opened;
}

bool listen_on_loopback(int listener, sockaddr_in& chosen) noexcept {
    const sockaddr_in loopback = net::make_address(net::make_host(INADDR_LOOPBACK), 0);
    return platform::set_listener(listener) && platform::bind_socket(listener, loopback) &&
           platform::near_address(listener, chosen) && platform::listen_socket(listener, 1);
}

bool connect(int fd, const sockaddr_in& address) noexcept {
    return platform::connect_socket(fd, address) || platform::last_error() == socket_error_would_block;
}

// The accepted socket whose other end is `near_end`: anybody on this host may have come in between.
descriptor accept_from(int listener, int near_end) noexcept {
    for (int attempt = 0; attempt < accept_attempts; ++attempt) {
        sockaddr_in peer = {};
        descriptor accepted(platform::accept_socket(listener, &peer));
        const bool is_local = peer.sin_addr.s_addr == net::make_host(INADDR_LOOPBACK).s_addr;
        if (accepted && is_local && peer.sin_port == net_socket_near(near_end).sin_port) return accepted;
        if (accepted) continue;
        if (platform::last_error() != socket_error_would_block) return descriptor();
        platform::watch_t waited = {.fd = listener, .wanted = platform::watch_t::read, .found = 0};
        platform::wait_sockets({&waited, 1}, accept_wait);
    }
    platform::set_last_error(socket_error_timed_out);
    return descriptor();
}

bool try_rtp_pair(int (&fds)[2]) noexcept {
    unsigned short port = 0;
    for (int& fd : fds) {
        fd = net_socket_create(net::family_ipv4, net::type_datagram, net::protocol_udp, CORE_HERE);
        if (fd < 0 || !platform::set_exclusive(fd)) return false;
        if (!platform::bind_socket(fd, net::make_address(net::any_address(), port))) return false;
        // The even port and the odd one above it differ in the last bit.
        port = net_socket_get_near_port(fd) ^ 1u;
    }
    return true;
}

void close_pair(int (&fds)[2]) noexcept {
    for (int& fd : fds) {
        if (fd >= 0) net_socket_close(fd);
        fd = -1;
    }
}

}  // namespace

int net_socket_pair(int, int, int, int fds[2], const char* file, int line) noexcept {
    if (!fds) {
        platform::set_last_error(socket_error_invalid_argument);
        return -1;
    }
    sockaddr_in address = {};
    const descriptor listener = open_stream();
    if (!listener || !listen_on_loopback(listener.get(), address)) return -1;
    descriptor near_end = open_stream();
    if (!near_end || !connect(near_end.get(), address)) return -1;
    descriptor far_end = accept_from(listener.get(), near_end.get());
    if (!far_end || !platform::set_blocking(near_end.get(), true) || !platform::set_blocking(far_end.get(), true))
        return -1;
    if (!net::enter_sockets(near_end.get(), far_end.get(), file, line)) return -1;
    fds[0] = near_end.release();
    fds[1] = far_end.release();
    return 0;
}

int socket_rtp_pair(int* rtp, int* rtcp) noexcept {
    if (!rtp || !rtcp) return -1;
    int fds[2] = {-1, -1};
    bool done = false;
    for (int attempt = 0; attempt < rtp_pair_attempts && !done; ++attempt) {
        close_pair(fds);
        done = try_rtp_pair(fds);
    }
    if (done && net_socket_get_near_port(fds[0]) > net_socket_get_near_port(fds[1])) std::swap(fds[0], fds[1]);
    *rtp = fds[0];
    *rtcp = fds[1];
    return done ? 1 : 0;
}
