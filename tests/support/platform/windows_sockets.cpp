#include "support/sockets.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace test {

namespace {

SOCKET handle_of(int fd) { return static_cast<SOCKET>(fd); }

}  // namespace

int value_of(int fd, option which) {
    // In the order of `option`.
    constexpr int places[][2] = {
        {SOL_SOCKET, SO_KEEPALIVE},     {IPPROTO_TCP, TCP_NODELAY},      {SOL_SOCKET, SO_REUSEADDR},
        {SOL_SOCKET, SO_RCVBUF},        {SOL_SOCKET, SO_SNDBUF},         {IPPROTO_IP, IP_TTL},
        {IPPROTO_IP, IP_MULTICAST_TTL}, {IPPROTO_IP, IP_MULTICAST_LOOP}, {IPPROTO_IP, IP_MULTICAST_IF},
    };
    const auto [level, name] = places[static_cast<size_t>(which)];
    int value = 0;
    int size = sizeof value;
    return getsockopt(handle_of(fd), level, name, reinterpret_cast<char*>(&value), &size) == 0 ? value : -1;
}

bool is_open(int fd) {
    int type = 0;
    int size = sizeof type;
    return getsockopt(handle_of(fd), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &size) == 0;
}

bool is_inherited(int fd) {
    DWORD flags = 0;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a socket is a handle
    return GetHandleInformation(reinterpret_cast<HANDLE>(handle_of(fd)), &flags) && (flags & HANDLE_FLAG_INHERIT);
}

// Handles count in steps of four and are given anew when closed.
size_t open_sockets() {
    size_t count = 0;
    for (int fd = 4; fd < 4096; fd += 4)
        count += is_open(fd);
    return count;
}

bool send_urgent(int fd) { return send(handle_of(fd), "!", 1, MSG_OOB) == 1; }

void close_with_reset(int fd) {
    const linger at_once = {.l_onoff = 1, .l_linger = 0};
    setsockopt(handle_of(fd), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once), sizeof at_once);
    net_socket_close(fd);
}

std::string host_name() {
    wchar_t wide[256];
    DWORD length = 256;
    if (!GetComputerNameExW(ComputerNameDnsHostname, wide, &length)) return "";
    char name[1024];
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), name, sizeof name, nullptr, nullptr);
    return {name, static_cast<size_t>(size)};
}

double processor_time() {
    FILETIME created, ended, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user);
    const auto ticks = [](const FILETIME& time) {
        return static_cast<double>(time.dwLowDateTime) + static_cast<double>(time.dwHighDateTime) * 4294967296.0;
    };
    return (ticks(kernel) + ticks(user)) * 1e-7;
}

}  // namespace test
