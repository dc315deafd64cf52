#include "station/door.h"

#include "inet/net_socket.h"

#include <utility>

namespace media {

namespace {

constexpr uint32_t most_first_bytes = 4096;
constexpr uint32_t usual_room = 64 * 1024;
constexpr unsigned longest_stay = 10;  // seconds

using owned_tcp = core::owned<net::Tcp, net::Tcp::destroy>;

/// Has the service make a client of the connection, which the thread serves.
void hand_over(thread& on, service& to, owned_tcp connection) noexcept {
    net::Tcp* given = connection.release();
    given->set_room(usual_room);
    std::unique_ptr<client> made(to.take(on, given));
    net::Tcp::destroy(given);
    if (made && on.add(made.get())) static_cast<void>(made.release());
}

/// A connection whose service is not known yet.
class visitor final : public client, public net::ITcp {
public:
    visitor(thread& on, const port_services& port, net::Tcp* connection) noexcept
        : thread_(on), port_(port), connection_(connection) {
        connection_->set_handler(this);
    }

    uint64_t serve(uint64_t) noexcept override { return 0; }
    void second() noexcept override {
        if (++seconds_ >= longest_stay) finish();
    }
    void finish() noexcept override {
        finished_ = true;
        thread_.sweep();
    }
    bool finished() const noexcept override { return finished_; }
    bool idle() const noexcept override { return true; }
    bool watching() const noexcept override { return false; }

private:
    void on_tcp_received(net::Tcp*, buf_t* received) noexcept override {
        if (finished_) return;
        for (const auto* each : {&port_.visitors, &port_.services}) {
            const asked_t asked = ask(*each, *received);
            if (asked.waits) return;
            if (!asked.found) continue;
            // The place is free before the client asks for it.
            finish();
            connection_->set_handler(nullptr);
            return hand_over(thread_, *asked.found, std::move(connection_));
        }
        finish();
    }
    struct asked_t {
        service* found;
        bool waits;
    };
    static asked_t ask(const core::vector<service*>& services, const buf_t& received) noexcept {
        for (service* each : services) {
            const claim_t claim = each->claims({received.data, received.length});
            if (claim == claim_t::yes) return {each, false};
            if (claim == claim_t::more && received.length < received.size) return {nullptr, true};
        }
        return {nullptr, false};
    }
    void on_tcp_closed(net::Tcp*, int) noexcept override { finish(); }

    thread& thread_;
    const port_services& port_;
    owned_tcp connection_;
    unsigned seconds_ = 0;
    bool finished_ = false;
};

}  // namespace

void receive_at(thread& on, const port_services& port, int fd, const sockaddr_in& peer) noexcept {
    owned_tcp connection(net::Tcp::create(CORE_HERE));
    const bool single = port.services.size() == 1 && port.visitors.empty();
    if (connection && !single) connection->set_room(most_first_bytes);
    if (!on.nt() || !connection || connection->take(on.nt(), fd, peer) != 0) return net_socket_close(fd);
    if (single) return hand_over(on, *port.services.front(), std::move(connection));
    auto* made = core::create<visitor>(CORE_HERE, on, port, connection.get());
    if (!made) return;
    static_cast<void>(connection.release());
    if (!on.add(made)) delete made;
}

}  // namespace media
