// RTP packets over UDP on their way out, many with one call.
#pragma once

#include "inet/net_socket.h"
#include "inet/net_thread.h"
#include "inet/rtp_protocol.h"

#include <array>
#include <cstdint>
#include <memory>

namespace camera {

/// One network thread's, for one socket. What the system does not take at once waits as a copy, up to `most`.
class datagrams {
public:
    static constexpr uint32_t most = 2048;

    datagrams() = default;
    ~datagrams() { close(); }
    datagrams(const datagrams&) = delete;
    datagrams& operator=(const datagrams&) = delete;

    /// @param fd  the socket, which stays the caller's. @return false when memory is out.
    bool open(net::Thread& thread, int fd);
    void close();
    bool is_open() const { return socket_ != nullptr; }

    /// Whether so many packets find room, should they have to wait.
    bool has_room(uint32_t packets) const { return waiting_ + packets <= most; }
    /// Gives them to the system.
    void send(const datagram_t* packets, uint32_t count);

private:
    /// Used only by a system that does not keep up.
    struct queue {
        std::array<datagram_t, most> packets;
        std::array<sockaddr_in, most> addresses;
        std::array<std::array<uint8_t, rtp::packet_size>, most> rooms;
    };

    static void on_writable(void* arg, uint32_t events);
    void send_waiting();
    void keep(const datagram_t& packet);
    void watch_writability(bool wanted);

    net::Thread* thread_ = nullptr;  ///< its context is null once it has stopped
    net::socket_ctx* socket_ = nullptr;
    int fd_ = -1;
    std::unique_ptr<queue> queue_;
    uint32_t sent_ = 0;     ///< packets of the queue that are gone
    uint32_t waiting_ = 0;  ///< packets in the queue, with those
};

}  // namespace camera
