#include "sip/server.h"

#include "report.h"
#include "sip/framing.h"

#include "inet/net_socket.h"

#include <algorithm>

namespace sip {

namespace {

/// Of an idle connection; the longest message gets its room when it comes.
constexpr uint32_t usual_room = 16 * 1024;
constexpr uint32_t largest_room = max_header + max_body;
constexpr uint32_t kept_output = 16 * 1024;
constexpr unsigned longest_part = 32;   // seconds until the rest of a message has come
constexpr unsigned longest_stall = 32;  // seconds without reading
constexpr ptrdiff_t most_strangers = 100;

core::string dotted(const sockaddr_in& address) {
    char text[net_addr_size];
    net_addr_ip(address, text, sizeof text);
    return core::string(text);
}

}  // namespace

connection::connection(net::SipServer& server, net::nt_ctx* nt) noexcept
    : server_(server), nt_(nt), taken_(net::net_nt_take_places(nt, 1)) {}

connection::~connection() {
    net::Tcp::destroy(tcp_);
    net::net_nt_take_places(nt_, -1);
}

bool connection::open(int fd, const sockaddr_in& from, const char* file, int line) {
    peer = dotted(from);
    peer_port = net_addr_port(from);
    const sockaddr_in own = net_socket_near(fd);
    local = dotted(own);
    route = join({"<sip:", local, ":", number_text(net_addr_port(own)), ";transport=tcp;lr>"});
    tcp_ = net::Tcp::create(file, line);
    if (!tcp_) return false;
    tcp_->set_handler(this);
    tcp_->set_room(usual_room);
    return tcp_->take(nt_, fd, from) == 0;
}

void connection::flush() noexcept {
    tcp_->flush(out);
    if (lost && out.length > 0) tcp_->give_up();
    if (out.length == 0 && out.size > kept_output) core_buf_free(&out);
}

bool connection::second() noexcept {
    unfinished_ = holds_part_ ? unfinished_ + 1 : 0;
    return unfinished_ <= longest_part && tcp_->second() <= longest_stall;
}

void connection::on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept {
    const uint32_t used = server_.take(*this, {reinterpret_cast<const char*>(received->data), received->length});
    core_buf_ignore(received, used);
    if (used > 0) unfinished_ = 0;
    holds_part_ = received->length > 0;
    const bool roomy = received->length == received->size || (roomy_ && received->length > 0);
    if (roomy != roomy_) tcp->set_room(roomy ? largest_room : usual_room);
    roomy_ = roomy;
    server_.settle();
}

void connection::on_tcp_writable(net::Tcp*) noexcept {
    server_.send(*this);
    server_.settle();
}

void connection::on_tcp_closed(net::Tcp*, int) noexcept { server_.remove(*this); }

}  // namespace sip

namespace net {

SipServer::SipServer(nt_ctx* nt, value_t* const* users, const char* file, int line)
    : nt_(nt), file_(file), line_(line), relay_(users, file, line), ending_(nt, this, [](void* of, bool) {
          static_cast<SipServer*>(of)->shut_down();
          return uint64_t{0};
      }) {}

bool SipServer::prepare() noexcept {
    relay_.log = core_log_create(file_, line_, "sip.server");
    if (!relay_.log || !ending_.prepare(file_, line_)) return false;
    net_nt_timer_set(nt_, clock_, 1, this, on_second);
    return clock_ != nullptr;
}

SipServer::~SipServer() { core_log_free(relay_.log); }

void SipServer::listen(unsigned port) noexcept {
    if (net_tcp_create(listener_, nt_, file_, line_) != 0 ||
        net_tcp_listen2(listener_, "0.0.0.0", port, this, on_accept) != 0 ||
        net_socket_get_near_port(listener_->fd) != port) {
        net_tcp_close(listener_);
        return report("sipsrv: port %u is taken, or cannot be listened on", port);
    }
    port_ = port;
    core_log_print(relay_.log, "sipsrv: listen %d", static_cast<int>(port));
}

void SipServer::on_accept(void* arg, int fd, const sockaddr_in* peer) noexcept {
    auto& self = *static_cast<SipServer*>(arg);
    try {
        if (self.accept(fd, *peer)) return;
    } catch (const std::bad_alloc&) {
        core_log_err("sip server: out of memory");
    }
    net_socket_close(fd);
}

/// @return false when the descriptor is still the caller's
bool SipServer::accept(int fd, const sockaddr_in& peer) {
    connections_.reserve(connections_.size() + 1);
    relay_.expect(connections_.size() + 1);
    core::owned_object<sip::connection> made = make_connection();
    // The places are also those of viewers and calls: strangers have a few of them.
    const auto is_stranger = [](const auto& each) { return !each->user; };
    const bool many = std::ranges::count_if(connections_, is_stranger) >= sip::most_strangers;
    const auto oldest = std::ranges::find_if(connections_, is_stranger);
    if (made && (many || !made->has_place()) && oldest != connections_.end()) {
        remove(**oldest);
        made.reset();  // and with it a place that it counted as too many
        made = make_connection();
    }
    if (!made || !made->has_place() || !made->open(fd, peer, file_, line_)) return false;
    connections_.push_back(std::move(made));
    return true;
}

core::owned_object<sip::connection> SipServer::make_connection() noexcept {
    return core::owned_object<sip::connection>(core::create<sip::connection>(file_, line_, *this, nt_));
}

void SipServer::on_second(void* arg, timer_ctx*) noexcept {
    auto& self = *static_cast<SipServer*>(arg);
    for (size_t i = self.connections_.size(); i-- > 0;)
        if (sip::connection& each = *self.connections_[i]; !each.second()) {
            each.lost = true;
            each.flush();
            self.remove(each);
        }
}

void SipServer::send(sip::connection& to) noexcept {
    to.flush();
    if (to.out.length == 0) relay_.catch_up(to);
}

void SipServer::settle() noexcept {
    auto& waiting = relay_.waiting();
    while (!waiting.empty()) {
        auto& next = static_cast<sip::connection&>(*waiting.back());
        waiting.pop_back();
        next.waits = false;
        send(next);
        if (next.lost) remove(next);
    }
}

void SipServer::remove(sip::connection& gone) noexcept {
    relay_.forget(gone);
    std::erase_if(connections_, [&](const auto& each) { return each.get() == &gone; });
}

void SipServer::shut_down() noexcept {
    net_nt_timer_set(nt_, clock_, 0, this, on_second);
    net_tcp_close(listener_);
    while (!connections_.empty())
        remove(*connections_.back());
}

}  // namespace net
