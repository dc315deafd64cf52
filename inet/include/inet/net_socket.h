/// IPv4 sockets: a registry of open descriptors, RTP port pairs, non-blocking transfer on `buf_t`, addresses, and the
/// host's name and interfaces. The library opens and closes every socket here. Any thread may call any function.
///
/// Results, where nothing else is said:
///     0   success
///     -1  the system refused; socket_get_error_code() tells why
///     -2  a bad argument, or a host that cannot be resolved
/// Child processes do not inherit descriptors. Sending to a peer that is gone raises no signal. Log lines go to
/// core_log_err() and, in red, to core_con_printf().
///
/// A host is a dotted IPv4 address or a name. Of a name the first address is used. An empty host cannot be resolved.
/// Looking up a name blocks.
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "inet/sockaddr.h"

#include <cstddef>
#include <cstdint>

/// The socket errors that callers tell apart. socket_get_error_code() returns these numbers, those of Winsock, on every
/// system.
enum socket_error_t : int {
    socket_error_bad_descriptor = 10009,
    socket_error_access = 10013,
    socket_error_invalid_argument = 10022,
    socket_error_too_many_open = 10024,
    socket_error_would_block = 10035,  ///< also: a connect that goes on in the background
    socket_error_not_a_socket = 10038,
    socket_error_message_size = 10040,
    socket_error_address_in_use = 10048,
    socket_error_address_not_available = 10049,
    socket_error_network_unreachable = 10051,
    socket_error_connection_aborted = 10053,
    socket_error_connection_reset = 10054,
    socket_error_no_buffers = 10055,
    socket_error_not_connected = 10057,
    socket_error_shut_down = 10058,
    socket_error_timed_out = 10060,
    socket_error_refused = 10061,
    socket_error_host_unreachable = 10065,
};

/// Error of the calling thread's last failed socket call, in the numbers of Winsock on every system; 0 when there was
/// none.
INET_API int socket_get_error_code() noexcept;

/// Takes the pending error off a socket, in the same numbers; 0 when there is none. After a non-blocking connect 0
/// means connected. A failed connect is reported as writable, too, so call this on that event.
INET_API int net_socket_get_error(int fd) noexcept;

// Registry and lifetime
// ------------------------------------------------------------------------------------------------

/// Starts the socket layer, without which Windows opens no socket. net_init() calls it.
INET_API void socket_init() noexcept;

/// Logs "not closed socket: %d" for every descriptor still in the registry, empties the registry, and stops the socket
/// layer. The sockets stay open, except that Winsock may close them itself. The last net_free() calls it.
INET_API void socket_free() noexcept;

/// Opens a socket with socket_options() applied and registers it. `file` and `line` name its record. For a descriptor
/// below 3, "warning: open socket fd: %d" is logged.
/// @param family, type, protocol  as the system's socket(): 2, 1, 6 for TCP; 2, 2, 17 for UDP
/// @return the descriptor, or -1. Close it with net_socket_close().
INET_API int net_socket_create(int family, int type, int protocol, const char* file, int line) noexcept;

/// Accepts one waiting connection, with socket_options() applied, and registers it. The listening socket is
/// non-blocking, as net_socket_create() makes it.
/// @param peer  receives the remote address; may be null
/// @return the descriptor, to be closed with net_socket_close(), or -1.
INET_API int net_socket_accept(int fd, sockaddr_in* peer, const char* file, int line) noexcept;

/// Takes a socket out of the registry and closes it. A descriptor below 3 is not closed. For one that was not
/// registered, "socket_close: unknown socket: %d" is logged, and it is closed. A socket that a network thread watches
/// is first removed there (net::net_nt_socket_rem()).
INET_API void net_socket_close(int fd) noexcept;

/// Opens two connected, blocking TCP sockets over 127.0.0.1. The first three arguments are not used. Waits at most 0.1
/// seconds, when other connections arrive in between.
/// @param fds  receives the connecting and the accepted end, both registered
/// @return 0, or -1 (for null `fds` the error is socket_error_invalid_argument); then nothing stays open.
INET_API int net_socket_pair(int family, int type, int protocol, int fds[2], const char* file, int line) noexcept;

/// Opens an even/odd pair of UDP sockets for RTP and RTCP (RFC 3550, section 11), bound to 0.0.0.0. No other socket can
/// share their ports: their reuse option is off, unlike that of other sockets.
/// @param rtp   receives the descriptor on the even port
/// @param rtcp  receives the descriptor on the odd port next to it
/// @return 1 on success, 0 after ten failed attempts, -1 if a pointer is null. After 0 each holds a descriptor that the
/// last attempt left open, or -1. The caller closes both with net_socket_close().
INET_API int socket_rtp_pair(int* rtp, int* rtcp) noexcept;

// Options
// --------------------------------------------------------------------------------------------------------------

INET_API bool socket_nonBlock(int fd) noexcept;                         ///< false when the call fails
INET_API bool socket_keepAlive(int fd) noexcept;                        ///< SO_KEEPALIVE; always true
INET_API bool socket_noNagle(int fd) noexcept;                          ///< TCP_NODELAY; false when the call fails
INET_API bool socket_reuseAddress(int fd) noexcept;                     ///< SO_REUSEADDR; false when the call fails
INET_API bool socket_TTL(int fd, unsigned char ttl) noexcept;           ///< IP_TTL; always true
INET_API bool socket_multicastTTL(int fd, unsigned char ttl) noexcept;  ///< IP_MULTICAST_TTL; always true

/// Interface on which a socket sends to multicast groups (IP_MULTICAST_IF), by its dotted address; 0.0.0.0 leaves it to
/// the system. False for another text, null, or when the call fails.
INET_API bool socket_multicastInterface(int fd, const char* address) noexcept;

/// Joins a multicast group for a UDP socket that listens on the group's port at any address. The group and the
/// interface, `via`, are dotted addresses; 0.0.0.0 leaves the interface to the system. False for another text, null, an
/// address that is no group, or when the call fails.
INET_API bool socket_joinGroup(int fd, const char* group, const char* via) noexcept;

/// Non-blocking (false at once when that fails), keep-alive, no-Nagle and reuse-address.
/// @return the result of reuse-address.
INET_API bool socket_options(int fd) noexcept;

/// Sets the size of the receive buffer in bytes: each value other than 0 is applied, `first` and then `second`, so the
/// second wins. The send buffer is never changed. @return 0, or -1 when a value was refused.
INET_API int net_socket_set_size(int fd, int first, int second) noexcept;

// Binding, listening, connecting
// ---------------------------------------------------------------------------------------

/// Binds a UDP socket, sharing the port. A multicast address (224.0.0.1 to 239.255.255.254) binds to 0.0.0.0, sets both
/// TTLs to 255, joins the group on any interface and enables multicast loop-back. A failed bind logs
/// "Unable to bind on address: %s:%u; Error was: %s (%d)" with the system's own error text and number.
/// @param port  in host order; 0 lets the system choose
/// @return 0, or -1, also for a negative descriptor and an unresolvable address.
INET_API int net_socket_bind(int fd, const char* address, unsigned port) noexcept;

/// net_socket_bind(), to 0.0.0.0 for a null address. @return its negative result, else 0.
INET_API int net_udp_listen(int fd, const char* address, unsigned short port) noexcept;

/// Prepares a UDP socket for sending to a host: sets IP_TTL to 255; for a multicast address also IP_MULTICAST_TTL to
/// 255, and joins the group on any interface. It does not connect the socket and does not use the port: destinations
/// are given with every send.
/// @return 0, or -1 when the host cannot be resolved or the group cannot be joined.
INET_API int net_udp_connect(int fd, const char* host, unsigned short port) noexcept;

/// Starts a non-blocking connect. A refused start logs "Unable connect socket %d to: %s:%hu, e = %d".
/// @return 0 when it is done or under way (watch for writability, then ask net_socket_get_error()), -1 when it failed,
/// -2 for a negative descriptor or an unresolvable host.
INET_API int net_tcp_connect(int fd, const char* host, unsigned short port) noexcept;

/// Binds and listens with a backlog of 1000. No other socket can share the port: on Windows the socket's reuse option
/// is taken off for that. The result of the bind is not checked. When the port is taken, the system may listen on
/// another port: net_socket_get_near_port() tells which. A failed listen logs "Unable to put the socket in listening
/// mode: %s:%hu".
/// @return 0, -1 when it cannot listen, -2 when the address cannot be resolved.
INET_API int net_tcp_listen(int fd, const char* address, unsigned short port) noexcept;

/// Asks the system whether net_tcp_listen() can have that address and port, without a line in a log. Nothing stays
/// open.
/// @return 0 when it can, else a socket_error_t: socket_error_address_in_use for a port that another socket has,
/// socket_error_address_not_available also for an address that cannot be resolved.
INET_API int net_tcp_try_listen(const char* address, unsigned short port) noexcept;

// Transfer
// -------------------------------------------------------------------------------------------------------------
// Results are those of the system's call: a count, 0, or -1 with the error set (socket_error_would_block: try later).

/// Sends the held bytes, and drops the sent ones from the front of the buffer.
INET_API int net_tcp_send(int fd, buf_t& buf) noexcept;

/// Sends bytes. `data` is not changed.
INET_API int net_tcp_send_buffer(int fd, buffer_t data) noexcept;

/// Receives into the free space behind the held bytes. 0 means that the peer has ended its sending half. Make room
/// first (core_buf_respace()): without room 0 means nothing.
INET_API int net_tcp_recv(int fd, buf_t& buf) noexcept;

/// Sends the held bytes as one datagram, and drops the sent ones from the front of the buffer.
INET_API int net_udp_send(int fd, buf_t& buf, sockaddr_in* to) noexcept;

/// Sends the bytes as one datagram; -2 for a null buffer.
INET_API int net_udp_send_buffer(int fd, buffer_t* data, sockaddr_in* to) noexcept;

/// One datagram of a batch. The bytes and the address are valid until the call returns.
struct datagram_t {
    const uint8_t* data;
    uint32_t size;
    const sockaddr_in* to;
};

/// Sends datagrams in their order, with as few system calls as possible (usually one for a hundred). Where the system
/// can cut segments, neighbours of one size to one address are given to it as one; the last of them may be shorter.
/// @return how many were sent; -1 when the first was refused; -2 for a null array with a count. Fewer than `count`: the
/// next one was refused, with the error set. The caller may go on with the one after it.
INET_API int net_udp_send_batch(int fd, const datagram_t* datagrams, uint32_t count) noexcept;

/// Sends a text without its terminator as one datagram; -2 for a null text.
INET_API int net_udp_send_msg(int fd, const char* text, sockaddr_in* to) noexcept;

/// Receives one datagram into the whole buffer, replacing what it held; a longer datagram is cut to `buf.size`.
/// @param from  receives the sender's address; may be null
INET_API int net_udp_recv(int fd, buf_t& buf, sockaddr_in* from) noexcept;

/// One received datagram of a batch. `bytes` is filled as by net_udp_recv().
struct received_t {
    buf_t bytes;
    sockaddr_in from;
};

/// Receives the waiting datagrams, at most `count`, in their order, with as few system calls as possible. @return how
/// many; -1 when there is none, with the error set; -2 for a null array with a count.
INET_API int net_udp_recv_batch(int fd, received_t* datagrams, uint32_t count) noexcept;

// Addresses
// ------------------------------------------------------------------------------------------------------------

/// Bytes that hold any dotted address and its terminator.
inline constexpr size_t net_addr_size = 16;

/// Zeroes and fills an address. @param port in host order. @return 0, or -1 when the host cannot be resolved: the
/// address is then as it was.
INET_API int net_addr_setup(sockaddr_in& addr, const char* host, unsigned short port) noexcept;

/// Dotted text of an address, cut to `n` bytes with its terminator.
INET_API void net_addr_ip(const sockaddr_in& addr, char* out, size_t n) noexcept;

/// Port in host order.
INET_API unsigned short net_addr_port(const sockaddr_in& addr) noexcept;

/// The text of net_addr_ip() and the port in host order.
INET_API void net_addr_str(sockaddr_in addr, char* out, size_t n, unsigned& port) noexcept;

/// Dotted text of an address, and its port in host order; null and 0 for a null address. The text is valid until the
/// thread's next call; it is not to be released.
INET_API const char* net_socket_straddr(const sockaddr_in* addr, unsigned& port) noexcept;

/// Dotted text of an address; release it with core_mfree(). Null when memory is out.
INET_API char* socket_get_ip(in_addr addr, const char* file, int line) noexcept;

/// Local and remote address of a socket; all zero when unknown.
INET_API sockaddr_in net_socket_near(int fd) noexcept;
INET_API sockaddr_in net_socket_peer(int fd) noexcept;

/// Local port in host order; 0 when unknown.
INET_API unsigned short net_socket_get_near_port(int fd) noexcept;

// The host
// -------------------------------------------------------------------------------------------------------------

/// Dotted addresses of the IPv4 interfaces that are up and not loopback, at most 10.
/// @return a null-terminated array (core/array.h) of texts: release each with core_mfree() and the array with
/// core_array_free(). Null when there are none or memory is out.
INET_API char** net_socket_get_if(const char* file, int line) noexcept;

/// The same selection as copies of the interfaces' addresses (port 0), released the same way.
INET_API sockaddr_in** net_socket_get_if_addr(const char* file, int line) noexcept;

/// An interface of that selection.
struct net_link_t {
    in_addr address;
    uint32_t prefix;  ///< leading bits that the hosts of its link have in common
};

/// The selection of net_socket_get_if(). @return how many were written to `out`, `most` at the most
INET_API uint32_t net_socket_get_links(net_link_t* out, uint32_t most) noexcept;

/// Ethernet address of the interface that has that address. @return false where there is none
INET_API bool net_socket_get_hardware(in_addr address, uint8_t out[6]) noexcept;

/// The first text of net_socket_get_if(), for core_mfree(); null when there is none.
INET_API char* net_hostip(const char* file, int line) noexcept;

/// The host name in UTF-8, at most 255 bytes, for core_mfree(); null when it is not known.
INET_API char* net_hostname(const char* file, int line) noexcept;

/// A number for a host: (last octet of the dotted address) * 100 + `base`. 0 for null and for a text that is no
/// address.
INET_API unsigned net_hostid(const char* ip, unsigned base) noexcept;
