#include "net_socket/addresses.h"

#include "core/array.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <bit>
#include <cstdio>

using net::make_address;
namespace platform = net::platform;

namespace {

constexpr uint32_t max_interfaces = 10;

void free_items(void** items) noexcept {
    for (void** item = items; item && *item; ++item)
        core_mfree(*item);
    core_array_free(items);
}

/// Gathers one block for each interface in a null-terminated array.
struct interface_list {
    void* (*make)(const sockaddr_in& address, const char* file, int line);
    const char* file;
    int line;
    void** items = nullptr;
    uint32_t count = 0;
    bool failed = false;

    bool add(const sockaddr_in& address) noexcept {
        void* item = make(address, file, line);
        items = core_array_add(items, item, file, line);
        failed = core_array_length(items) != count + 1;
        if (failed) core_mfree(item);
        return !failed && ++count < max_interfaces;
    }
};

void** list_interfaces(void* (*make)(const sockaddr_in&, const char*, int), const char* file, int line) noexcept {
    interface_list list = {.make = make, .file = file, .line = line};
    platform::visit_interfaces(
        [](void* arg, const sockaddr_in& address, in_addr) { return static_cast<interface_list*>(arg)->add(address); },
        &list);
    if (!list.failed) return list.items;
    free_items(list.items);
    return nullptr;
}

void* make_address_text(const sockaddr_in& address, const char* file, int line) {
    return socket_get_ip(address.sin_addr, file, line);
}

void* make_address_copy(const sockaddr_in& address, const char* file, int line) {
    return core::create<sockaddr_in>(file, line, address);
}

}  // namespace

int net_addr_setup(sockaddr_in& addr, const char* host, unsigned short port) noexcept {
    in_addr found = {};
    if (!host || !platform::resolve(host, found)) return -1;
    addr = make_address(found, port);
    return 0;
}

void net_addr_ip(const sockaddr_in& addr, char* out, size_t n) noexcept {
    if (!out || n == 0) return;
    char text[net_addr_size];
    platform::print_address(addr.sin_addr, text);
    std::snprintf(out, n, "%s", text);
}

unsigned short net_addr_port(const sockaddr_in& addr) noexcept { return ntohs(addr.sin_port); }

void net_addr_str(sockaddr_in addr, char* out, size_t n, unsigned& port) noexcept {
    net_addr_ip(addr, out, n);
    port = net_addr_port(addr);
}

const char* net_socket_straddr(const sockaddr_in* addr, unsigned& port) noexcept {
    thread_local char text[net_addr_size];
    port = 0;
    if (!addr) return nullptr;
    net_addr_str(*addr, text, sizeof text, port);
    return text;
}

char* socket_get_ip(in_addr addr, const char* file, int line) noexcept {
    char text[net_addr_size];
    platform::print_address(addr, text);
    return core_strdup(text, file, line);
}

sockaddr_in net_socket_near(int fd) noexcept {
    sockaddr_in address = {};
    platform::near_address(fd, address);
    return address;
}

sockaddr_in net_socket_peer(int fd) noexcept {
    sockaddr_in address = {};
    platform::peer_address(fd, address);
    return address;
}

unsigned short net_socket_get_near_port(int fd) noexcept { return net_addr_port(net_socket_near(fd)); }

char** net_socket_get_if(const char* file, int line) noexcept {
    return reinterpret_cast<char**>(list_interfaces(make_address_text, file, line));
}

sockaddr_in** net_socket_get_if_addr(const char* file, int line) noexcept {
    return reinterpret_cast<sockaddr_in**>(list_interfaces(make_address_copy, file, line));
}

uint32_t net_socket_get_links(net_link_t* out, uint32_t most) noexcept {
    struct room_t {
        net_link_t* out;
        uint32_t most;
        uint32_t count = 0;
    } room{out, out ? std::min(most, max_interfaces) : 0};
    const auto add = [](void* arg, const sockaddr_in& address, in_addr mask) {
        auto& [links, size, count] = *static_cast<room_t*>(arg);
        if (count < size)
            links[count++] = {address.sin_addr, static_cast<uint32_t>(std::countl_one(ntohl(mask.s_addr)))};
        return count < size;
    };
    platform::visit_interfaces(add, &room);
    return room.count;
}

bool net_socket_get_hardware(in_addr address, uint8_t out[6]) noexcept {
    return out && platform::hardware_address(address, std::span<uint8_t, 6>(out, 6));
}

char* net_hostip(const char* file, int line) noexcept {
    void** texts = list_interfaces(make_address_text, file, line);
    if (!texts) return nullptr;
    void* first = texts[0];
    texts = core_array_rem(texts, first, file, line);
    free_items(texts);
    return static_cast<char*>(first);
}

char* net_hostname(const char* file, int line) noexcept {
    char name[256];
    return platform::host_name(name) ? core_strdup(name, file, line) : nullptr;
}

unsigned net_hostid(const char* ip, unsigned base) noexcept {
    in_addr address = {};
    if (!ip || !platform::parse_address(ip, address)) return 0;
    return (ntohl(address.s_addr) & 0xffu) * 100 + base;
}
