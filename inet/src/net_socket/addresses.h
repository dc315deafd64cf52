// Addresses as the system keeps them.
#pragma once

#include "platform/socket_api.h"

#include <cstdint>

namespace net {

inline in_addr make_host(uint32_t number) noexcept {
    in_addr host = {};
    host.s_addr = htonl(number);
    return host;
}

inline sockaddr_in make_address(in_addr host, unsigned short port) noexcept {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = host;
    return address;
}

inline in_addr any_address() noexcept { return make_host(INADDR_ANY); }

inline bool is_multicast(in_addr address) noexcept {
    const uint32_t host = ntohl(address.s_addr);
    return host >= 0xe0000001u && host <= 0xeffffffeu;
}

}  // namespace net
