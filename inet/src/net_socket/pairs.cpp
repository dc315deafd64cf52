#include "net_socket/pairs.h"

#include "net_socket/addresses.h"

namespace platform = net::platform;

namespace {

using net::descriptor;

constexpr int rtp_pair_attempts = 10;

// For one who waits for a loopback pair: in all a tenth of a second.
constexpr int waits = 20;
constexpr int64_t longest_wait = 5'000;  // microseconds

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

namespace net {

bool loopback_pair::begin() noexcept {
    sockaddr_in address = {};
    near_end_ = descriptor();
    listener_ = open_stream();
    if (listener_ && listen_on_loopback(listener_.get(), address)) {
        near_end_ = open_stream();
        if (near_end_ &&
            (platform::connect_socket(near_end_.get(), address) || platform::last_error() == socket_error_would_block))
            return true;
    }
    end();
    return false;
}

// Anybody on this host may have come in between: the end that was accepted is ours if its peer is the other one.
int loopback_pair::accept() noexcept {
    constexpr int most_at_once = 16;
    for (int count = 0; count < most_at_once; ++count) {
        sockaddr_in peer = {};
        descriptor accepted(platform::accept_socket(listener_.get(), &peer));
        if (!accepted) return platform::last_error() == socket_error_would_block ? 0 : -1;
        const bool is_local = peer.sin_addr.s_addr == make_host(INADDR_LOOPBACK).s_addr;
        if (!is_local || peer.sin_port != net_socket_near(near_end_.get()).sin_port) continue;
        far_end_ = std::move(accepted);
        return 1;
    }
    return 0;
}

int loopback_pair::finish(int* fds, const char* file, int line) noexcept {
    int result = accept();
    if (result == 1 &&
        !(platform::set_blocking(near_end_.get(), true) && platform::set_blocking(far_end_.get(), true) &&
          enter_sockets(near_end_.get(), far_end_.get(), file, line)))
        result = -1;
    if (result == 1) {
        fds[0] = near_end_.release();
        fds[1] = far_end_.release();
    }
    if (result != 0) end();
    return result;
}

void loopback_pair::wait() const noexcept {
    platform::watch_t waited = {.fd = listener_.get(), .wanted = platform::watch_t::read, .found = 0};
    platform::wait_sockets({&waited, 1}, longest_wait);
}

// Each closes without a change of the error.
void loopback_pair::end() noexcept {
    for (descriptor* each : {&listener_, &near_end_, &far_end_})
        *each = descriptor();
}

}  // namespace net

int net_socket_pair(int, int, int, int fds[2], const char* file, int line) noexcept {
    if (!fds) {
        platform::set_last_error(socket_error_invalid_argument);
        return -1;
    }
    net::loopback_pair pair;
    if (!pair.begin()) return -1;
    for (int waited = 0; waited < waits; ++waited) {
        const int result = pair.finish(fds, file, line);
        if (result != 0) return result == 1 ? 0 : -1;
        pair.wait();
    }
    platform::set_last_error(socket_error_timed_out);
    return -1;
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
