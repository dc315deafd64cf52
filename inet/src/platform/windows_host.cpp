#include "platform/socket_api.h"
#include "platform/windows_socket.h"

#include "core/owned.h"

#include <iphlpapi.h>
#include <ws2tcpip.h>

namespace net::platform {

// What the system has read of a text that it then refuses would stay in the record.
bool parse_address(const char* text, in_addr& address) noexcept {
    in_addr parsed = {};
    if (inet_pton(AF_INET, text, &parsed) != 1) return false;
    address = parsed;
    return true;
}

void print_address(in_addr address, char (&text)[net_addr_size]) noexcept {
    if (!inet_ntop(AF_INET, &address, text, sizeof text)) text[0] = '\0';
}

bool resolve(const char* host, in_addr& address) noexcept {
    if (parse_address(host, address)) return true;
    if (!*host) return false;  // for the system it is this host
    wchar_t name[NI_MAXHOST];
    if (!MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, host, -1, name, NI_MAXHOST)) return false;
    ADDRINFOW hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    ADDRINFOW* list = nullptr;
    if (GetAddrInfoW(name, nullptr, &hints, &list) != 0) return false;
    const core::owned<ADDRINFOW, FreeAddrInfoW> held(list);
    address = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr;
    return true;
}

void visit_interfaces(bool (*visit)(void* arg, const sockaddr_in& address, in_addr mask), void* arg) noexcept {
    constexpr size_t room = 64;  // with less than there are nothing is told at all
    const int fd = open_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return;
    INTERFACE_INFO list[room];
    DWORD bytes = 0;
    const int result =
        WSAIoctl(handle_of(fd), SIO_GET_INTERFACE_LIST, nullptr, 0, list, sizeof list, &bytes, nullptr, nullptr);
    close_socket(fd);
    if (result != 0) return;
    for (const INTERFACE_INFO& entry : std::span(list).first(bytes / sizeof list[0])) {
        const bool wanted = (entry.iiFlags & IFF_UP) && !(entry.iiFlags & IFF_LOOPBACK);
        const sockaddr_in& address = entry.iiAddress.AddressIn;
        const in_addr mask = entry.iiNetmask.AddressIn.sin_addr;
        if (wanted && address.sin_family == AF_INET && !visit(arg, address, mask)) return;
    }
}

// The system tells its own address, too.
bool hardware_address(in_addr of, std::span<uint8_t, 6> out) noexcept {
    ULONG size = out.size();
    return SendARP(of.s_addr, 0, out.data(), &size) == NO_ERROR && size == out.size();
}

// Here the system keeps one datagram for a host that does not answer, in no room of the socket's.
size_t unanswering_hosts(std::span<in_addr>) noexcept { return 0; }

void widen_send_room(int) noexcept {}

// The system tells the name in its code page.
bool host_name(std::span<char> out) noexcept {
    char name[256];
    wchar_t wide[256];
    const int size = static_cast<int>(out.size());
    return gethostname(name, sizeof name) == 0 && MultiByteToWideChar(CP_ACP, 0, name, -1, wide, 256) != 0 &&
           WideCharToMultiByte(CP_UTF8, 0, wide, -1, out.data(), size, nullptr, nullptr) != 0;
}

}  // namespace net::platform
