#include "platform/socket_api.h"

#include "core/owned.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace net::platform {

bool parse_address(const char* text, in_addr& address) noexcept { return inet_pton(AF_INET, text, &address) == 1; }

void print_address(in_addr address, char (&text)[net_addr_size]) noexcept {
    if (!inet_ntop(AF_INET, &address, text, sizeof text)) text[0] = '\0';
}

bool resolve(const char* host, in_addr& address) noexcept {
    if (parse_address(host, address)) return true;
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &list) != 0) return false;
    const core::owned<addrinfo, freeaddrinfo> held(list);
    sockaddr_in first;
    std::memcpy(&first, list->ai_addr, sizeof first);
    address = first.sin_addr;
    return true;
}

void visit_interfaces(bool (*visit)(void* arg, const sockaddr_in& address, in_addr mask), void* arg) noexcept {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    const core::owned<ifaddrs, freeifaddrs> held(list);
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        const bool wanted = (entry->ifa_flags & IFF_UP) && !(entry->ifa_flags & IFF_LOOPBACK);
        if (!wanted || !entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in address;
        std::memcpy(&address, entry->ifa_addr, sizeof address);
        sockaddr_in mask{};
        if (entry->ifa_netmask) std::memcpy(&mask, entry->ifa_netmask, sizeof mask);
        if (!visit(arg, address, mask.sin_addr)) return;
    }
}

bool hardware_address(in_addr of, std::span<uint8_t, 6> out) noexcept {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    const core::owned<ifaddrs, freeifaddrs> held(list);
    const auto find = [&](sa_family_t family, auto is) {
        const ifaddrs* at = list;
        while (at && (!at->ifa_addr || at->ifa_addr->sa_family != family || !is(*at)))
            at = at->ifa_next;
        return at;
    };
    const ifaddrs* const known = find(AF_INET, [&](const ifaddrs& each) {
        sockaddr_in address;
        std::memcpy(&address, each.ifa_addr, sizeof address);
        return address.sin_addr.s_addr == of.s_addr;
    });
    // An address may have a label: "eth0:1" is one of "eth0".
    const size_t size = known ? std::strcspn(known->ifa_name, ":") : 0;
    const ifaddrs* const card = find(AF_PACKET, [&](const ifaddrs& each) {
        return known && std::strlen(each.ifa_name) == size && std::memcmp(each.ifa_name, known->ifa_name, size) == 0;
    });
    if (!card) return false;
    sockaddr_ll address;
    std::memcpy(&address, card->ifa_addr, sizeof address);
    if (address.sll_hatype != ARPHRD_ETHER || address.sll_halen != out.size()) return false;
    std::memcpy(out.data(), address.sll_addr, out.size());
    return true;
}

// A line of the table (arp(7), proc(5)) is "10.0.0.7 0x1 0x0 00:00:00:00:00:00 * eth0"; flags of 0 are those of an
// address that is not known.
size_t unanswering_hosts(std::span<in_addr> out) noexcept {
    const core::owned<FILE, std::fclose> table(std::fopen("/proc/net/arp", "re"));
    size_t count = 0;
    char line[256];
    while (table && count < out.size() && std::fgets(line, sizeof line, table.get())) {
        char host[32];
        unsigned flags = 1;
        if (std::sscanf(line, "%31s %*s %x", host, &flags) == 2 && flags == 0 && parse_address(host, out[count]))
            ++count;
    }
    return count;
}

// What is set is doubled by the system, for its own records.
void widen_send_room(int fd) noexcept {
    int size = 0;
    socklen_t length = sizeof size;
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

bool host_name(std::span<char> out) noexcept {
    if (gethostname(out.data(), out.size()) != 0) return false;
    out.back() = '\0';
    return true;
}

}  // namespace net::platform
