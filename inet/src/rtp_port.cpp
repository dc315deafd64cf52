#include "inet/rtp_port.h"

#include "core/owned.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "inet/rtp_reorder.h"

#include <algorithm>
#include <array>

namespace rtp {

namespace {

constexpr int system_buffer = 1 << 20;
constexpr int most_at_once = 16;  ///< batches before others get their turn
constexpr uint32_t batch = 16;
constexpr uint32_t largest_datagram = 64 * 1024;

}  // namespace

struct Port::inside {
    inside(net::nt_ctx* on, IPort* to, const char* caller_file, int caller_line) noexcept
        : nt(on), handler(to), file(caller_file), line(caller_line) {}
    ~inside();
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    static void on_rtp(void* arg, uint32_t events) noexcept;
    static void on_rtcp(void* arg, uint32_t events) noexcept;
    static void on_ordered(void* arg, buffer_t packet) noexcept;
    bool listen() noexcept;
    template <class Take>
    void receive(net::socket_ctx* const& on, Take take) noexcept;
    bool is_source(const sockaddr_in& from) const noexcept;

    Port* face = nullptr;
    net::nt_ctx* nt;
    IPort* handler;
    const char* file;
    int line;
    std::array<in_addr, 2> sources{};
    uint32_t source_count = 0;
    int rtp_fd = -1;
    int rtcp_fd = -1;
    net::socket_ctx* rtp_socket = nullptr;
    net::socket_ctx* rtcp_socket = nullptr;
    Reorder* reorder = nullptr;
    uint32_t restarts = 0;
    buf_t room;
    std::array<received_t, batch> datagrams{};
};

Port::inside::~inside() {
    net::net_nt_socket_rem(nt, rtp_socket);
    net::net_nt_socket_rem(nt, rtcp_socket);
    for (const int fd : {rtp_fd, rtcp_fd}) {
        if (fd >= 0) net_socket_close(fd);
    }
    Reorder::destroy(reorder);
    core_buf_free(&room);
}

Port* Port::create(net::nt_ctx* nt, IPort* handler, const char* file, int line) noexcept {
    core::owned_object<inside> made(core::create<inside>(file, line, nt, handler, file, line));
    void* block = made ? core_malloc(sizeof(Port), file, line) : nullptr;
    if (!block) return nullptr;
    made->face = ::new (block) Port(made.get());
    return made.release()->face;
}

void Port::destroy(Port* port) noexcept {
    if (!port) return;
    core::destroy(port->inside_);
    core_mfree(port);
}

void Port::add_source(in_addr address) noexcept {
    inside& in = *inside_;
    if (in.source_count < in.sources.size()) in.sources[in.source_count++] = address;
}

void Port::forget_sources() noexcept { inside_->source_count = 0; }

int Port::open() noexcept {
    if (inside_->rtp_fd >= 0) return 0;
    return socket_rtp_pair(&inside_->rtp_fd, &inside_->rtcp_fd) == 1 && inside_->listen() ? 1 : 0;
}

int Port::join(const char* group, uint16_t port, const char* via) noexcept {
    if (port == 0 || port == 65535 || inside_->rtp_fd >= 0) return 0;
    for (int* fd : {&inside_->rtp_fd, &inside_->rtcp_fd}) {
        *fd = net_socket_create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, inside_->file, inside_->line);
        if (*fd < 0 || net_udp_listen(*fd, nullptr, port++) != 0 || !socket_joinGroup(*fd, group, via)) return 0;
    }
    return inside_->listen() ? 1 : 0;
}

bool Port::inside::listen() noexcept {
    reorder = Reorder::create({}, on_ordered, this, file, line);
    if (!reorder || !core_buf_resize(&room, batch * largest_datagram, file, line)) return false;
    for (uint32_t i = 0; i < batch; ++i)
        datagrams[i].bytes = {room.data + size_t{i} * largest_datagram, largest_datagram, 0};
    net_socket_set_size(rtp_fd, system_buffer, 0);
    net::net_nt_socket_add(nt, rtp_socket, rtp_fd, net::nt_flag_read, this, on_rtp);
    net::net_nt_socket_add(nt, rtcp_socket, rtcp_fd, net::nt_flag_read, this, on_rtcp);
    return rtp_socket && rtcp_socket;
}

uint16_t Port::port() const noexcept { return inside_->rtp_fd < 0 ? 0 : net_socket_get_near_port(inside_->rtp_fd); }

void Port::stop() noexcept {
    net::net_nt_socket_rem(inside_->nt, inside_->rtp_socket);
    net::net_nt_socket_rem(inside_->nt, inside_->rtcp_socket);
}

void Port::expire(uint64_t now) noexcept {
    if (inside_->rtp_socket) inside_->reorder->expire(now);
}

/// Takes the datagrams of the sources, until there is none or stop() was called.
template <class Take>
void Port::inside::receive(net::socket_ctx* const& on, Take take) noexcept {
    for (int round = 0; on && round < most_at_once; ++round) {
        const int count = net_udp_recv_batch(on->fd, datagrams.data(), batch);
        for (int i = 0; on && i < count; ++i) {
            const received_t& each = datagrams[static_cast<size_t>(i)];
            if (is_source(each.from)) take(buffer_t{each.bytes.data, each.bytes.length});
        }
        if (count < static_cast<int>(batch)) return;
    }
}

bool Port::inside::is_source(const sockaddr_in& from) const noexcept {
    return std::any_of(sources.begin(), sources.begin() + source_count,
                       [&](const in_addr& each) { return each.s_addr == from.sin_addr.s_addr; });
}

void Port::inside::on_rtp(void* arg, uint32_t) noexcept {
    auto* self = static_cast<inside*>(arg);
    const uint64_t now = core_timer();
    self->receive(self->rtp_socket, [&](buffer_t packet) { self->reorder->push(packet, now); });
}

void Port::inside::on_rtcp(void* arg, uint32_t) noexcept {
    auto* self = static_cast<inside*>(arg);
    self->receive(self->rtcp_socket, [&](buffer_t report) { self->handler->on_rtcp_packet(self->face, report); });
}

void Port::inside::on_ordered(void* arg, buffer_t packet) noexcept {
    auto* self = static_cast<inside*>(arg);
    if (!self->rtp_socket) return;
    const uint32_t restarts = self->reorder->counts().restarts;
    const bool restarted = restarts != self->restarts;
    self->restarts = restarts;
    self->handler->on_rtp_packet(self->face, packet, restarted);
}

// One that is refused, for example because the host has vanished, does not keep the others back.
void Port::send(const datagram_t* packets, uint32_t count) noexcept {
    while (count > 0 && inside_->rtp_fd >= 0) {
        const int result = net_udp_send_batch(inside_->rtp_fd, packets, count);
        const uint32_t went = std::min(count, result < 0 ? 1 : static_cast<uint32_t>(result) + 1);
        if (result < 0 && socket_get_error_code() == socket_error_would_block) return;
        packets += went;
        count -= went;
    }
}

void Port::send_rtcp(buffer_t packet, const sockaddr_in& to) noexcept {
    sockaddr_in address = to;
    net_udp_send_buffer(inside_->rtcp_fd, &packet, &address);
}

}  // namespace rtp
