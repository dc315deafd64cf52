// Discovery on the one thread that it has.
#pragma once

#include "core/owned.h"
#include "inet/net_socket.h"
#include "inet/net_wsdd.h"
#include "media/discovery.h"

#include <array>
#include <cstdint>
#include <span>

namespace media::discovery {

/// Sends ten datagrams a second to a host, at most.
class pacer {
public:
    /// @return false when it may not be sent now
    bool allows(in_addr host, uint64_t now) noexcept;

private:
    static constexpr size_t most_hosts = 256;
    static constexpr size_t most_sent = 10;

    struct host_t {
        in_addr address{};
        uint64_t sent[most_sent] = {};  ///< when; the next one takes the place of the oldest
        size_t next = 0;
    };

    std::array<host_t, most_hosts> hosts_{};
};

/// Random bytes as "uuid:...".
core::owned_text new_uuid() noexcept;

class part_t final : public part {
public:
    part_t(thread& on, const onvif& device) noexcept;
    ~part_t() override;
    void second() noexcept override;

private:
    struct waiting_t {
        uint64_t due;
        sockaddr_in to;
        bool to_all;
        core::owned_text text;
    };
    static constexpr uint32_t most_links = 10;

    bool read_links() noexcept;
    void open() noexcept;
    bool reaches(const net_link_t& link) const noexcept;
    void announce();
    void on_message(const char* text, const sockaddr_in& from);
    void order(waiting_t one);
    void send_due() noexcept;

    thread& thread_;
    const onvif& device_;
    in_addr bound_{};  ///< all zero for all interfaces
    net::wsdd_t wire_;
    net::command_ctx* alarm_ = nullptr;
    std::array<net_link_t, most_links> links_{};
    uint32_t link_count_ = 0;
    bool is_announced_ = false;
    core::vector<waiting_t> waiting_;
    pacer pace_;
};

}  // namespace media::discovery
