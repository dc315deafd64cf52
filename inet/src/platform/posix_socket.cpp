#include "platform/socket_api.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace net::platform {

namespace {

struct error_pair {
    int system;
    int winsock;
};

// The one table of error numbers. A Winsock number stands first with the errno that set_last_error() gives it.
// EINPROGRESS comes from a non-blocking connect alone, for which Winsock says "would block".
// Behind the twins stand those that Winsock does not know: no interface leads to a multicast group, the host is off the
// network, the peer was gone before it could be accepted.
constexpr error_pair error_table[] = {
    {EINTR, 10004},           {EBADF, 10009},           {EACCES, 10013},        {EPERM, 10013},
    {EFAULT, 10014},          {EINVAL, 10022},          {EMFILE, 10024},        {ENFILE, 10024},
    {EAGAIN, 10035},          {EINPROGRESS, 10035},     {EALREADY, 10037},      {ENOTSOCK, 10038},
    {EDESTADDRREQ, 10039},    {EMSGSIZE, 10040},        {EPROTOTYPE, 10041},    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043}, {ESOCKTNOSUPPORT, 10044}, {EOPNOTSUPP, 10045},    {EPFNOSUPPORT, 10046},
    {EAFNOSUPPORT, 10047},    {EADDRINUSE, 10048},      {EADDRNOTAVAIL, 10049}, {ENETDOWN, 10050},
    {ENETUNREACH, 10051},     {ENETRESET, 10052},       {ECONNABORTED, 10053},  {ECONNRESET, 10054},
    {ENOBUFS, 10055},         {ENOMEM, 10055},          {EISCONN, 10056},       {ENOTCONN, 10057},
    {EPIPE, 10058},           {ESHUTDOWN, 10058},       {ETOOMANYREFS, 10059},  {ETIMEDOUT, 10060},
    {ECONNREFUSED, 10061},    {ELOOP, 10062},           {ENAMETOOLONG, 10063},  {EHOSTDOWN, 10064},
    {EHOSTUNREACH, 10065},    {ENOTEMPTY, 10066},       {EUSERS, 10068},        {EDQUOT, 10069},
    {ESTALE, 10070},          {EREMOTE, 10071},         {ENODEV, 10049},        {ENONET, 10050},
    {EPROTO, 10053},
};

constexpr int winsock_unknown = 10107;  // "a system call that should never fail has failed"

int winsock_from_system(int error) noexcept {
    if (error == 0) return 0;
    const auto* found = std::ranges::find(error_table, error, &error_pair::system);
    return found != std::end(error_table) ? found->winsock : winsock_unknown;
}

struct option_place {
    int level;
    int name;
};

// In the order of `option`.
constexpr option_place option_table[] = {
    {SOL_SOCKET, SO_KEEPALIVE},      {IPPROTO_TCP, TCP_NODELAY}, {SOL_SOCKET, SO_REUSEADDR},
    {SOL_SOCKET, SO_RCVBUF},         {IPPROTO_IP, IP_TTL},       {IPPROTO_IP, IP_MULTICAST_TTL},
    {IPPROTO_IP, IP_MULTICAST_LOOP},
};

const sockaddr* generic(const sockaddr_in* address) noexcept { return reinterpret_cast<const sockaddr*>(address); }
sockaddr* generic(sockaddr_in* address) noexcept { return reinterpret_cast<sockaddr*>(address); }

using name_call = int (*)(int, sockaddr*, socklen_t*);

bool read_address(name_call call, int fd, sockaddr_in& address) noexcept {
    address = {};
    socklen_t size = sizeof address;
    if (call(fd, generic(&address), &size) == 0 && address.sin_family == AF_INET) return true;
    address = {};
    return false;
}

// Repeats a transfer that a signal broke off.
template <class Call>
int transfer(Call call) noexcept {
    for (;;) {
        const ssize_t count = call();
        if (count >= 0 || errno != EINTR) return static_cast<int>(count);
    }
}

size_t transfer_size(size_t size) noexcept { return std::min<size_t>(size, INT_MAX); }

}  // namespace

void start_sockets() noexcept {}
void stop_sockets() noexcept {}

int last_error() noexcept { return winsock_from_system(errno); }

void set_last_error(int winsock_error) noexcept {
    const auto* found = std::ranges::find(error_table, winsock_error, &error_pair::winsock);
    errno = winsock_error == 0 ? 0 : found != std::end(error_table) ? found->system : EINVAL;
}

int system_error() noexcept { return errno; }

const char* system_error_text(int error) noexcept { return strerror(error); }

int pending_error(int fd) noexcept {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? winsock_from_system(error) : last_error();
}

int open_socket(int family, int type, int protocol) noexcept { return socket(family, type | SOCK_CLOEXEC, protocol); }

int accept_socket(int fd, sockaddr_in* peer) noexcept {
    socklen_t size = sizeof *peer;
    return accept4(fd, generic(peer), peer ? &size : nullptr, SOCK_CLOEXEC);
}

void close_socket(int fd) noexcept {
    const int error = errno;
    close(fd);
    errno = error;
}

bool bind_socket(int fd, const sockaddr_in& address) noexcept {
    return bind(fd, generic(&address), sizeof address) == 0;
}

bool listen_socket(int fd, int backlog) noexcept { return listen(fd, backlog) == 0; }

bool connect_socket(int fd, const sockaddr_in& address) noexcept {
    return connect(fd, generic(&address), sizeof address) == 0;
}

bool near_address(int fd, sockaddr_in& address) noexcept { return read_address(getsockname, fd, address); }
bool peer_address(int fd, sockaddr_in& address) noexcept { return read_address(getpeername, fd, address); }

bool set_option(int fd, option which, int value) noexcept {
    const option_place& place = option_table[static_cast<size_t>(which)];
    return setsockopt(fd, place.level, place.name, &value, sizeof value) == 0;
}

bool set_blocking(int fd, bool on) noexcept {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, on ? flags & ~O_NONBLOCK : flags | O_NONBLOCK) >= 0;
}

int open_bell() noexcept { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }
void ring_bell(int fd) noexcept { eventfd_write(fd, 1); }

void quiet_bell(int fd) noexcept {
    eventfd_t rung;
    eventfd_read(fd, &rung);
}

// Two sockets share a UDP port only when both carry the option, and the system's choice of a free port, too, takes
// ports of sockets that carry it for free.
bool set_exclusive(int fd) noexcept { return set_option(fd, option::reuse_address, 0); }

// Two listeners share a port by another option, which is not set here.
bool set_listener(int fd) noexcept { return set_option(fd, option::reuse_address, 1); }

bool join_group(int fd, in_addr group, in_addr via) noexcept {
    ip_mreq request = {};
    request.imr_multiaddr = group;
    request.imr_interface = via;
    return setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0;
}

bool set_multicast_interface(int fd, in_addr via) noexcept {
    return setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &via, sizeof via) == 0;
}

int send_bytes(int fd, std::span<const uint8_t> bytes, const sockaddr_in* to) noexcept {
    const socklen_t size = to ? sizeof *to : 0;
    return transfer(
        [&] { return sendto(fd, bytes.data(), transfer_size(bytes.size()), MSG_NOSIGNAL, generic(to), size); });
}

int send_pieces(int fd, const std::array<buffer_t, 3>& runs) noexcept {
    iovec pieces[] = {{runs[0].data, runs[0].size}, {runs[1].data, runs[1].size}, {runs[2].data, runs[2].size}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = std::size(pieces);
    return transfer([&] { return sendmsg(fd, &message, MSG_NOSIGNAL); });
}

void end_output(int fd) noexcept { shutdown(fd, SHUT_WR); }

void reset_on_close(int fd) noexcept {
    const linger none{.l_onoff = 1, .l_linger = 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

int receive_bytes(int fd, std::span<uint8_t> bytes, sockaddr_in* from) noexcept {
    return transfer([&] {
        socklen_t size = sizeof *from;
        return recvfrom(fd, bytes.data(), transfer_size(bytes.size()), 0, generic(from), from ? &size : nullptr);
    });
}

}  // namespace net::platform
