#include "datagrams.h"

#include <new>

namespace camera {
namespace {

/// Payload bytes of a packet, at least, but for the last ones of a frame's parts.
constexpr uint32_t least_payload = 1024;
constexpr uint32_t short_packets = 16;

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
    sent_ = count_ = 0;
    writing_ = false;
}

bool datagrams::has_room(uint32_t frame_size) const {
    return count_ + frame_size / least_payload + short_packets <= most;
}

uint8_t* datagrams::room() { return &queue_->rooms[size_t{count_} * rtp::packet_size]; }

void datagrams::add(uint32_t size, const sockaddr_in& to) {
    if (count_ == most) return;
    queue_->addresses[count_] = to;
    queue_->packets[count_] = {room(), size, &queue_->addresses[count_]};
    ++count_;
    if (count_ - sent_ >= together && !writing_) send();
}

void datagrams::send() {
    while (sent_ < count_) {
        const int went = net_udp_send_batch(fd_, &queue_->packets[sent_], count_ - sent_);
        if (went < 0 && socket_get_error_code() == socket_error_would_block) break;
        // One that is refused, as its player is out of reach, is lost; the others go on.
        sent_ += went > 0 ? static_cast<uint32_t>(went) : 1;
    }
    if (sent_ == count_) sent_ = count_ = 0;
    watch_writability(sent_ != count_);
}

void datagrams::on_writable(void* arg, uint32_t) { static_cast<datagrams*>(arg)->send(); }

void datagrams::watch_writability(bool wanted) {
    if (writing_ == wanted) return;
    writing_ = wanted;
    net::net_nt_socket_set(thread_->nt, socket_, 0, wanted);
}

}  // namespace camera
