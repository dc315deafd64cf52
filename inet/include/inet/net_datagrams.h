/// UDP datagrams on their way out, many with one call of the system. What the system does not take at once waits as a
/// copy and goes when there is room. One network thread's.
///
/// Bound: 2048 datagrams of at most 1500 bytes wait, 3 MiB, of which only what is used is touched. What comes beyond is
/// lost, as datagrams are; ask has_room() first where that matters.
#pragma once

#include "core/api.h"
#include "inet/net_socket.h"
#include "inet/net_thread.h"

#include <cstdint>

namespace net {

inline constexpr uint32_t most_waiting_datagrams = 2048;
inline constexpr uint32_t longest_waiting_datagram = 1500;

class INET_API Datagrams final {
public:
    Datagrams() noexcept = default;
    ~Datagrams() { close(); }
    Datagrams(const Datagrams&) = delete;
    Datagrams& operator=(const Datagrams&) = delete;

    /// @param fd  an UDP socket, which stays the caller's and is closed after close()
    /// @return 1, or 0 when memory is out
    int open(nt_ctx* nt, int fd) noexcept;
    /// Drops what waits. Before the network thread is stopped.
    void close() noexcept;
    bool is_open() const noexcept { return inside_ != nullptr; }

    /// Whether so many find room, should they have to wait.
    bool has_room(uint32_t datagrams) const noexcept;
    /// Gives them to the system, in their order. One that is refused, as its host is out of reach, is lost; the others
    /// go on. So are those to a host that has vanished from the network, once they fill the room of the socket: one a
    /// second goes to it until it answers again. The bytes and addresses need not outlive the call.
    void send(const datagram_t* datagrams, uint32_t count) noexcept;

    /// Takes note of datagrams that go to many, one after another. They and their array outlive the sends; between two
    /// of them their bytes may change, not their sizes. Their addresses are not looked at.
    void prepare(const datagram_t* datagrams, uint32_t count) noexcept;
    /// Gives what was prepared to the system, to one address. @return how many went, from the first on: the others are
    /// to be given to send()
    uint32_t send_prepared(const sockaddr_in& to) noexcept;

private:
    struct inside;
    inside* inside_ = nullptr;
};

}  // namespace net
