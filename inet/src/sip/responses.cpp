// What peers answer.
#include "auth/challenge.h"
#include "scan.h"
#include "sip/agent.h"

#include "core/text.h"
#include "core/time.h"
#include "inet/net_http_auth.h"

#include <cstring>

namespace net {

namespace {

bool is(const sip_request& request, const char* method) noexcept { return std::strcmp(request.method, method) == 0; }

struct stamp {
    stamp() noexcept { time_format(time_now(), "%Y-%m-%d %H:%M:%S,%s", text, sizeof text); }
    char text[64];
};

/// The answer to the challenges of a response: the first that can be computed; null for none.
core::owned_text answer_to(const sip_request& request, const sip::header_t& header, const char* challenges,
                           const sip::text& uri) {
    const sip_account& account = *request.account;
    sip::owned_header offered(http_header_respond("SIP/2.0", 401, ""));
    const char* first = nullptr;
    for (value_t* const* each = header.fields; offered && each && *each; ++each) {
        if (core_strcasecmp((*each)->key, challenges) != 0) continue;
        if (!first) first = (*each)->value;
        http_header_put(offered.get(), "WWW-Authenticate", (*each)->value);
    }
    if (!first) return nullptr;
    auth::challenge challenge;
    if (offered && challenge.take(offered.get()))
        return challenge.answer(account.user, account.password, request.method, uri);
    return core::owned_text(net_http_authenticate(account.user.c_str(), account.password.c_str(), request.method,
                                                  uri.c_str(), first, CORE_HERE));
}

}  // namespace

void Sip::take_response(sip_account& account, const sip::header_t& header, std::string_view head,
                        std::string_view body) {
    const sip::via_t via = sip::top_via(header);
    uint32_t number = 0;
    std::string_view method;
    sip::read_cseq(header, number, method);
    sip_request* const request = find_ours(via.branch, method);
    if (!request || request->account != &account) {
        core_log_print(log, "sip:%s %d branch:%.*s - неизвестная транзакция", stamp().text,
                       static_cast<int>(header.status), static_cast<int>(via.branch.size()), via.branch.data());
        return;
    }
    const unsigned status = header.status;
    if (!request->ack.empty()) {  // the final answer came again: the ACK was lost
        if (status >= 200 && account.wire) account.wire->send(request->ack, nullptr);
        return;
    }
    const std::string_view tag = sip::tag_of(sip::field(header, "To"));
    if (request->user && request->user->remote_tag.empty()) request->user->remote_tag = tag;
    if (is(*request, "INVITE") && request->remote_tag.empty()) request->remote_tag = tag;

    if (status == 401 || status == 407) return take_challenge(*request, header, head);
    if (status < 200) return take_provisional(*request, status);
    if (status < 300) return take_success(*request, header, body);
    take_refusal(*request, status);
}

// An INVITE stays, for its final answer may come again; the ACK was made.
void Sip::complete(sip_request& request) noexcept {
    if (request.ack.empty()) return end(request);
    request.resend_at = 0;
    request.ends_at = core_timer() + sip::t_end;
    if (request.user && request.user->invite == &request) request.user->invite = nullptr;
    request.user = nullptr;
}

void Sip::take_challenge(sip_request& request, const sip::header_t& header, std::string_view head) {
    const bool proxy = header.status == 407;
    if (request.credentials_name && request.challenged == head) {
        // A copy of the datagram that was answered, or the same refusal once more: what comes next tells.
        request.doubted = true;
        request.ends_at = std::min(request.ends_at, core_timer() + sip::t1);
        return;
    }
    const sip::text uri = sip::join({"sip:", request.peer, request.peer.empty() ? "" : "@", request.account->server});
    const core::owned_text credentials =
        request.credentials_name ? nullptr
                                 : answer_to(request, header, proxy ? "Proxy-Authenticate" : "WWW-Authenticate", uri);
    sip_user* const user = request.user;
    const bool invite = is(request, "INVITE");
    if (!credentials || request.abandoned) {
        core_log_print(log, "sip: Authentication failed");
        if (!request.abandoned) tell(user, sip_call_unauthorized);
        end(request);
        if (invite && user && !user->gone) drop(*user);
        return;
    }
    request.credentials_name = proxy ? "Proxy-Authorization" : "Authorization";
    request.credentials = credentials.get();
    request.challenged = head;
    if (!is(request, "REGISTER")) {
        renew_branch(request);
        request.cseq = 0;
        core_log_print(log, "rebanch dialog: %s, branch:%s ses:%s", request.method, request.branch.c_str(),
                       request.session->call_id.c_str());
    }
    if (invite || is(request, "SUBSCRIBE")) {
        request.remote_tag.clear();
        if (user) user->remote_tag.clear();
    }
    request.provisional = false;
    send(request);
}

void Sip::take_provisional(sip_request& request, unsigned status) {
    if (is(request, "INVITE")) {
        request.provisional = true;
        request.resend_at = 0;
        request.ends_at = core_timer() + sip::ring_time;
        if ((status != 180 && status != 183) || request.abandoned) return;
        core_con_printf(0, "sip: идёт вызов");
        return tell(request.user, sip_call_ringing);
    }
    request.interval = sip::t2;  // RFC 3261, 17.1.2.2
    if (status != 100 || !is(request, "REGISTER")) return;
    core_con_printf(0, "sip: поиск абонента: %s", request.account->user.c_str());
    tell(nullptr, sip_call_searching);
}

void Sip::take_success(sip_request& request, const sip::header_t& header, std::string_view body) {
    sip_account& account = *request.account;
    if (is(request, "INVITE")) return take_answer(request, header, body);
    if (is(request, "REGISTER")) {
        const sip::via_t via = sip::top_via(header);
        if (!via.received.empty()) account.contact_address = via.received;
        if (!via.rport.empty()) account.contact_port = via.rport;
        core_con_printf(2, "sip: регистрация %s@%s успешна: %s", account.user.c_str(), account.server.c_str(),
                        account.contact_address.c_str());
        account.due = core_timer() + 30 * sip::second;
        end(request);
        return tell_account(account.registration, sip_account_registered, nullptr);
    }
    if (is(request, "OPTIONS")) {
        const core::string allowed(sip::field(header, "Allow"));
        core_con_printf(0, "sip: %s@%s поддерживаемые опции:\n%s", account.user.c_str(), account.server.c_str(),
                        allowed.empty() ? "не обнаружено" : allowed.c_str());
    }
    end(request);
}

void Sip::take_answer(sip_request& invite, const sip::header_t& header, std::string_view body) {
    core_con_printf(0, "sip: вызов принят, sdp:\n%.*s", static_cast<int>(body.size()), body.data());
    // Of several that rang, this one has answered (RFC 3261, 13.2.2.4).
    invite.remote_tag = sip::tag_of(sip::field(header, "To"));
    sip_user* const user = invite.user;
    if (!user) {  // too late: its call was ended here
        send_ack(invite);
        sip_request& end_it = ask(*invite.account, *invite.session, nullptr, "BYE", {}, {});
        end_it.peer = invite.peer;
        end_it.remote_tag = invite.remote_tag;
        send(end_it);
        return complete(invite);
    }
    user->remote_tag = invite.remote_tag;
    user->media.start(sip::read_description(body));
    send_ack(invite);
    complete(invite);
    user->established = true;
    tell(user, sip_call_answered);
}

void Sip::take_refusal(sip_request& request, unsigned status) {
    const bool invite = is(request, "INVITE");
    if (invite) send_ack(request);
    uint32_t event = sip_call_failed;
    if (status == 404) {
        core_con_printf(1, "sip: абонент не найден");
    } else if (status == 480 || status == 481) {
        core_con_printf(1, "sip: абонент недоступен");
    } else if (status == 486) {
        core_con_printf(1, "sip: абонент занят. перезвоните позже");
        event = sip_call_busy;
    } else {
        core_log_print(log, "sip:%s %s: %d %s", stamp().text, request.method, static_cast<int>(status),
                       sip::reason(status));
    }
    sip_user* const user = request.user;
    const bool ours = request.abandoned || is(request, "BYE") || is(request, "CANCEL");
    complete(request);
    if (!ours) tell(user, event);
    if (invite && user && !user->gone) drop(*user);
}

}  // namespace net
