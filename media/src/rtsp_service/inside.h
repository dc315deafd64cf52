// The RTSP service, inside: what its threads share.
#pragma once

#include "core/owned.h"
#include "inet/rtsp_protocol.h"
#include "inet/sockaddr.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <atomic>
#include <mutex>
#include <string_view>

namespace media::rtsp {

class group;
class client_t;

/// The open ends of RTSP over HTTP: on which thread the GET connection is that a POST connection belongs to. Any
/// thread.
class tunnels {
public:
    bool add(std::string_view cookie, in_addr peer, thread& at, const client_t& get) noexcept;
    void remove(const client_t& get) noexcept;
    /// The thread that has the GET end of that cookie from that host, the latest one; null when there is none. Threads
    /// end with the station alone.
    thread* find(std::string_view cookie, in_addr peer) const noexcept;

private:
    struct end_t {
        core::string cookie;
        in_addr peer;
        thread* at;
        const client_t* get;
    };

    mutable std::mutex lock_;
    core::vector<end_t> ends_;
};

class service_t final : public service {
public:
    explicit service_t(const rtsp_settings_t& settings) noexcept;
    ~service_t() override;
    /// Whether all texts could be copied.
    bool complete() const noexcept { return complete_; }

    uint16_t port() const noexcept override { return port_; }
    void set_port(uint16_t port) noexcept override { port_ = port; }
    claim_t claims(buffer_t first) const noexcept override;
    bool visits() const noexcept override { return true; }
    int open(station& of, failure_t* error) noexcept override;
    part* make_part(thread& on, failure_t* error) noexcept override;
    client* take(thread& on, net::Tcp*& from) noexcept override;
    void addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                   void* arg) const noexcept override;

    const rtsp_settings_t& settings() const noexcept { return settings_; }
    /// Announces what a stream has of a kind. @return null when it has nothing, or nothing that is sent
    const rtsp3::trak_t* announce(rtsp3::Rtsp& by, const stream& what, kind_t kind) const noexcept;
    tunnels& open_tunnels() noexcept { return tunnels_; }
    /// The multicast streams of a stream, made at their first use, and held once more; null without multicast or when
    /// it cannot be. Any thread.
    group* group_of(stream& of) noexcept;
    /// Gives it to the caller, unless somebody holds it.
    core::owned_object<group> take_out(const group& which) noexcept;

private:
    uint32_t free_group_port() const noexcept;

    rtsp_settings_t settings_;
    core::owned_text user_;
    core::owned_text password_;
    core::owned_text multicast_;
    core::owned_text without_aac_;
    bool complete_;
    std::atomic<uint16_t> port_;
    media::station* station_ = nullptr;
    tunnels tunnels_;

    std::mutex groups_lock_;
    core::vector<core::owned_object<group>> groups_;
};

}  // namespace media::rtsp
