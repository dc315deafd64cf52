// Datagrams as the discovery receiver reads them off a socket, and what an owner does with one: the Probe that is read is
// answered, and the answer names it.
#include "fuzz.h"
#include "net_wsdd/receiver.h"

#include "common/xml.h"
#include "inet/net_soap.h"
#include "inet/net_socket.h"

using message_t = test::held<soap::soap_t, soap_free>;

namespace {

const bool is_up = (socket_init(), true);

struct udp_socket {
    ~udp_socket() {
        if (fd >= 0) net_socket_close(fd);
    }
    const int fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
};

const char* text_of(const message_t& message, const char* name) {
    return roxml_get_content(roxml_get_chld(message->header, name, 0), nullptr, 0, nullptr);
}

void answer(const char* text) {
    const message_t probe(soap_parse(text));
    if (!probe || !probe->xml) return;
    const char* const id = text_of(probe, "MessageID");
    const core::owned_text types(net_soap_get_arg(probe.get(), "Types", CORE_HERE));
    const core::owned_text made(
        soap_ProbeMatch(nullptr, "urn:uuid:1", id, "uuid:2", types.get(), "http://h/", nullptr));
    const message_t match(soap_parse(made.get()));
    if (!match || !match->xml) return require(fuzz::starved);
    require(std::string(id ? id : "") == (text_of(match, "RelatesTo") ? text_of(match, "RelatesTo") : ""));
    require(std::strcmp(match->method, "ProbeMatches") == 0);
}

/// A datagram between two sockets of their own. @return false when there was none.
bool pass(net::wsdd_receiver& receiver, const char* from, std::span<const uint8_t> bytes) {
    const udp_socket here, there;
    sockaddr_in to{};
    if (net_socket_bind(here.fd, "127.0.0.1", 0) != 0 || net_socket_bind(there.fd, from, 0) != 0) return false;
    net_addr_setup(to, "127.0.0.1", net_socket_get_near_port(here.fd));
    buffer_t datagram{const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())};
    if (net_udp_send_buffer(there.fd, &datagram, &to) < 0) return false;
    sockaddr_in sender{};
    const char* const text = receiver.receive(here.fd, sender);
    const bool is_foreign = std::string_view(from) != "127.0.0.1";
    require((text != nullptr) == (is_foreign && !bytes.empty()));
    if (!text) return true;
    require(std::string_view(text) == fuzz::text_of(bytes).c_str());
    require(net_addr_port(sender) == net_socket_get_near_port(there.fd));
    answer(text);
    return true;
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    constexpr size_t longest = 65507;
    net::wsdd_receiver receiver;
    if (!receiver.open(CORE_HERE)) return require(fuzz::starved);
    const auto bytes = input.first(std::min(input.size(), longest));
    for (const char* from : {"127.0.0.2", "127.0.0.1"})
        require(pass(receiver, from, bytes) || fuzz::starved);
}
