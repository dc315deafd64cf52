// Many datagrams, one call for each: Winsock has no call for more that every Windows 10 knows.
#include "platform/socket_api.h"

namespace net::platform {

int send_datagrams(int fd, std::span<const datagram_t> datagrams) noexcept {
    int sent = 0;
    for (const datagram_t& each : datagrams) {
        if (send_bytes(fd, {each.data, each.size}, each.to) < 0) return sent != 0 ? sent : -1;
        ++sent;
    }
    return sent;
}

letters::~letters() = default;
void letters::prepare(std::span<const datagram_t>) noexcept {}
uint32_t letters::send(int, const sockaddr_in&) noexcept { return 0; }

int receive_datagrams(int fd, std::span<received_t> datagrams) noexcept {
    int received = 0;
    for (received_t& each : datagrams) {
        const int count = receive_bytes(fd, {each.bytes.data, each.bytes.size}, &each.from);
        if (count < 0) return received != 0 ? received : -1;
        each.bytes.length = static_cast<uint32_t>(count);
        ++received;
    }
    return received;
}

}  // namespace net::platform
