// Datagrams as the discovery receiver reads them off a socket: another host's as texts, the host's own not at all. What
// stands in them is for soap_fuzz.cpp.
#include "fuzz.h"
#include "net_wsdd/receiver.h"
#include "platform/socket_api.h"

#include "inet/net_socket.h"

namespace {

const bool is_up = (socket_init(), true);

struct udp_socket {
    /// On a port that is its own.
    explicit udp_socket(const char* at) {
        sockaddr_in address{};
        net_addr_setup(address, at, 0);
        is_bound = net::platform::set_exclusive(fd) && net::platform::bind_socket(fd, address);
    }
    ~udp_socket() {
        if (fd >= 0) net_socket_close(fd);
    }
    const int fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
    bool is_bound;
};

/// A datagram from an address of this machine.
void receive(net::wsdd_receiver& receiver, const char* from, std::span<const uint8_t> bytes) {
    const udp_socket here("127.0.0.1"), there(from);
    if (!here.is_bound || !there.is_bound) return require(fuzz::starved);
    sockaddr_in to{}, sender{};
    net_addr_setup(to, "127.0.0.1", net_socket_get_near_port(here.fd));
    buffer_t datagram{const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())};
    require(net_udp_send_buffer(there.fd, &datagram, &to) >= 0);
    const char* const text = receiver.receive(here.fd, sender);
    // Under Wine all come from 127.0.0.1.
    unsigned port = 0;
    const bool is_own = std::string_view(net_socket_straddr(&sender, port)) == "127.0.0.1";
    require((text != nullptr) == (!is_own && !bytes.empty()));
    require(!text || std::string_view(text) == fuzz::text_of(bytes).c_str());
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    net::wsdd_receiver receiver;
    if (!receiver.open(CORE_HERE)) return require(fuzz::starved);
    for (const char* from : {"127.0.0.2", "127.0.0.1"})
        receive(receiver, from, input.first(std::min<size_t>(input.size(), 65507)));
}
