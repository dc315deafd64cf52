// Registrations, and the presence of others.
#include "sip/agent.h"

#include "common/xml.h"

#include <algorithm>
#include <cstring>

namespace net {

void Sip::register_account(sip_account& account) {
    while (sip_request* const old = open_registration(account))
        end(*old);
    send(ask(account, *account.registration, nullptr, "REGISTER",
             sip::join({"Expires: ", sip::number_text(account.expires), "\r\n"}), {}));
}

sip_request* Sip::open_registration(const sip_account& account) noexcept {
    const auto found = std::ranges::find_if(requests, [&](const auto& each) {
        return !each->gone && each->session == account.registration && std::strcmp(each->method, "REGISTER") == 0;
    });
    return found == requests.end() ? nullptr : found->get();
}

void Sip::contacts(sip_account& account) {
    send(ask(account, *account.registration, nullptr, "SUBSCRIBE", sip::text("Contact: *\r\n"), {}));
}

void Sip::subscribe(sip_account& account, std::string_view user, bool wanted) {
    sip_session& session = *account.subscriber;
    const auto found = std::ranges::find_if(session.users, [&](const sip_user* each) { return each->name == user; });
    sip_user* party = found == session.users.end() ? nullptr : *found;
    if (!party && !wanted) return;
    if (!party) party = &add_user(session, user, {});
    party->subscription = true;
    send(ask(account, session, party, "SUBSCRIBE",
             sip::join({"Expires: ", wanted ? "3600" : "0", "\r\nEvent: presence\r\nAccept: application/pidf+xml\r\n"}),
             {}));
}

void Sip::take_notify(sip_account& account, std::string_view body) {
    constexpr int room = 256;
    char note[room] = {};
    char id[room] = {};
    const core::owned<node, roxml_close> document(
        roxml_load(body.data(), static_cast<unsigned>(body.size()), nullptr, 0));
    node* const presence = roxml_get_chld(document.get(), "presence", 0);
    if (node* const said = roxml_get_chld(presence, "note", 0)) roxml_get_content(said, note, room, nullptr);
    const char* const tuple = roxml_get_attr(roxml_get_chld(presence, "tuple", 0), "id");
    if (tuple) std::strncpy(id, tuple, room - 1);
    core_con_printf(0, "NOTIFY: %s - %s", id, note);
    tell_account(&account, sip_account_notified, sip::text(body).c_str());
}

}  // namespace net
