#include "inet/net_tcp.h"

#include "platform/socket_api.h"

#include "core/owned.h"
#include "inet/net_socket.h"

namespace net {

namespace {

int open_spare() noexcept { return platform::open_socket(2, 1, 6); }

// With no descriptor left a waiting connection could neither be taken nor be told, and would wake the loop without end:
// the spare makes room to turn it away.
void turn_away(tcp_ctx& t) noexcept {
    if (t.spare >= 0) platform::close_socket(t.spare);
    const int fd = platform::accept_socket(t.fd, nullptr);
    if (fd >= 0) platform::close_socket(fd);
    t.spare = open_spare();
}

// The callback may close the record: nothing of it is touched afterwards.
void accept_one(tcp_ctx& t) noexcept {
    if (t.spare < 0) t.spare = open_spare();  // somebody else was quicker when it was last turned in
    const int fd = net_socket_accept(t.fd, &t.peer, CORE_HERE);
    if (fd < 0) {
        if (platform::last_error() == socket_error_too_many_open) turn_away(t);
        return;
    }
    if (!t.callback) return net_socket_close(fd);
    const sockaddr_in peer = t.peer;
    t.callback(t.arg, fd, &peer);
}

void on_event(void* arg, uint32_t events) noexcept {
    if (events & nt_event_accept) accept_one(*static_cast<tcp_ctx*>(arg));
}

}  // namespace

int net_tcp_create(tcp_ctx*& t, nt_ctx* nt, const char* file, int line) noexcept {
    if (t) return -5;
    if (!nt) return -2;
    const int fd = net_socket_create(2, 1, 6, file, line);
    if (fd < 0) return -1;
    t = core::create<tcp_ctx>(file, line);
    if (!t) {
        net_socket_close(fd);
        return -1;
    }
    t->fd = fd;
    t->nt = nt;
    t->spare = open_spare();
    return 0;
}

int net_tcp_listen2(tcp_ctx*& t, const char* address, unsigned port, void* arg, accept_callback callback) noexcept {
    if (!t || t->socket) return -5;
    if (port == 0 || port > 0xffff) return -2;
    t->arg = arg;
    t->callback = callback;
    const int result = ::net_tcp_listen(t->fd, address ? address : "0.0.0.0", static_cast<unsigned short>(port));
    if (result != 0) return result;
    net_nt_socket_add(t->nt, t->socket, t->fd, nt_flag_listening, t, on_event);
    return t->socket ? 0 : -1;
}

void net_tcp_close(tcp_ctx*& t) noexcept {
    if (!t) return;
    net_nt_socket_rem(t->nt, t->socket);
    net_socket_close(t->fd);
    if (t->spare >= 0) platform::close_socket(t->spare);
    core::destroy(t);
    t = nullptr;
}

}  // namespace net
