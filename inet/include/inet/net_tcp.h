/// TCP on a network thread: listening sockets, and the connection that all protocols use.
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

#include <cstdint>

namespace net {

/// Receives an accepted connection, on the network thread. The descriptor is the callee's, to be closed with
/// net_socket_close(). It may close the listening record with net_tcp_close().
typedef void (*accept_callback)(void* arg, int fd, const sockaddr_in* peer);

/// A listening record; users read it.
struct tcp_ctx {
    int fd = -1;
    nt_ctx* nt = nullptr;
    socket_ctx* socket = nullptr;
    sockaddr_in peer = {};  ///< remote address of the last accepted connection
    void* arg = nullptr;
    accept_callback callback = nullptr;
    int spare = -1;  ///< kept free to refuse connections when descriptors have run out
};

/// Makes a record with a TCP socket, for `nt`.
/// @return 0, -1 when the socket or memory cannot be had, -2 when `nt` is null, -5 when `t` is already set.
INET_API int net_tcp_create(tcp_ctx*& t, nt_ctx* nt, const char* file, int line) noexcept;

/// Listens, and hands every connection to the callback.
/// @param address  null for 0.0.0.0
/// @param port     in host order; what net_tcp_listen() says about a taken port holds here
/// @return 0; -5 when `t` is null or listens already; -2 when the port is 0 or above 65535 or the address cannot be
/// resolved; -1 when it cannot listen or memory is out.
INET_API int net_tcp_listen2(tcp_ctx*& t, const char* address, unsigned port, void* arg,
                             accept_callback callback) noexcept;

/// Stops listening, closes the socket, releases the record and nulls it. After the call the callback does not run.
/// Called inside the callback, it does not run again once it has returned. Any thread, before the network thread is
/// stopped.
INET_API void net_tcp_close(tcp_ctx*& t) noexcept;

class Tcp;

/// Owner of a connection. All calls come from the network thread. Inside each of them every function of Tcp may be
/// called, destroy() too.
class INET_API ITcp {
public:
    /// connect() has succeeded.
    virtual void on_tcp_connected(Tcp* tcp) noexcept;
    /// Takes bytes off the front of `received` with core_buf_ignore(). The rest is shown again with the next bytes.
    /// When the buffer is full and the owner takes nothing, the connection is closed.
    virtual void on_tcp_received(Tcp* tcp, buf_t* received) noexcept = 0;
    /// The system takes bytes again, and no bytes of send() wait.
    virtual void on_tcp_writable(Tcp* tcp) noexcept;
    /// Tcp::signal() was called, once or more.
    virtual void on_tcp_signalled(Tcp* tcp) noexcept;
    /// The peer has ended its sending half. @param received  the bytes not taken yet
    /// @return 1 to go on sending; 0, as ITcp itself returns, to have the connection closed
    virtual int on_tcp_ended(Tcp* tcp, buf_t* received) noexcept;
    /// The last call: connect() has failed, or the peer has closed or reset the connection.
    /// @param error  a socket_error_t of inet/net_socket.h; socket_error_no_buffers when the owner took nothing of a
    ///               full buffer; 0 when the peer closed
    virtual void on_tcp_closed(Tcp* tcp, int error) noexcept = 0;

protected:
    ~ITcp() = default;
};

/// A TCP connection, made by connect() or accepted elsewhere. Any thread may make one, signal() it and destroy() it.
/// All else belongs to its network thread.
///
/// Bounds:
///     received, not taken by the owner    set_room(), 64 KiB
///     sent, not taken by the peer         set_output_limit(), 1 MiB
class INET_API Tcp final {
public:
    /// @return null when memory is out
    static Tcp* create(const char* file, int line) noexcept;
    /// Closes the connection at once and releases it. Null is ignored. After the call no function of the handler runs.
    /// Called inside one, none runs after that one has returned.
    static void destroy(Tcp* tcp) noexcept;
    Tcp(const Tcp&) = delete;
    Tcp& operator=(const Tcp&) = delete;

    void set_handler(ITcp* handler) noexcept;
    /// Sets the bytes of the receive buffer. Later calls may enlarge it, and shrink it while it is empty.
    void set_room(uint32_t bytes) noexcept;
    /// 1 to receive, 0 to pause; 1 until set. During a pause a lost connection may be noticed late.
    void set_reading(int wanted) noexcept;
    void set_output_limit(uint32_t bytes) noexcept;

    /// Starts to connect. @param address  a dotted address, or a name, whose look-up blocks
    /// @return 0 when it is under way; -1 when the system refused, see error(), or memory is out; -2 when the host
    ///         cannot be resolved; -5 when there is a connection already
    int connect(nt_ctx* nt, const char* address, unsigned short port) noexcept;
    /// Takes over an accepted descriptor. @return 0; -1 when memory is out; -5 when there is a connection already.
    /// After -1 and -5 the descriptor still belongs to the caller
    int take(nt_ctx* nt, int fd, const sockaddr_in& peer) noexcept;

    /// Moves a connected connection to another thread: detach() on the old thread, then attach() on the new one.
    /// Received bytes that were not taken are kept.
    /// @return attach(): 1, or 0 when memory is out: nothing is watched then
    void detach() noexcept;
    int attach(nt_ctx* nt) noexcept;
    /// Shows the owner the received bytes not taken yet, for example after set_handler() of another owner.
    void show_received() noexcept;

    /// Sends bytes. Those that the system does not take at once are copied and sent later.
    /// @return 1; 0 when there is no connection, memory is out, or the bytes would exceed the output limit: none of
    ///         them was sent then
    int send(buffer_t bytes) noexcept;
    /// Sends bytes without copying them. @return how many the system took; 0 while other bytes wait
    uint32_t lend(buffer_t bytes) noexcept;
    /// Sends from the owner's buffer, and drops the sent bytes from its front. When bytes are left, on_tcp_writable()
    /// tells when to go on. For an owner that queues output itself and does not use send().
    void flush(buf_t& own) noexcept;

    /// Sends runs of bytes, one after the other, without copying them. When bytes are left, on_tcp_writable() tells
    /// when to go on with them. For an owner that does not use send().
    /// @return how many bytes the system took
    uint32_t offer(buffer_t first, buffer_t second, buffer_t third = {}) noexcept;
    /// Ends the sending half (RFC 9293, 3.6): the peer reads to the end of what was sent, and may still send.
    void end_output() noexcept;
    /// Has the connection end with a reset when it is destroyed (RFC 9293, 3.10.5). What the system still holds for a
    /// peer that does not read, some MiB, is then given up at once, not after minutes.
    void give_up() noexcept;

    /// Has on_tcp_signalled() called. Any thread. Without a connection it does nothing.
    void signal() noexcept;

    /// To be called once a second. @return seconds for which the peer has taken neither 64 KiB nor all of the waiting
    /// bytes
    unsigned second() noexcept;

    bool is_connected() const noexcept;
    /// For logs; -1 when there is none.
    int descriptor() const noexcept;
    /// Bytes given to send() or left by flush() that wait for the peer.
    uint32_t waiting() const noexcept;
    uint64_t sent() const noexcept;
    uint64_t received() const noexcept;
    /// Why connect() returned -1: a socket_error_t.
    int error() const noexcept;
    /// The addresses of both ends.
    sockaddr_in local() const noexcept;
    const sockaddr_in& peer() const noexcept;

    struct inside;

private:
    explicit Tcp(inside* made) noexcept : inside_(made) {}
    ~Tcp() = default;

    inside* inside_;
};

}  // namespace net
