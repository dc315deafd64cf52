#include "datagrams.h"

#include <algorithm>
#include <new>

namespace camera {
namespace {

/// Sends them in their order, up to the first that the system does not take yet. One that is refused, as its player is
/// out of reach, is lost; the others go on. @return how many are done
uint32_t send_up_to_full(int fd, const datagram_t* packets, uint32_t count) {
    uint32_t done = 0;
    while (done < count) {
        const int went = net_udp_send_batch(fd, packets + done, count - done);
        if (went < 0 && socket_get_error_code() == socket_error_would_block) break;
        done += went > 0 ? static_cast<uint32_t>(went) : 1;
    }
    return done;
}

}  // namespace

bool datagrams::open(net::Thread& thread, int fd) {
    thread_ = &thread;
    fd_ = fd;
    // Left as it is: only the rooms that are used are touched.
    queue_.reset(new (std::nothrow) queue);
    if (queue_) net::net_nt_socket_add(thread_->nt, socket_, fd_, 0, this, &datagrams::on_writable);
    if (!socket_) queue_.reset();
    return is_open();
}

void datagrams::close() {
    if (socket_) net::net_nt_socket_rem(thread_->nt, socket_);
    socket_ = nullptr;
    queue_.reset();
    sent_ = waiting_ = 0;
}

void datagrams::send(const datagram_t* packets, uint32_t count) {
    uint32_t done = waiting_ == 0 ? send_up_to_full(fd_, packets, count) : 0;
    for (; done < count; ++done)
        keep(packets[done]);
}

void datagrams::keep(const datagram_t& packet) {
    if (waiting_ == most) return;
    std::copy_n(packet.data, packet.size, queue_->rooms[waiting_].data());
    queue_->addresses[waiting_] = *packet.to;
    queue_->packets[waiting_] = {queue_->rooms[waiting_].data(), packet.size, &queue_->addresses[waiting_]};
    if (waiting_++ == 0) watch_writability(true);
}

void datagrams::on_writable(void* arg, uint32_t) { static_cast<datagrams*>(arg)->send_waiting(); }

void datagrams::send_waiting() {
    sent_ += send_up_to_full(fd_, &queue_->packets[sent_], waiting_ - sent_);
    if (sent_ != waiting_) return;
    sent_ = waiting_ = 0;
    watch_writability(false);
}

void datagrams::watch_writability(bool wanted) { net::net_nt_socket_set(thread_->nt, socket_, 0, wanted); }

}  // namespace camera
