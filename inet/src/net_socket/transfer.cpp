#include "platform/socket_api.h"

#include "core/text.h"

namespace platform = net::platform;

namespace {

std::span<const uint8_t> held_bytes(const buf_t& buf) noexcept { return {buf.data, buf.length}; }

int send_held(int fd, buf_t& buf, const sockaddr_in* to) noexcept {
    const int count = platform::send_bytes(fd, held_bytes(buf), to);
    if (count > 0) core_buf_ignore(&buf, static_cast<uint32_t>(count));
    return count;
}

}  // namespace

int net_tcp_send(int fd, buf_t& buf) noexcept { return send_held(fd, buf, nullptr); }

int net_tcp_send_buffer(int fd, buffer_t data) noexcept {
    return platform::send_bytes(fd, {data.data, data.size}, nullptr);
}

int net_tcp_recv(int fd, buf_t& buf) noexcept {
    const uint32_t room = buf.size - buf.length;
    const int count = platform::receive_bytes(fd, {buf.data + buf.length, room}, nullptr);
    if (count > 0) buf.length += static_cast<uint32_t>(count);
    return count;
}

int net_udp_send(int fd, buf_t& buf, sockaddr_in* to) noexcept { return send_held(fd, buf, to); }

int net_udp_send_buffer(int fd, buffer_t* data, sockaddr_in* to) noexcept {
    return data ? platform::send_bytes(fd, {data->data, data->size}, to) : -2;
}

int net_udp_send_batch(int fd, const datagram_t* datagrams, uint32_t count) noexcept {
    if (!datagrams) return count ? -2 : 0;
    return platform::send_datagrams(fd, {datagrams, count});
}

int net_udp_recv_batch(int fd, received_t* datagrams, uint32_t count) noexcept {
    if (!datagrams) return count == 0 ? 0 : -2;
    return platform::receive_datagrams(fd, {datagrams, count});
}

int net_udp_send_msg(int fd, const char* text, sockaddr_in* to) noexcept {
    if (!text) return -2;
    return platform::send_bytes(fd, {reinterpret_cast<const uint8_t*>(text), core_strlen(text)}, to);
}

int net_udp_recv(int fd, buf_t& buf, sockaddr_in* from) noexcept {
    buf.length = 0;
    const int count = platform::receive_bytes(fd, {buf.data, buf.size}, from);
    if (count > 0) buf.length = static_cast<uint32_t>(count);
    return count;
}
