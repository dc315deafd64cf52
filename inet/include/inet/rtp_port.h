/// Receives an RTP stream over UDP, on a port for RTP and the next one for RTCP (RFC 3550, section 11). It puts packets
/// back into order, and takes only those of the sender. An object belongs to one network thread.
///
/// Bounds:
///     waiting packets  one reorder window (inet/rtp_reorder.h)
///     one batch        16 datagrams, 1 MiB; only the part that datagrams fill is touched
///     one turn         16 batches; then other sockets have their turn
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

#include <cstdint>

struct datagram_t;  // inet/net_socket.h

namespace rtp {

class Port;

/// Takes received packets. From inside, every function of Port but destroy() may be called.
class INET_API IPort {
public:
    /// The next packet in order. The bytes are valid until the call returns.
    /// @param restarted  true for the first packet after the sender has restarted its numbers
    virtual void on_rtp_packet(Port* port, buffer_t packet, bool restarted) noexcept = 0;
    /// A packet that came to the RTCP port.
    virtual void on_rtcp_packet(Port* port, buffer_t packet) noexcept = 0;

protected:
    ~IPort() = default;
};

class INET_API Port final {
public:
    /// @return null when memory is out
    static Port* create(net::nt_ctx* nt, IPort* handler, const char* file, int line) noexcept;
    static void destroy(Port* port) noexcept;
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    /// Takes packets from this address, from any port. At most two addresses. Until the first call no packet is taken.
    void add_source(in_addr address) noexcept;
    /// Takes no packet until the next add_source().
    void forget_sources() noexcept;

    /// Opens a pair of ports. @return 1; 0 when no pair is free, or when memory is out
    int open() noexcept;
    /// Joins a multicast group instead, RTP on `port`, RTCP on the next one.
    /// @param via  dotted address of the interface
    int join(const char* group, uint16_t port, const char* via) noexcept;
    /// The port for RTP; 0 before open().
    uint16_t port() const noexcept;

    /// Sends packets from the RTP port. Those that the system does not take are lost.
    void send(const datagram_t* packets, uint32_t count) noexcept;
    /// Sends a packet from the RTCP port.
    void send_rtcp(buffer_t packet, const sockaddr_in& to) noexcept;
    /// To be called about ten times a second: gives up packets that have been waited for too long.
    /// @param now  core_timer()
    void expire(uint64_t now) noexcept;
    /// Takes no further packets, also not the rest of the current batch.
    void stop() noexcept;

private:
    struct inside;
    explicit Port(inside* made) noexcept : inside_(made) {}
    ~Port() = default;

    inside* inside_;
};

}  // namespace rtp
