// What peers answer.
#include "auth/challenge.h"
#include "scan.h"
#include "sip/agent.h"

#include "core/text.h"
#include "core/time.h"
#include "inet/net_http_auth.h"

#include <cstring>
#include <utility>

namespace net {

namespace {

bool is(const sip_request& request, const char* method) noexcept { return std::strcmp(request.method, method) == 0; }

constexpr uint32_t longest_registration = 24 * 3600;

struct stamp {
    stamp() noexcept { time_format(time_now(), "%Y-%m-%d %H:%M:%S,%s", text, sizeof text); }
    char text[64];
};

/// Whether a refusal inside a call says that the other end is not there, or does not know the call (RFC 3261,
/// 12.2.1.2). A digit that is refused ends none.
bool ends_call(const sip_request& request, unsigned status) noexcept {
    if (is(request, "OPTIONS") && (status == 404 || status == 480)) return true;
    return (is(request, "OPTIONS") || is(request, "INFO")) && (status == 481 || status == 408);
}

/// The answer to the challenges of a response: the first that can be computed; null for none.
core::owned_text answer_to(const sip_request& request, const sip::header_t& header, const char* challenges) {
    const sip_account& account = *request.account;
    const sip::text uri = sip::uri_of(request);
    sip::owned_header offered(http_header_respond("SIP/2.0", 401, ""));
    const char* first = nullptr;
    for (value_t* const* each = header.fields; offered && each && *each; ++each) {
        if (!sip::is_named((*each)->key, challenges)) continue;
        if (!first) first = (*each)->value;
        http_header_put(offered.get(), "WWW-Authenticate", (*each)->value);
    }
    if (!first) return nullptr;
    auth::challenge challenge;
    if (offered && challenge.take(offered.get()))
        return challenge.answer(account.user, account.password, request.method, uri, request.body);
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
        if (core_log_wanted(log))
            core_log_print(log, "sip:%s %d branch:%.*s - неизвестная транзакция", stamp().text,
                           static_cast<int>(header.status), static_cast<int>(via.branch.size()), via.branch.data());
        return;
    }
    const unsigned status = header.status;
    const std::string_view tag = sip::tag_of(sip::field(header, "To"));
    if (!request->ack.empty()) return take_again(*request, header, tag);
    if (request->user && request->user->remote_tag.empty()) request->user->remote_tag = tag;
    if (is(*request, "INVITE") && request->remote_tag.empty()) request->remote_tag = tag;

    if (status == 401 || status == 407) return take_challenge(*request, header, head);
    if (status < 200) return take_provisional(*request, header, body);
    if (status < 300) return take_success(*request, header, body);
    take_refusal(*request, header);
}

// The ACK was lost, or another one has taken the call as well.
void Sip::take_again(sip_request& invite, const sip::header_t& header, std::string_view tag) {
    const unsigned status = header.status;
    if (status < 200 || !invite.account->wire) return;
    if (status < 300 && tag != invite.remote_tag) return leave(invite, tag, sip::way_of(header, true));
    invite.account->wire->send(invite.ack, nullptr);
    // Lost twice, or it does not get there.
    if (++invite.repeated > 1 && status < 300 && !invite.way.target.empty())
        invite.account->wire->send(print_ack(invite, invite.remote_tag, true), nullptr);
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
    const bool stale = request.credentials_name && request.stale > 0;
    if (request.credentials_name && (stale || request.challenged == head)) {
        // A copy of the datagram that was answered, or the same refusal once more: what comes next tells. Nor can a
        // refusal be told from the challenge of a copy that we sent before the first challenge came.
        request.stale -= stale;
        request.doubted = true;
        request.ends_at = std::min(request.ends_at, core_timer() + (stale ? sip::last_try_time : sip::t1));
        return;
    }
    const core::owned_text credentials =
        request.credentials_name ? nullptr
                                 : answer_to(request, header, proxy ? "Proxy-Authenticate" : "WWW-Authenticate");
    const bool invite = is(request, "INVITE");
    if (!credentials || (invite && request.abandoned)) return give_up(request);
    request.credentials_name = proxy ? "Proxy-Authorization" : "Authorization";
    request.credentials = credentials.get();
    request.challenged = head;
    const bool begins = invite || is(request, "SUBSCRIBE");
    request.stale = request.resent;
    if (begins || request.account->renews) renew_branch(request);
    if (begins) request.remote_tag.clear();
    if (begins && request.user) request.user->remote_tag.clear();
    request.provisional = false;
    request.reliable = 0;
    send(request);
}

/// Its credentials were refused.
void Sip::give_up(sip_request& request) {
    core_log_print(log, "sip: Authentication failed");
    sip_user* const user = request.user;
    end(request);
    if (is(request, "INVITE") && user) return finish(*user, sip_call_unauthorized);
    if (is(request, "SUBSCRIBE") && user) user->remote_tag.clear();  // the next one begins anew
    if (is(request, "REGISTER") || is(request, "SUBSCRIBE")) tell(user, sip_call_unauthorized);
}

void Sip::take_provisional(sip_request& request, const sip::header_t& header, std::string_view body) {
    const unsigned status = header.status;
    if (is(request, "INVITE")) {
        const bool first = !std::exchange(request.provisional, true);
        if (first && !request.abandoned) request.ends_at = core_timer() + sip::ring_time;
        request.resend_at = 0;
        acknowledge_provisional(request, header);
        if (request.abandoned) return request.cancelled ? void() : cancel(request);
        if (!body.empty()) {
            request.early = body;
            request.early_tag = sip::tag_of(sip::field(header, "To"));
        }
        if (status != 180 && status != 183) return;
        core_con_printf(0, "sip: идёт вызов");
        return tell(request.user, sip_call_ringing);
    }
    request.interval = sip::t2;  // RFC 3261, 17.1.2.2
    if (status != 100 || !is(request, "REGISTER")) return;
    core_con_printf(0, "sip: поиск абонента: %s", request.account->user.c_str());
    tell(nullptr, sip_call_searching);
}

// Who sends a provisional answer reliably (RFC 3262), as we say to support, sends it until PRACK comes.
void Sip::acknowledge_provisional(sip_request& invite, const sip::header_t& header) {
    const uint32_t number = scan::decimal(sip::field(header, "RSeq"));
    const std::string_view tag = sip::tag_of(sip::field(header, "To"));
    if (number == 0 || sip::field(header, "Require").find("100rel") == std::string_view::npos) return;
    const bool next = invite.reliable == 0 || tag != invite.reliable_tag || number == invite.reliable + 1;
    if (!next || !may_ask(invite, "PRACK")) return;
    invite.reliable = number;
    invite.reliable_tag = tag;
    sip_request& request =
        ask(*invite.account, *invite.session, nullptr, "PRACK",
            sip::join({"RAck: ", sip::number_text(number), " ", sip::number_text(invite.cseq), " INVITE\r\n"}), {});
    request.peer = invite.peer;
    request.remote_tag = tag;
    request.way = sip::way_of(header, true);
    send(request);
}

void Sip::take_success(sip_request& request, const sip::header_t& header, std::string_view body) {
    sip_account& account = *request.account;
    account.renews = account.renews || request.renewed;
    if (is(request, "INVITE")) return take_answer(request, header, body);
    if (is(request, "REGISTER")) {
        const sip::via_t via = sip::top_via(header);
        const uint32_t port = scan::decimal(via.rport);
        if (sip::read_dotted(via.received).s_addr != 0) account.contact_address = via.received;
        if (port > 0 && port <= 65535) account.contact_port = sip::number_text(port);
        core_con_printf(2, "sip: регистрация %s@%s успешна: %s", account.user.c_str(), account.server.c_str(),
                        account.contact_address.c_str());
        account.due = core_timer() + 30 * sip::second;
        end(request);
        return tell_account(account.registration, sip_account_registered, nullptr);
    }
    const bool ends = is(request, "SUBSCRIBE") && std::string_view(request.extra).starts_with("Expires: 0");
    if (ends && request.user) request.user->remote_tag.clear();  // the next one begins anew
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
    invite.way = sip::way_of(header, true);
    sip_user* const user = invite.user;
    if (!user) {  // too late: its call was ended here
        leave(invite, invite.remote_tag, invite.way);
        invite.ack = print_ack(invite, invite.remote_tag);
        return complete(invite);
    }
    user->remote_tag = invite.remote_tag;
    user->way = invite.way;
    // What a 1xx has agreed on need not be said again.
    const bool early = body.empty() && invite.early_tag == std::string_view(invite.remote_tag);
    user->media.start(sip::read_description(early ? std::string_view(invite.early) : body), user->own);
    send_ack(invite);
    complete(invite);
    establish(*user);
    tell(user, sip_call_answered);
}

void Sip::take_refusal(sip_request& request, const sip::header_t& header) {
    const unsigned status = header.status;
    const bool invite = is(request, "INVITE");
    const bool unrouted = status == 404 || status == 480 || status == 482 || status == 483;
    if (unrouted && !invite && !request.by_way && !request.way.target.empty()) return send_by_way(request);
    if (invite) {
        request.remote_tag = sip::tag_of(sip::field(header, "To"));  // RFC 3261, 17.1.1.3
        send_ack(request);
    }
    // Who does not know CANCEL lets it ring on: whoever takes it then is to be told.
    sip_request* const rings = is(request, "CANCEL") ? find_ours(request.branch, "INVITE") : nullptr;
    if (rings && rings->ack.empty()) rings->ends_at = core_timer() + sip::ring_time;
    uint32_t event = sip_call_failed;
    if (status == 404) {
        core_con_printf(1, "sip: абонент не найден");
    } else if (status == 480 || status == 481) {
        core_con_printf(1, "sip: абонент недоступен");
    } else if (status == 486) {
        core_con_printf(1, "sip: абонент занят. перезвоните позже");
        event = sip_call_busy;
    } else if (core_log_wanted(log)) {
        core_log_print(log, "sip:%s %s: %d %s", stamp().text, request.method, static_cast<int>(status),
                       sip::reason(status));
    }
    sip_user* const user = request.user;
    const bool over = invite || ends_call(request, status);
    const bool told = is(request, "REGISTER") || is(request, "SUBSCRIBE");
    if (is(request, "SUBSCRIBE") && user) user->remote_tag.clear();  // of a subscription that is no more
    complete(request);
    if (told) tell(user, event);
    // RFC 3261, 10.2.8. It grows, so that this ends.
    const uint32_t least = scan::decimal(sip::field(header, "Min-Expires"));
    sip_account& account = *request.account;
    if (status == 423 && is(request, "REGISTER") && least > account.expires && least <= longest_registration) {
        account.expires = least;
        register_account(account);
    }
    if (over && user) finish(*user, event);
}

}  // namespace net
