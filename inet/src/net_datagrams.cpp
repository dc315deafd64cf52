#include "inet/net_datagrams.h"

#include "platform/socket_api.h"

#include "core/owned.h"

#include <algorithm>
#include <array>
#include <utility>

namespace net {

struct Datagrams::inside {
    static void on_writable(void* arg, uint32_t events) noexcept;
    void keep(const datagram_t& datagram) noexcept;

    nt_ctx* nt;
    int fd;
    socket_ctx* socket;
    platform::letters letters;
    uint32_t sent;     ///< of those that wait
    uint32_t waiting;  ///< with those that are sent
    std::array<datagram_t, most_waiting_datagrams> datagrams;
    std::array<sockaddr_in, most_waiting_datagrams> addresses;
    std::array<std::array<uint8_t, longest_waiting_datagram>, most_waiting_datagrams> rooms;
};

namespace {

/// Sends them in their order, up to the first that the system does not take yet. @return how many are done
uint32_t send_up_to_full(int fd, const datagram_t* datagrams, uint32_t count) noexcept {
    uint32_t done = 0;
    while (done < count) {
        const int went = net_udp_send_batch(fd, datagrams + done, count - done);
        if (went < 0 && socket_get_error_code() == socket_error_would_block) break;
        done += went > 0 ? static_cast<uint32_t>(went) : 1;
    }
    return done;
}

}  // namespace

int Datagrams::open(nt_ctx* nt, int fd) noexcept {
    close();
    // Not zeroed: only the rooms that are used are touched.
    void* const block = core_malloc(sizeof(inside), CORE_HERE);
    if (!block) return 0;
    auto* const made = ::new (block) inside;
    made->nt = nt;
    made->fd = fd;
    made->sent = made->waiting = 0;
    net_nt_socket_add(nt, made->socket, fd, 0, made, &inside::on_writable);
    if (made->socket) {
        inside_ = made;
        return 1;
    }
    core::destroy(made);
    return 0;
}

void Datagrams::close() noexcept {
    if (!inside_) return;
    net_nt_socket_rem(inside_->nt, inside_->socket);
    core::destroy(std::exchange(inside_, nullptr));
}

bool Datagrams::has_room(uint32_t datagrams) const noexcept {
    return inside_ && inside_->waiting + datagrams <= most_waiting_datagrams;
}

void Datagrams::send(const datagram_t* datagrams, uint32_t count) noexcept {
    if (!inside_) return;
    uint32_t done = inside_->waiting == 0 ? send_up_to_full(inside_->fd, datagrams, count) : 0;
    for (; done < count; ++done)
        inside_->keep(datagrams[done]);
}

void Datagrams::prepare(const datagram_t* datagrams, uint32_t count) noexcept {
    if (inside_) inside_->letters.prepare({datagrams, count});
}

uint32_t Datagrams::send_prepared(const sockaddr_in& to) noexcept {
    return inside_ && inside_->waiting == 0 ? inside_->letters.send(inside_->fd, to) : 0;
}

void Datagrams::inside::keep(const datagram_t& datagram) noexcept {
    if (waiting == most_waiting_datagrams || datagram.size > longest_waiting_datagram) return;
    std::copy_n(datagram.data, datagram.size, rooms[waiting].data());
    addresses[waiting] = *datagram.to;
    datagrams[waiting] = {rooms[waiting].data(), datagram.size, &addresses[waiting]};
    if (waiting++ == 0) net_nt_socket_set(nt, socket, 0, 1);
}

void Datagrams::inside::on_writable(void* arg, uint32_t) noexcept {
    auto* self = static_cast<inside*>(arg);
    self->sent += send_up_to_full(self->fd, &self->datagrams[self->sent], self->waiting - self->sent);
    if (self->sent != self->waiting) return;
    self->sent = self->waiting = 0;
    net_nt_socket_set(self->nt, self->socket, 0, 0);
}

}  // namespace net
