#include "net_wsdd/receiver.h"

#include "core/array.h"
#include "core/owned.h"
#include "inet/net_socket.h"

namespace net {

namespace {

/// Above the longest datagram of IPv4, 65507 bytes, and its terminator.
constexpr uint32_t room_size = 65536;

}  // namespace

wsdd_receiver::~wsdd_receiver() {
    for (sockaddr_in** each = own_; each && *each; ++each)
        core_mfree(*each);
    core_array_free(reinterpret_cast<void**>(own_));
    core_buf_free(&room_);
}

bool wsdd_receiver::open(const char* file, int line) noexcept {
    if (!core_buf_resize(&room_, room_size, file, line)) return false;
    own_ = net_socket_get_if_addr(file, line);
    core::owned<sockaddr_in> loopback(static_cast<sockaddr_in*>(core_calloc(1, sizeof(sockaddr_in), file, line)));
    if (!loopback || net_addr_setup(*loopback, "127.0.0.1", 0) < 0) return false;
    auto** const held = reinterpret_cast<void**>(own_);
    const uint32_t count = core_array_length(held);
    own_ = reinterpret_cast<sockaddr_in**>(core_array_add_at(held, count, loopback.get(), file, line));
    if (core_array_length(reinterpret_cast<void**>(own_)) == count) return false;
    (void)loopback.release();
    return true;
}

const char* wsdd_receiver::receive(int fd, sockaddr_in& from) noexcept {
    buf_t datagram{room_.data, room_.size - 1, 0};
    if (net_udp_recv(fd, datagram, &from) <= 0 || is_own(from)) return nullptr;
    datagram.data[datagram.length] = '\0';
    return reinterpret_cast<const char*>(datagram.data);
}

bool wsdd_receiver::is_own(const sockaddr_in& address) const noexcept {
    for (sockaddr_in** each = own_; *each; ++each)
        if ((*each)->sin_addr.s_addr == address.sin_addr.s_addr) return true;
    return false;
}

}  // namespace net
