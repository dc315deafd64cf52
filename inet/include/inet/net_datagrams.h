/// Sends UDP datagrams, many with one system call. A datagram that the system does not take at once waits as a copy and
/// is sent when there is room. An object belongs to one network thread.
///
/// Bound: 2048 waiting datagrams of at most 1500 bytes each, 3 MiB in all. Only the part in use is touched. A datagram
/// beyond the bound is lost. Where that matters, ask has_room() first.
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

    /// @param fd  a UDP socket. It stays the caller's, who closes it after close()
    /// @return 1, or 0 when memory is out
    int open(nt_ctx* nt, int fd) noexcept;
    /// Drops waiting datagrams. Call it before the network thread is stopped.
    void close() noexcept;
    bool is_open() const noexcept { return inside_ != nullptr; }

    /// True when there is room for so many more waiting datagrams.
    bool has_room(uint32_t datagrams) const noexcept;
    /// Sends datagrams in their order. The bytes and addresses are valid until the call returns. Lost are:
    ///   - a datagram that the system refuses, for example because its host is unreachable; the others are sent,
    ///   - datagrams to a host of the same network that has vanished, once they fill the socket's buffer. One a second
    ///     is still sent to it until it answers again.
    void send(const datagram_t* datagrams, uint32_t count) noexcept;

    /// Prepares datagrams that are sent to several addresses, one after the other. The datagrams and their array are
    /// valid until the last send_prepared() has returned. Between two sends their bytes may change, but not their
    /// sizes. Their `to` is not read.
    void prepare(const datagram_t* datagrams, uint32_t count) noexcept;
    /// Sends the prepared datagrams to one address. @return how many were sent, from the first on. Give the others to
    /// send()
    uint32_t send_prepared(const sockaddr_in& to) noexcept;

private:
    struct inside;
    inside* inside_ = nullptr;
};

}  // namespace net
