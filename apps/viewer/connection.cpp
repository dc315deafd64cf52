#include "connection.h"

#include "core/memory.h"
#include "inet/net_socket.h"

namespace viewer {
namespace {

constexpr uint32_t receive_size = 64 * 1024;

bool is_fatal(int count) { return count < 0 && socket_get_error_code() != socket_error_would_block; }

}  // namespace

bool connection::open(const std::string& address, uint16_t port) {
    fd_ = net_socket_create(AF_INET, SOCK_STREAM, IPPROTO_TCP, CORE_HERE);
    if (fd_ < 0 || !core_buf_resize(&received_, receive_size, CORE_HERE)) return false;
    if (net_tcp_connect(fd_, address.c_str(), port) != 0) {
        error_ = socket_get_error_code();
        return false;
    }
    constexpr int flags = net::nt_flag_read | net::nt_flag_write | net::nt_flag_connecting;
    net::net_nt_socket_add(nt_, socket_, fd_, flags, this, &connection::on_socket);
    return socket_ != nullptr;
}

void connection::close() {
    net::net_nt_socket_rem(nt_, socket_);
    if (fd_ >= 0) net_socket_close(fd_);
    fd_ = -1;
    core_buf_free(&received_);
}

void connection::lose() {
    connected_ = false;
    net::net_nt_socket_rem(nt_, socket_);
    owner_.on_closed(*this);
}

void connection::on_socket(void* arg, uint32_t events) {
    auto* self = static_cast<connection*>(arg);
    if (!self->connected_) {
        if (!(events & net::nt_event_connected)) return;
        self->error_ = net_socket_get_error(self->fd_);
        if (self->error_ != 0) return self->lose();
        self->connected_ = true;
        self->owner_.on_connected(*self);
    }
    if (self->connected_ && events & net::nt_event_read) self->receive();
    if (self->connected_ && events & net::nt_event_write) self->owner_.on_writable(*self);
}

void connection::receive() {
    if (received_.length == received_.size) return lose();
    const int count = net_tcp_recv(fd_, received_);
    if (count == 0 || is_fatal(count)) return lose();
    if (count > 0) owner_.on_received(*this, received_);
}

void connection::send(buf_t& waiting) {
    if (!connected_) return;
    if (waiting.length && is_fatal(net_tcp_send(fd_, waiting))) return lose();
    const bool wanted = waiting.length != 0;
    if (writing_ != wanted) net::net_nt_socket_set(nt_, socket_, 1, wanted);
    writing_ = wanted;
}

sockaddr_in connection::local_address() const { return net_socket_near(fd_); }
sockaddr_in connection::peer() const { return net_socket_peer(fd_); }

}  // namespace viewer
