/// The UDP side of a received RTP stream: a port for RTP and the next one for RTCP (RFC 3550, section 11), packets put
/// back into order, and only those of the sender. One network thread's.
///
/// Bounds: the packets of one reorder window (rtp_reorder.h), and one batch of 16 datagrams, 1 MiB, of which only what
/// datagrams fill is touched. At most 16 batches are taken at a time, then other sockets get their turn.
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

#include <cstdint>

namespace rtp {

class Port;

/// Takes what has come. From inside, every function of Port may be called but destroy().
class INET_API IPort {
public:
    /// A packet in its turn. @param restarted  true for the first one of a sender that has started its numbers anew
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

    /// Takes packets of this address alone, whatever the port. Up to two addresses; before any, none is taken.
    void add_source(in_addr address) noexcept;

    /// Opens a pair of ports. @return 1, or 0 when there is none, or memory is out
    int open() noexcept;
    /// Joins a multicast group instead, RTP on `port`, RTCP on the next one.
    /// @param via  dotted address of the interface
    int join(const char* group, uint16_t port, const char* via) noexcept;
    /// The port for RTP; 0 before open().
    uint16_t port() const noexcept;

    /// Sends a packet from the RTCP port.
    void send_rtcp(buffer_t packet, const sockaddr_in& to) noexcept;
    /// To be called about ten times a second: gives up what has been waited for too long. @param now  core_timer()
    void expire(uint64_t now) noexcept;
    /// Takes nothing any more, also not the rest of what is being taken.
    void stop() noexcept;

private:
    struct inside;
    explicit Port(inside* made) noexcept : inside_(made) {}
    ~Port() = default;

    inside* inside_;
};

}  // namespace rtp
