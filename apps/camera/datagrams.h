// RTP packets over UDP on their way out: built in its rooms, sent many at a time.
#pragma once

#include "inet/net_socket.h"
#include "inet/net_thread.h"
#include "inet/rtp_protocol.h"

#include <array>
#include <cstdint>
#include <memory>

namespace camera {

/// One network thread's, for one socket. What the system does not take at once waits, up to `most`.
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
    bool is_open() const { return queue_ != nullptr; }

    /// Whether a frame of so many bytes finds room for all its packets.
    bool has_room(uint32_t frame_size) const;
    /// Where the next packet is to be built: rtp::packet_size bytes.
    uint8_t* room();
    /// The packet in room() is complete.
    void add(uint32_t size, const sockaddr_in& to);
    /// Gives what waits to the system.
    void send();

private:
    /// Packets that go together: few enough to be still in the processor's cache when the system copies them.
    static constexpr uint32_t together = 128;

    struct queue {
        std::array<datagram_t, most> packets;
        std::array<sockaddr_in, most> addresses;
        // One more for the packet that finds no room.
        std::array<uint8_t, size_t{most + 1} * rtp::packet_size> rooms;
    };

    static void on_writable(void* arg, uint32_t events);
    void watch_writability(bool wanted);

    net::Thread* thread_ = nullptr;  ///< its context is null once it has stopped
    net::socket_ctx* socket_ = nullptr;
    int fd_ = -1;
    std::unique_ptr<queue> queue_;
    uint32_t sent_ = 0;   ///< packets of the queue that are gone
    uint32_t count_ = 0;  ///< packets in the queue, with those
    bool writing_ = false;
};

}  // namespace camera
