// The server: a listener and the connections of a relay.
#pragma once

#include "sip/ending.h"
#include "sip/relay.h"

#include "core/log.h"
#include "core/owned.h"
#include "inet/net_sips.h"
#include "inet/net_tcp.h"

#include <cstdint>

namespace sip {

/// A connection of the server, which takes one place of the thread.
class connection final : public party, public net::ITcp {
public:
    connection(net::SipServer& server, net::nt_ctx* nt) noexcept;
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    bool has_place() const noexcept { return taken_ <= net::nt_places; }
    /// Takes over a descriptor; it is still the caller's after false. Throws std::bad_alloc.
    bool open(int fd, const sockaddr_in& from, const char* file, int line);
    /// Sends what the system takes. A lost connection is reset when something is left.
    void flush() noexcept;
    /// To be called once a second. @return false when the peer has been awaited for too long
    bool second() noexcept;

private:
    void on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept override;
    void on_tcp_writable(net::Tcp* tcp) noexcept override;
    void on_tcp_closed(net::Tcp* tcp, int error) noexcept override;

    net::SipServer& server_;
    net::nt_ctx* const nt_;
    const uint32_t taken_;
    net::Tcp* tcp_ = nullptr;
    bool roomy_ = false;       ///< the room is that of the longest message
    unsigned unfinished_ = 0;  ///< seconds for which a part of a message has been held
    bool holds_part_ = false;
};

}  // namespace sip

namespace net {

class SipServer {
public:
    /// Throws std::bad_alloc.
    SipServer(nt_ctx* nt, value_t* const* users, const char* file, int line);
    ~SipServer();
    SipServer(const SipServer&) = delete;
    SipServer& operator=(const SipServer&) = delete;

    /// Before all else. @return false when memory is out
    bool prepare() noexcept;
    void listen(unsigned port) noexcept;
    unsigned port() const noexcept { return port_; }
    /// Shuts down on the network thread and waits for it.
    void close() noexcept { ending_.run(); }
    /// A user, null unless it is bound. On the network thread.
    const sip::relay_user* reached(std::string_view name) noexcept { return relay_.reached(name); }

    // The connections' side.
    uint32_t take(sip::party& from, std::string_view bytes) noexcept { return relay_.take(from, bytes); }
    void send(sip::connection& to) noexcept;
    /// Sends what waits and removes who is lost: also the caller, perhaps.
    void settle() noexcept;
    void remove(sip::connection& gone) noexcept;

private:
    static void on_accept(void* arg, int fd, const sockaddr_in* peer) noexcept;
    static void on_second(void* arg, timer_ctx* timer) noexcept;
    bool accept(int fd, const sockaddr_in& peer);
    core::owned_object<sip::connection> make_connection() noexcept;
    void shut_down() noexcept;

    nt_ctx* const nt_;
    const char* const file_;
    const int line_;
    tcp_ctx* listener_ = nullptr;
    unsigned port_ = 0;
    sip::relay relay_;
    sip::ending ending_;
    timer_ctx* clock_ = nullptr;
    core::vector<core::owned_object<sip::connection>> connections_;  ///< the oldest first
};

}  // namespace net
