// Accounts and their transports: opened, refreshed, lost, opened again; and received bytes on their way to messages.
#include "sip/agent.h"
#include "sip/framing.h"

#include "common/digest.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <utility>

namespace net {

namespace {

constexpr uint64_t refresh_time = 30 * sip::second;
constexpr uint64_t connect_time = 10 * sip::second;
constexpr uint64_t reopen_time = 2 * sip::second;
/// The look-up of a name that is not found takes its time each time. The next one is this many times as far away: the
/// thread has more to do.
constexpr uint64_t slowness = 10;

}  // namespace

sip_account* Sip::add_account(int transport, const char* user, const char* password, const char* server, uint32_t port,
                              const char* asked_in, int asked_at) {
    core::owned_object<sip_account> made(core::create<sip_account>(asked_in, asked_at));
    if (!made) throw std::bad_alloc();
    made->agent = this;
    made->user = user;
    made->password = password ? password : "";
    made->server = server;
    if (port) made->port = port;
    made->transport = transport;
    const core::owned_text tag(common_srand(8, file, line));
    if (!tag) throw std::bad_alloc();
    made->local_tag = tag.get();
    sip_account& account = *made;
    accounts.reserve(accounts.size() + 1);
    account.registration = &add_session(account, own_call_id("register"));
    account.subscriber = &add_session(account, own_call_id("subscriber"));
    account.registration->permanent = account.subscriber->permanent = true;
    accounts.push_back(std::move(made));
    guarded([&] { open_transport(account); });
    return &account;
}

void Sip::open_transport(sip_account& account) {
    const core::owned_text address(net_hostip(file, line));
    account.contact_address = address ? address.get() : "127.0.0.1";
    const uint64_t begun = core_timer();
    account.due = core_timer() + (account.transport == sip_tcp ? connect_time : refresh_time);
    account.wire = make_wire(*this, account);
    if (!account.wire) {
        const uint64_t now = core_timer();
        account.due = now + std::max(reopen_time, slowness * (now - begun));
        return;
    }
    account.contact_port = sip::number_text(account.wire->local_port());
    if (account.wire->is_up()) connected(account);
}

void Sip::connected(sip_account& account) {
    if (!account.wire) return;
    account.connected = true;
    account.contact_port = sip::number_text(account.wire->local_port());
    if (account.transport == sip_tcp) {
        // The connection is found by it: that of another interface would lead nowhere.
        const in_addr near = account.wire->local_address();
        if (near.s_addr != 0) account.contact_address = sip::dotted(near);
        account.due = core_timer() + refresh_time;
        core_con_printf(0, "sip connected...");
    } else {
        core_con_printf(0, "sip connected... %s:%d", account.server.c_str(), static_cast<int>(account.port));
    }
    register_account(account);
    if (account.transport == sip_tcp) say_again(account);
}

/// Where a peer that is not known yet finds the media of a call: the address of the account, unless nobody outside of
/// this host gets there, as the server is on it.
in_addr Sip::media_address(const sip_account& account) const {
    if (account.near_media.s_addr != 0) return account.near_media;
    const in_addr near = sip::read_dotted(account.contact_address);
    if (!sip::is_loopback(near)) return near;
    const core::owned_text address(net_hostip(file, line));
    return address ? sip::read_dotted(address.get()) : near;
}

/// Where a peer finds the media of a call: the address of the account's socket, unless the server is on this host and
/// the peer is not.
in_addr Sip::media_address(const sip_account& account, in_addr peer) const {
    in_addr near = account.wire ? account.wire->local_address() : in_addr{};
    if (sip::is_loopback(near) && peer.s_addr == 0) return media_address(account);
    if (sip::is_loopback(near) && !sip::is_loopback(peer)) near = sip::near_to(peer);
    return near.s_addr != 0 ? near : sip::read_dotted(account.contact_address);
}

/// @param lost  else it was closed by the owner
void Sip::close_transport(sip_account& account, bool lost) {
    if (!account.wire) return;
    old_wires.reserve(old_wires.size() + 1);
    account.due = lost && account.reconnect ? core_timer() + reopen_time : 0;
    account.connected = false;
    account.wire->stop();
    old_wires.push_back(std::move(account.wire));
    account.wire.reset();
    for (const auto& each : requests)
        if (each->account == &account && each->incoming) each->resend_at = 0;
    tell_account(&account, sip_account_closed, nullptr);
    if (lost) core_con_printf(0, "sip disconnected... from: %s", account.server.c_str());
}

void Sip::account_due(sip_account& account) {
    account.due = core_timer() + reopen_time;  // should memory be out
    // A connection over which no answer came since the last time is dead.
    if (account.connected && account.transport == sip_tcp && open_registration(account))
        return close_transport(account, true);
    if (account.connected) {
        const uint64_t begun = core_timer();
        if (open_registration(account)) account.wire->seek();  // its name may stand for another address by now
        account.due = core_timer() + std::max(refresh_time, slowness * (core_timer() - begun));
        return register_account(account);
    }
    close_transport(account, false);
    if (account.reconnect) open_transport(account);
}

void Sip::take_datagram(sip_account& account, std::string_view bytes, const sockaddr_in& from) noexcept {
    const work running_here(*this);
    while (account.wire && !bytes.empty()) {
        const sip::piece_t piece = sip::cut(bytes, true);
        if (piece.what == sip::cut_t::more || piece.what == sip::cut_t::broken) return;
        bytes.remove_prefix(piece.used);
        if (piece.what == sip::cut_t::skipped) continue;
        const unsigned fault = piece.short_body || piece.bad_length ? 400 : 0;
        guarded([&] { take_message(account, piece.head, piece.body, fault, from); });
    }
}

uint32_t Sip::take_stream(sip_account& account, std::string_view bytes, const sockaddr_in& from) noexcept {
    const work running_here(*this);
    const sip::piece_t piece = sip::cut(bytes, false);
    if (piece.what == sip::cut_t::message) {
        // Where the next message begins is not known behind a length that is none.
        guarded([&] { take_message(account, piece.head, piece.body, piece.bad_length ? 400 : 0, from); });
    }
    if (piece.what == sip::cut_t::broken || piece.bad_length) {
        guarded([&] { close_transport(account, true); });
        return 0;
    }
    return piece.used;
}

void Sip::take_message(sip_account& account, std::string_view head, std::string_view body, unsigned fault,
                       const sockaddr_in& from) {
    sip::owned_header header = sip::read(head);
    if (!header->method && header->status == 0) {
        core_log_print(log, "sip header parse failed:\n%.*s", static_cast<int>(head.size()), head.data());
        core_con_printf(0, "sip header parse failed:\n%.*s", static_cast<int>(head.size()), head.data());
        return;
    }
    if (core_log_wanted(log)) {
        const auto whole = static_cast<int>(head.size() + body.size());
        core_log_print(log, "in:\n%.*s", whole, head.data());  // the body stands behind the head
    }
    const bool too_many = value_count(header->fields) > sip::most_fields;
    if (header->status != 0) return too_many ? void() : take_response(account, *header, head, body);
    if (too_many || !sip::is_request_line(head)) fault = 400;
    take_request(account, std::move(header), body, fault, from);
}

}  // namespace net
