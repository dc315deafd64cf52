/// A listening TCP socket on a network thread.
#pragma once

#include "core/api.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

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
    int spare = -1;  ///< held back, to turn connections away when descriptors have run out
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

/// Stops listening, closes the socket, releases the record and nulls it. After the call the callback does not run
/// (called in that callback: not after it returns). Any thread, but before the network thread is stopped.
INET_API void net_tcp_close(tcp_ctx*& t) noexcept;

}  // namespace net
