#include "net_socket/addresses.h"
#include "net_socket/open_sockets.h"
#include "report.h"

#include <algorithm>

using net::any_address;
using net::is_multicast;
using net::make_address;
using net::report;
namespace platform = net::platform;

namespace {

constexpr int longest_reach = 255;  // TTL
constexpr int tcp_backlog = 1000;

bool set_reach(int fd, platform::option which) noexcept { return platform::set_option(fd, which, longest_reach); }

int bind_multicast(int fd, in_addr group) noexcept {
    set_reach(fd, platform::option::multicast_ttl);
    set_reach(fd, platform::option::ttl);
    const bool joined = platform::join_group(fd, group, any_address());
    const bool looped = platform::set_option(fd, platform::option::multicast_loop, 1);
    return joined && looped ? 0 : -1;
}

}  // namespace

bool socket_multicastInterface(int fd, const char* address) noexcept {
    in_addr via = {};
    return address && platform::parse_address(address, via) && platform::set_multicast_interface(fd, via);
}

bool socket_joinGroup(int fd, const char* group, const char* via) noexcept {
    in_addr parsed = {};
    in_addr on = {};
    return group && via && platform::parse_address(group, parsed) && platform::parse_address(via, on) &&
           is_multicast(parsed) && platform::join_group(fd, parsed, on);
}

int net_socket_bind(int fd, const char* address, unsigned port) noexcept {
    in_addr host = {};
    if (fd < 0 || !address || !platform::resolve(address, host)) return -1;
    const bool multicast = is_multicast(host);
    const sockaddr_in own = make_address(multicast ? any_address() : host, static_cast<unsigned short>(port));
    if (!socket_reuseAddress(fd)) return -1;
    if (!platform::bind_socket(fd, own)) {
        const int error = platform::system_error();
        const int told = platform::last_error();
        report("Unable to bind on address: %s:%u; Error was: %s (%d)", address, port,
               platform::system_error_text(error), error);
        platform::set_last_error(told);  // to look the text up may have set another
        return -1;
    }
    return multicast ? bind_multicast(fd, host) : 0;
}

int net_udp_listen(int fd, const char* address, unsigned short port) noexcept {
    return std::min(net_socket_bind(fd, address ? address : "0.0.0.0", port), 0);
}

int net_udp_connect(int fd, const char* host, unsigned short) noexcept {
    in_addr address = {};
    if (!host || !platform::resolve(host, address)) return -1;
    set_reach(fd, platform::option::ttl);
    if (!is_multicast(address)) return 0;
    set_reach(fd, platform::option::multicast_ttl);
    return platform::join_group(fd, address, any_address()) ? 0 : -1;
}

int net_tcp_connect(int fd, const char* host, unsigned short port) noexcept {
    sockaddr_in address = {};
    if (fd < 0 || net_addr_setup(address, host, port) < 0) return -2;
    if (platform::connect_socket(fd, address) || platform::last_error() == socket_error_would_block) return 0;
    report("Unable connect socket %d to: %s:%hu, e = %d", fd, host, port, platform::last_error());
    return -1;
}

int net_tcp_listen(int fd, const char* address, unsigned short port) noexcept {
    sockaddr_in own = {};
    if (net_addr_setup(own, address, port) < 0) return -2;
    platform::set_listener(fd);
    platform::bind_socket(fd, own);
    if (platform::listen_socket(fd, tcp_backlog)) return 0;
    report("Unable to put the socket in listening mode: %s:%hu", address, port);
    return -1;
}

int net_tcp_try_listen(const char* address, unsigned short port) noexcept {
    sockaddr_in own = {};
    if (net_addr_setup(own, address, port) < 0) return socket_error_address_not_available;
    const net::descriptor tried(platform::open_socket(net::family_ipv4, net::type_stream, net::protocol_tcp));
    const int fd = tried.get();
    const bool can = fd >= 0 && platform::set_listener(fd) && platform::bind_socket(fd, own);
    return can ? 0 : platform::last_error();
}
