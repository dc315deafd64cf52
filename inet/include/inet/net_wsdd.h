/// WS-Discovery over UDP (April 2005): receives what is sent to the discovery group, and sends texts to one peer or to
/// the group. Texts are made and read with inet/net_soap.h. Which Probe is answered, and with what, is for the owner to
/// say, in on_message:
///
///     net::wsdd_t discovery{.user = &device, .on_message = answer};
///     net::net_wsdd_open(discovery, nt, nullptr, 0, CORE_HERE);
///     net::net_wsdd_request(discovery, hello);
///     ...
///     net::net_wsdd_close(discovery);
///
/// What the host itself sends is not given to on_message: datagrams from the addresses that its interfaces have when
/// the handle is opened, and from 127.0.0.1. When these change, the owner opens the handle anew. An owner answers
/// requests alone, never answers: else a host that does not know itself talks to itself.
///
/// Bounds for one handle:
///     memory  64 KiB for the datagram that is read
///     pace    a datagram for each socket in a pass of the loop; what comes faster waits in the system's buffer
#pragma once

#include "core/api.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

namespace net {

struct wsdd_t;
struct wsdd_ctx;

/// A datagram came from another host. The network thread calls it. Closing the handle is allowed.
/// @param text  up to the first NUL; valid until the call returns or the handle is closed
/// @param from  its sender: the address for net_wsdd_send()
typedef void (*wsdd_callback)(wsdd_t* d, const char* text, sockaddr_in from);

/// A handle. The owner fills in the first two before net_wsdd_open(), and keeps it in place until net_wsdd_close().
struct wsdd_t {
    void* user = nullptr;  ///< the owner's, never touched
    wsdd_callback on_message = nullptr;
    wsdd_ctx* priv = nullptr;  ///< null while it is closed
};

/// Listens to a group on a port, through the default interface and those of net_socket_get_if(), and opens a second
/// socket for net_wsdd_request(). A socket that cannot be opened or bound is not reported here: the handle then does
/// what it can with the other.
/// @param group  dotted address; null is 239.255.255.250. An address that is no group is listened on as such
/// @param port   its low 16 bits; 0 is 3702
/// @return 0; -2 without `nt` or on_message; -5 for an open handle; -1 when memory is out
INET_API int net_wsdd_open(wsdd_t& d, nt_ctx* nt, const char* group, unsigned port, const char* file,
                           int line) noexcept;

/// Ends it: after the call on_message does not run. A closed handle is ignored. Before the network thread is stopped.
INET_API void net_wsdd_close(wsdd_t& d) noexcept;

/// Sends an answer, such as ProbeMatches, as a datagram from the port that is listened on. Errors are ignored; nothing
/// happens on a closed handle, and for a null text. Any thread, while the handle is neither opened nor closed.
INET_API void net_wsdd_send(wsdd_t& d, const char* text, sockaddr_in to) noexcept;

/// Sends a Probe or Hello to 239.255.255.250:3702, whatever the handle listens on, from the second socket, where the
/// answers arrive. Otherwise as net_wsdd_send().
INET_API void net_wsdd_request(wsdd_t& d, const char* text) noexcept;

/// As net_wsdd_request(), which leaves the way to the system, through each of the interfaces that the handle listens
/// to. No other thread sends a request meanwhile.
INET_API void net_wsdd_announce(wsdd_t& d, const char* text) noexcept;

}  // namespace net
