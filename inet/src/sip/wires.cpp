// The wires of accounts: a UDP socket, or a TCP connection.
#include "sip/agent.h"
#include "sip/framing.h"

#include "inet/net_socket.h"
#include "inet/net_tcp.h"

#include <utility>

namespace sip {

namespace {

constexpr int most_at_once = 16;  // datagrams before others get their turn
constexpr uint32_t largest_datagram = 65535;

class udp_wire final : public wire {
public:
    udp_wire(Sip& agent, sip_account& account) noexcept : agent_(agent), account_(account) {}
    ~udp_wire() override { stop(); }

    bool open() noexcept {
        if (net_addr_setup(server_, account_.server.c_str(), static_cast<uint16_t>(account_.port)) != 0) return false;
        fd_ = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, agent_.file, agent_.line);
        if (fd_ < 0 || net_udp_listen(fd_, "0.0.0.0", 0) != 0) return false;
        net::net_nt_socket_add(agent_.info.nt, socket_, fd_, net::nt_flag_read, this, on_readable);
        return socket_ != nullptr;
    }
    void send(std::string_view bytes, const sockaddr_in* to) noexcept override {
        sockaddr_in address = to ? *to : server_;
        buffer_t buffer{reinterpret_cast<uint8_t*>(const_cast<char*>(bytes.data())),
                        static_cast<uint32_t>(bytes.size())};
        if (fd_ >= 0) net_udp_send_buffer(fd_, &buffer, &address);
    }
    uint32_t local_port() const noexcept override { return fd_ < 0 ? 0 : net_socket_get_near_port(fd_); }
    // The socket is bound to none.
    in_addr local_address() const noexcept override { return near_to(server_.sin_addr); }
    bool is_server(const sockaddr_in& from) const noexcept override {
        return from.sin_addr.s_addr == server_.sin_addr.s_addr;
    }
    bool is_up() const noexcept override { return true; }
    void stop() noexcept override {
        net::net_nt_socket_rem(agent_.info.nt, socket_);
        if (fd_ >= 0) net_socket_close(std::exchange(fd_, -1));
    }
    void seek() noexcept override {
        sockaddr_in found = {};
        if (net_addr_setup(found, account_.server.c_str(), static_cast<uint16_t>(account_.port)) == 0) server_ = found;
    }

private:
    static void on_readable(void* arg, uint32_t events) noexcept {
        if (events & net::nt_event_read) static_cast<udp_wire*>(arg)->receive();
    }

    // A host that is unreachable shows as an error of a later call: it says nothing about the socket.
    void receive() noexcept {
        const Sip::work running(agent_);
        for (int i = 0; i < most_at_once && fd_ >= 0; ++i) {
            sockaddr_in from{};
            buf_t room{reinterpret_cast<uint8_t*>(agent_.scratch.data()), largest_datagram, 0};
            const int result = net_udp_recv(fd_, room, &from);
            const int error = result < 0 ? socket_get_error_code() : 0;
            if (error == socket_error_refused || error == socket_error_connection_reset) continue;
            if (result < 0) return;
            agent_.take_datagram(account_, {agent_.scratch.data(), room.length}, from);
        }
    }

    Sip& agent_;
    sip_account& account_;
    sockaddr_in server_ = {};
    int fd_ = -1;
    net::socket_ctx* socket_ = nullptr;
};

class tcp_wire final : public wire, public net::ITcp {
public:
    tcp_wire(Sip& agent, sip_account& account) noexcept : agent_(agent), account_(account) {}
    ~tcp_wire() override { stop(); }

    bool open() noexcept {
        tcp_ = net::Tcp::create(agent_.file, agent_.line);
        if (!tcp_) return false;
        tcp_->set_handler(this);
        tcp_->set_room(max_header + max_body);
        return tcp_->connect(agent_.info.nt, account_.server.c_str(), static_cast<uint16_t>(account_.port)) == 0;
    }
    void send(std::string_view bytes, const sockaddr_in*) noexcept override {
        const buffer_t buffer{reinterpret_cast<uint8_t*>(const_cast<char*>(bytes.data())),
                              static_cast<uint32_t>(bytes.size())};
        if (!tcp_ || tcp_->send(buffer) == 1 || !tcp_->is_connected()) return;
        lost_ = true;
        tcp_->signal();  // who sends is at work on the account
    }
    uint32_t local_port() const noexcept override { return tcp_ ? net_addr_port(tcp_->local()) : 0; }
    in_addr local_address() const noexcept override { return tcp_ ? tcp_->local().sin_addr : in_addr{}; }
    bool is_server(const sockaddr_in&) const noexcept override { return true; }
    bool is_up() const noexcept override { return tcp_ && tcp_->is_connected(); }
    void stop() noexcept override { net::Tcp::destroy(std::exchange(tcp_, nullptr)); }

private:
    void on_tcp_connected(net::Tcp*) noexcept override {
        agent_.guarded([&] { agent_.connected(account_); });
    }
    void on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept override {
        const Sip::work running(agent_);
        const sockaddr_in from = tcp->peer();
        while (tcp_ && received->length > 0) {
            const std::string_view bytes(reinterpret_cast<const char*>(received->data), received->length);
            const uint32_t used = agent_.take_stream(account_, bytes, from);
            if (used == 0 || !tcp_) return;
            core_buf_ignore(received, used);
        }
    }
    void on_tcp_signalled(net::Tcp*) noexcept override {
        if (lost_) on_tcp_closed(nullptr, 0);
    }
    void on_tcp_closed(net::Tcp*, int) noexcept override {
        agent_.guarded([&] { agent_.close_transport(account_, true); });
    }

    Sip& agent_;
    sip_account& account_;
    net::Tcp* tcp_ = nullptr;
    bool lost_ = false;  ///< the peer does not read
};

template <class Wire>
core::owned_object<wire> open_as(Sip& agent, sip_account& account) {
    core::owned_object<Wire> made = make<Wire>(agent, agent, account);
    if (!made->open()) return nullptr;
    return core::owned_object<wire>(made.release());
}

}  // namespace

in_addr near_to(in_addr other) noexcept {
    constexpr uint16_t any_port = 9;  // nothing is sent
    sockaddr_in there = {};
    there.sin_addr = other;
    char host[net_addr_size];
    net_addr_ip(there, host, sizeof host);
    const int probe = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, CORE_HERE);
    if (probe < 0) return {};
    const bool known = net_tcp_connect(probe, host, any_port) == 0;
    const in_addr near = known ? net_socket_near(probe).sin_addr : in_addr{};
    net_socket_close(probe);
    return near;
}

core::owned_object<wire> open_wire(Sip& agent, sip_account& account) {
    return account.transport == net::sip_tcp ? open_as<tcp_wire>(agent, account) : open_as<udp_wire>(agent, account);
}

}  // namespace sip
