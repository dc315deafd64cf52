#include "inet/net_wsdd.h"

#include "net_wsdd/receiver.h"

#include "core/owned.h"
#include "inet/net_socket.h"

#include <array>
#include <cstdint>
#include <utility>

namespace net {

namespace {

constexpr char discovery_group[] = "239.255.255.250";
constexpr unsigned short discovery_port = 3702;
constexpr uint32_t most_links = 10;

struct dotted {
    explicit dotted(const net_link_t& link) noexcept {
        sockaddr_in address{};
        address.sin_addr = link.address;
        net_addr_ip(address, text, sizeof text);
    }
    char text[net_addr_size];
};

}  // namespace

struct wsdd_ctx {
    wsdd_ctx(wsdd_t* of, nt_ctx* on) noexcept : owner(of), nt(on) {}
    ~wsdd_ctx();
    wsdd_ctx(const wsdd_ctx&) = delete;
    wsdd_ctx& operator=(const wsdd_ctx&) = delete;

    bool open(const char* group, unsigned short port, const char* file, int line) noexcept;
    void join(const char* group) noexcept;
    bool start() noexcept;
    void stop() noexcept;

    static void on_event(void* arg, uint32_t events) noexcept;
    void take(int fd) noexcept;

    wsdd_t* owner;
    nt_ctx* nt;
    int listen_fd = -1;
    int send_fd = -1;
    socket_ctx* listen_socket = nullptr;
    socket_ctx* send_socket = nullptr;
    std::array<net_link_t, most_links> links{};
    uint32_t link_count = 0;
    wsdd_receiver receiver;
    bool* is_gone = nullptr;  ///< of the event that is being handled
};

wsdd_ctx::~wsdd_ctx() {
    stop();
    for (const int fd : {listen_fd, send_fd})
        if (fd >= 0) net_socket_close(fd);
    if (is_gone) *is_gone = true;  // on_message has closed the handle
}

bool wsdd_ctx::open(const char* group, unsigned short port, const char* file, int line) noexcept {
    if (!receiver.open(file, line)) return false;
    listen_fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, file, line);
    send_fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, file, line);
    net_socket_bind(listen_fd, group, port);
    net_udp_connect(send_fd, group, port);
    join(group);
    return true;
}

/// Of the default interface the socket is a member already, where there is one.
void wsdd_ctx::join(const char* group) noexcept {
    link_count = net_socket_get_links(links.data(), most_links);
    for (uint32_t i = 0; i < link_count; ++i)
        socket_joinGroup(listen_fd, group, dotted(links[i]).text);
}

bool wsdd_ctx::start() noexcept {
    net_nt_socket_add(nt, listen_socket, listen_fd, nt_flag_read, this, on_event);
    net_nt_socket_add(nt, send_socket, send_fd, nt_flag_read, this, on_event);
    return (listen_socket || listen_fd < 0) && (send_socket || send_fd < 0);
}

void wsdd_ctx::stop() noexcept {
    net_nt_socket_rem(nt, listen_socket);
    net_nt_socket_rem(nt, send_socket);
}

/// A datagram of each socket, whichever the event is for.
void wsdd_ctx::on_event(void* arg, uint32_t events) noexcept {
    auto* const self = static_cast<wsdd_ctx*>(arg);
    if ((events & nt_event_read) == 0) return;
    bool is_gone = false;
    self->is_gone = &is_gone;
    self->take(self->listen_fd);
    if (!is_gone) self->take(self->send_fd);
    if (!is_gone) self->is_gone = nullptr;
}

void wsdd_ctx::take(int fd) noexcept {
    sockaddr_in from{};
    const char* const text = receiver.receive(fd, from);
    if (text) owner->on_message(owner, text, from);
}

int net_wsdd_open(wsdd_t& d, nt_ctx* nt, const char* group, unsigned port, const char* file, int line) noexcept {
    if (!nt || !d.on_message) return -2;
    if (d.priv) return -5;
    core::owned_object<wsdd_ctx> made(core::create<wsdd_ctx>(file, line, &d, nt));
    const auto wanted = static_cast<unsigned short>(port);
    if (!made || !made->open(group ? group : discovery_group, wanted ? wanted : discovery_port, file, line)) return -1;
    d.priv = made.release();  // before a message can come, which the owner may answer
    if (d.priv->start()) return 0;
    net_wsdd_close(d);
    return -1;
}

void net_wsdd_close(wsdd_t& d) noexcept {
    if (!d.priv) return;
    d.priv->stop();  // until then on_message may read the handle
    core::destroy(std::exchange(d.priv, nullptr));
}

void net_wsdd_send(wsdd_t& d, const char* text, sockaddr_in to) noexcept {
    if (d.priv) net_udp_send_msg(d.priv->listen_fd, text, &to);
}

void net_wsdd_request(wsdd_t& d, const char* text) noexcept {
    sockaddr_in to{};
    if (d.priv && net_addr_setup(to, discovery_group, discovery_port) == 0)
        net_udp_send_msg(d.priv->send_fd, text, &to);
}

void net_wsdd_announce(wsdd_t& d, const char* text) noexcept {
    bool is_sent = false;
    for (uint32_t i = 0; d.priv && i < d.priv->link_count; ++i) {
        if (!socket_multicastInterface(d.priv->send_fd, dotted(d.priv->links[i]).text)) continue;
        net_wsdd_request(d, text);
        is_sent = true;
    }
    if (d.priv) socket_multicastInterface(d.priv->send_fd, "0.0.0.0");
    if (!is_sent) net_wsdd_request(d, text);
}

}  // namespace net
