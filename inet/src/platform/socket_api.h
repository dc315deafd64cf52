// What the socket families ask of the operating system: one set of functions, a posix_ and a windows_ half. Calls keep
// the system's manner: bool results are false, counts -1, when the system refused, and last_error() then says why.
#pragma once

#include "inet/net_socket.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <span>

namespace net::platform {

/// Brings the socket layer up and down, where the system has one to bring up.
void start_sockets() noexcept;
void stop_sockets() noexcept;

/// The calling thread's last socket error in the numbers of Winsock.
int last_error() noexcept;
void set_last_error(int winsock_error) noexcept;

/// The same in the system's own number, and the system's text for it, good until the thread's next call.
int system_error() noexcept;
const char* system_error_text(int error) noexcept;

/// Error pending on a socket, in the numbers of Winsock; reading takes it off.
int pending_error(int fd) noexcept;

/// A new or accepted socket that child processes do not inherit; -1 when refused. The listener does not block.
int open_socket(int family, int type, int protocol) noexcept;
int accept_socket(int fd, sockaddr_in* peer) noexcept;

/// Leaves last_error() as it was.
void close_socket(int fd) noexcept;

bool bind_socket(int fd, const sockaddr_in& address) noexcept;
bool listen_socket(int fd, int backlog) noexcept;
bool connect_socket(int fd, const sockaddr_in& address) noexcept;
bool near_address(int fd, sockaddr_in& address) noexcept;
bool peer_address(int fd, sockaddr_in& address) noexcept;

enum class option { keep_alive, no_delay, reuse_address, receive_buffer, ttl, multicast_ttl, multicast_loop };

bool set_option(int fd, option which, int value) noexcept;
bool set_blocking(int fd, bool on) noexcept;

/// A descriptor that is readable from ring_bell() until quiet_bell(), closed by close_socket(). It costs less than a
/// pair of sockets. @return -1 where the system has none
int open_bell() noexcept;
void ring_bell(int fd) noexcept;
void quiet_bell(int fd) noexcept;

/// Before bind: nobody else will share the port, whatever options they set. The second is for TCP listeners, whose port
/// can be bound again while connections of the one before are fading away.
bool set_exclusive(int fd) noexcept;
bool set_listener(int fd) noexcept;

/// Joins a multicast group on the interface of that address; 0.0.0.0 for the system's choice.
bool join_group(int fd, in_addr group, in_addr via) noexcept;

/// The interface, by its address, on which multicast goes out; 0.0.0.0 for the system's choice.
bool set_multicast_interface(int fd, in_addr via) noexcept;

/// Transfer; a null address is the connected peer. A peer that is gone gives an error, never a signal.
int send_bytes(int fd, std::span<const uint8_t> bytes, const sockaddr_in* to) noexcept;
/// Sends runs of bytes to the connected peer, one behind the other.
int send_pieces(int fd, const std::array<buffer_t, 3>& runs) noexcept;
/// Ends the sending half of a connection.
void end_output(int fd) noexcept;
/// Closing will end the connection with a reset, and what waits for the peer is thrown away.
void reset_on_close(int fd) noexcept;
/// Sends each as one datagram, in their order. @return how many went before one was refused, -1 when the first was.
int send_datagrams(int fd, std::span<const datagram_t> datagrams) noexcept;
/// Datagrams to be sent to one address after another: what their messages are is found out once.
class letters {
public:
    letters() noexcept = default;
    ~letters();  // NOLINT(performance-trivially-destructible): on one system it has nothing to end
    letters(const letters&) = delete;
    letters& operator=(const letters&) = delete;

    /// Takes note of them; their bytes may change from one send() to the next. Addresses are not looked at.
    void prepare(std::span<const datagram_t> datagrams) noexcept;
    /// @return how many went, from the first on; what did not go is left to send_datagrams()
    uint32_t send(int fd, const sockaddr_in& to) noexcept;

private:
    struct inside;
    inside* inside_ = nullptr;
};

/// Receives those that are there. @return how many, -1 when there is none.
int receive_datagrams(int fd, std::span<received_t> datagrams) noexcept;
int receive_bytes(int fd, std::span<uint8_t> bytes, sockaddr_in* from) noexcept;

/// Dotted address from text and back. A text that is none leaves the address as it was.
bool parse_address(const char* text, in_addr& address) noexcept;
void print_address(in_addr address, char (&text)[net_addr_size]) noexcept;

/// First IPv4 address of a host name or dotted address; an empty name is none. Blocks. Thread-safe.
bool resolve(const char* host, in_addr& address) noexcept;

/// Calls `visit` for every IPv4 interface that is up and not loopback, until it answers false.
void visit_interfaces(bool (*visit)(void* arg, const sockaddr_in& address, in_addr mask), void* arg) noexcept;

/// Ethernet address of the interface with that address. @return false where there is none
bool hardware_address(in_addr of, std::span<uint8_t, 6> out) noexcept;

/// Hosts of the neighbourhood whose hardware address the system asks for in vain, where it keeps what is sent to them
/// until it gives up. @return how many; 0 where it does not, or does not tell
size_t unanswering_hosts(std::span<in_addr> out) noexcept;
/// Doubles the room of a socket for what is being sent, as far as the system allows.
void widen_send_room(int fd) noexcept;

/// The host name in UTF-8, terminated.
bool host_name(std::span<char> out) noexcept;

/// One descriptor to wait for.
struct watch_t {
    static constexpr uint8_t read = 1;
    static constexpr uint8_t write = 2;
    static constexpr uint8_t closed = 4;

    int fd;
    uint8_t wanted;    ///< read and write; 0 is not waited for
    uint8_t found;     ///< what of the wanted can be done without blocking, an error included; closed: no such socket
    uint8_t held = 0;  ///< the waiter's: what the system knows to be wanted
    uint32_t ticket = 0;  ///< the waiter's
};

/// The most descriptors that one wait may want something of.
inline constexpr uint32_t max_watches = 1024;

/// Waits until one of the descriptors is found ready or that time has passed, which may be rounded up.
/// @return the number of ready ones, 0 also when a signal came, -1 when the system refused; then nothing is found.
int wait_sockets(std::span<watch_t> watches, int64_t microseconds) noexcept;

/// Does the same again and again for much the same descriptors, by the way that the system has for that. One thread's
/// but for leave().
class waiter {
public:
    waiter() noexcept = default;
    ~waiter();  // NOLINT(performance-trivially-destructible): on one system it has nothing to end
    waiter(const waiter&) = delete;
    waiter& operator=(const waiter&) = delete;

    /// Before the watches of the next wait are told. @return whether all are to be told anew
    bool begin_round() noexcept;
    /// Tells the system what is wanted of a watch, where `held` differs. The descriptor is not closed meanwhile.
    /// @param place  of the watch in the waits to come
    void tell(watch_t& watch, uint32_t place) noexcept;
    /// A descriptor may be closed from now on, or be somebody else's. Any thread.
    void leave(int fd) noexcept;
    /// As wait_sockets(). @param watches  those that want nothing may be among them
    int wait(std::span<watch_t> watches, int64_t microseconds) noexcept;

private:
    void start_anew(std::span<watch_t> watches) noexcept;

    std::atomic<int> set_ = -1;
    uint32_t tickets_ = 0;
    int64_t told_ = 0;  ///< when all were told anew
};

}  // namespace net::platform
