// Sessions and users: who belongs to which Call-ID, and when their records go.
#include "scan.h"
#include "sip/agent.h"

#include "common/digest.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <utility>

namespace sip {

// The proxies nearest to who answers stand first.
way_t way_of(const header_t& header, bool answered) {
    way_t way;
    uint32_t proxies = 0;
    const std::string_view contact = field(header, "Contact");
    if (!place_of(contact).empty()) way.target = uri_of(contact);
    for (value_t* const* each = header.fields; each && *each; ++each) {
        if (!is_named((*each)->key, "Record-Route")) continue;
        for (std::string_view rest = scan::text((*each)->value); !rest.empty();) {
            const std::string_view proxy = scan::trim(scan::take(rest, ','), " \t");
            if (proxy.empty() || ++proxies > most_proxies) continue;
            text route;
            put(route, "Route", {proxy});
            way.routes = answered ? route + way.routes : way.routes + route;
        }
    }
    return way;
}

}  // namespace sip

namespace net {

Sip::Sip(const sip_info& wanted, const char* made_in, int made_at)
    : info(wanted), file(made_in), line(made_at), packets(made_in, made_at), make_wire(sip::open_wire) {
    const core::owned_text name(net_hostname(file, line));
    host = name ? name.get() : "localhost";
    scratch.resize(65536);
    log = core_log_create(file, line, "sip");
    commands = core_cmd_open(this, file, line);
}

Sip::~Sip() {
    closing = true;
    net_nt_command_destroy(clock);
    for (const auto& each : accounts)
        if (each->wire) each->wire->stop();
    for (const auto& each : users)
        each->media.stop();
    core_cmd_close(commands);
    core_log_free(log);
}

sip::text Sip::own_call_id(std::string_view prefix) const { return sip::join({prefix, "@", host}); }

sip_session& Sip::add_session(sip_account& account, sip::text call_id) {
    core::owned_object<sip_session> made = sip::make<sip_session>(*this);
    made->agent = this;
    made->account = &account;
    made->call_id = std::move(call_id);
    sessions.push_back(std::move(made));
    return *sessions.back();
}

sip_session* Sip::find_session(const sip_account& account, std::string_view call_id) noexcept {
    const auto found = std::ranges::find_if(sessions, [&](const auto& each) {
        return !each->gone && !each->permanent && each->account == &account && each->call_id == call_id;
    });
    return found == sessions.end() ? nullptr : found->get();
}

sip_user& Sip::add_user(sip_session& session, std::string_view name, std::string_view remote_tag) {
    core::owned_object<sip_user> made = sip::make<sip_user>(*this);
    made->agent = this;
    made->account = session.account;
    made->session = &session;
    made->name = name;
    made->remote_tag = remote_tag;
    session.users.reserve(session.users.size() + 1);
    users.push_back(std::move(made));
    session.users.push_back(users.back().get());
    return *users.back();
}

// By name only where the peer's tag is not known yet: a guessed Call-ID and a name end no call.
sip_user* Sip::find_user(sip_session& session, const sip::header_t& header) noexcept {
    const std::string_view from = sip::field(header, "From");
    const std::string_view tag = sip::tag_of(from);
    const std::string_view ours = sip::tag_of(sip::field(header, "To"));
    if (!ours.empty() && ours != session.account->local_tag) return nullptr;
    for (sip_user* each : session.users)
        if (!each->gone && !each->remote_tag.empty() && each->remote_tag == tag &&
            (!each->established || !ours.empty()))
            return each;
    for (sip_user* each : session.users)
        if (!each->gone && each->remote_tag.empty() && !ours.empty() && each->name == sip::user_of(from)) return each;
    return nullptr;
}

/// Takes a user out of its session; the session goes with its last user.
void Sip::drop(sip_user& user) noexcept {
    if (user.gone) return;
    user.gone = true;
    user.media.stop();
    for (const auto& each : requests) {
        if (each->user != &user) continue;
        each->user = nullptr;
        each->abandoned = each->abandoned || (!each->incoming && each->ack.empty() && each.get() == user.invite);
        if (each->incoming && each->answered) each->resend_at = 0;
    }
    user.invite = nullptr;
    sip_session* const session = user.session;
    user.session = nullptr;
    if (!session) return;
    std::erase(session->users, &user);
    drop(*session);
}

void Sip::drop(sip_session& session) noexcept {
    if (session.permanent || !session.users.empty()) return;
    session.gone = true;  // and released when no request needs its Call-ID
}

void Sip::tell(sip_user* user, uint32_t event) noexcept {
    if (info.on_call && !closing) info.on_call(info.user, user, event);
}

/// Tells of the end of a call, once, and takes the user out. The owner may hang up while it is told.
void Sip::finish(sip_user& user, uint32_t event) noexcept {
    if (std::exchange(user.over, true)) return;
    user.established = false;
    user.media.stop();
    tell(&user, event);
    drop(user);
}

void Sip::tell_account(void* object, uint32_t event, const char* said) noexcept {
    if (info.on_account && !closing) info.on_account(info.user, object, event, said);
}

uint32_t Sip::calls() const noexcept {
    return static_cast<uint32_t>(std::ranges::count_if(
        users, [](const auto& each) { return !each->gone && !each->subscription && each->media.is_open(); }));
}

uint32_t Sip::ringing() const noexcept {
    return static_cast<uint32_t>(std::ranges::count_if(
        users, [](const auto& each) { return !each->gone && !each->subscription && !each->established; }));
}

/// Whether what ends a call has not been answered yet, or is still to be sent.
bool Sip::is_ending() const noexcept {
    return std::ranges::any_of(requests, [](const auto& each) {
        const std::string_view method = each->method;
        const bool waits = each->abandoned && !each->cancelled && each->ack.empty();
        return !each->gone && !each->incoming && (method == "BYE" || method == "CANCEL" || waits);
    });
}

void Sip::tick(uint64_t now) noexcept {
    const work running_here(*this);
    for (size_t i = 0; i < accounts.size(); ++i)
        if (sip_account& each = *accounts[i]; each.due != 0 && each.due <= now) guarded([&] { account_due(each); });
    for (size_t i = 0; i < requests.size(); ++i) {
        sip_request& each = *requests[i];
        if (each.gone) continue;
        if (each.ends_at != 0 && each.ends_at <= now) {
            guarded([&] { timed_out(each); });
        } else if (each.resend_at != 0 && each.resend_at <= now) {
            guarded([&] { resend(each, now); });
        }
    }
    for (size_t i = 0; i < users.size(); ++i) {
        sip_user& each = *users[i];
        each.media.tick(now);
        const bool talks = each.established && !each.gone;
        if (talks && std::max(each.media.heard(), each.asked_at) + sip::quiet_time <= now)
            guarded([&] { ask_whether_there(each); });
    }
}

void Sip::bury() noexcept {
    std::erase_if(requests, [](const auto& each) { return each->gone; });
    std::erase_if(users, [](const auto& each) { return each->gone; });
    std::erase_if(sessions, [&](const auto& each) {
        return !each->permanent && each->users.empty() &&
               std::ranges::none_of(requests, [&](const auto& of) { return of->session == each.get(); });
    });
    old_wires.clear();
}

}  // namespace net
