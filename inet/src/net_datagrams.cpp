#include "inet/net_datagrams.h"

#include "datagrams/absent.h"
#include "platform/socket_api.h"

#include "core/owned.h"

#include <algorithm>
#include <array>
#include <utility>

namespace net {

struct Datagrams::inside {
    static void on_writable(void* arg, uint32_t events) noexcept;
    uint32_t push(const datagram_t* datagrams, uint32_t count) noexcept;
    void push_waiting() noexcept;
    void keep(const datagram_t& datagram) noexcept;

    nt_ctx* nt;
    int fd;
    socket_ctx* socket;
    absent_hosts absent;
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

/// Datagrams at the front that go to one host.
uint32_t run_of_host(const datagram_t* datagrams, uint32_t count) noexcept {
    const auto to_another = [&](const datagram_t& each) {
        return each.to->sin_addr.s_addr != datagrams->to->sin_addr.s_addr;
    };
    return static_cast<uint32_t>(std::find_if(datagrams, datagrams + count, to_another) - datagrams);
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
    made->socket = nullptr;
    made->sent = made->waiting = 0;
    made->absent = {};
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
    if (inside_->waiting != 0 && inside_->absent.look(inside_->fd)) inside_->push_waiting();
    uint32_t done = inside_->waiting == 0 ? inside_->push(datagrams, count) : 0;
    for (; done < count; ++done)
        inside_->keep(datagrams[done]);
}

/// Sends them in their order, without those to absent hosts, up to the first that the system does not take yet.
/// @return how many are done
uint32_t Datagrams::inside::push(const datagram_t* from, uint32_t count) noexcept {
    uint32_t done = 0;
    while (done < count) {
        const bool all = !absent.any();
        const uint32_t run = all ? count - done : run_of_host(from + done, count - done);
        const uint32_t wanted = all ? run : absent.may_send(fd, from[done].to->sin_addr, run);
        const uint32_t went = send_up_to_full(fd, from + done, wanted);
        done += went == wanted ? run : went;
        if (went < wanted && !absent.look(fd)) break;
    }
    return done;
}

void Datagrams::prepare(const datagram_t* datagrams, uint32_t count) noexcept {
    if (inside_) inside_->letters.prepare({datagrams, count});
}

uint32_t Datagrams::send_prepared(const sockaddr_in& to) noexcept {
    const bool free = inside_ && inside_->waiting == 0 && !inside_->absent.any();
    return free ? inside_->letters.send(inside_->fd, to) : 0;
}

void Datagrams::inside::keep(const datagram_t& datagram) noexcept {
    if (waiting == most_waiting_datagrams || datagram.size > longest_waiting_datagram) return;
    if (absent.has(datagram.to->sin_addr)) return;
    std::copy_n(datagram.data, datagram.size, rooms[waiting].data());
    addresses[waiting] = *datagram.to;
    datagrams[waiting] = {rooms[waiting].data(), datagram.size, &addresses[waiting]};
    if (waiting++ == 0) net_nt_socket_set(nt, socket, 0, 1);
}

void Datagrams::inside::on_writable(void* arg, uint32_t) noexcept { static_cast<inside*>(arg)->push_waiting(); }

void Datagrams::inside::push_waiting() noexcept {
    sent += push(&datagrams[sent], waiting - sent);
    if (sent != waiting) return;
    sent = waiting = 0;
    net_nt_socket_set(nt, socket, 0, 0);
}

}  // namespace net
