// What peers ask. Each request is kept with its answer until it cannot come again (RFC 3261, 17.2).
#include "scan.h"
#include "sip/agent.h"

#include "core/time.h"

#include <algorithm>
#include <cstring>

namespace sip {

int read_digit(std::string_view type, std::string_view body) noexcept {
    constexpr std::string_view digits = "0123456789*#ABCD";
    type = scan::trim(type.substr(0, type.find(';')), " \t");
    if (scan::same_name(type, "application/dtmf")) {
        if (const auto code = scan::number(body)) return static_cast<int>(std::min<uint32_t>(*code, 0x7fffffff));
        body = scan::trim(body, scan::spaces);  // some send the character
        return body.size() == 1 ? static_cast<int>(digits.find(body[0])) : -1;
    }
    if (!scan::same_name(type, "application/dtmf-relay")) return -1;
    const size_t at = body.find("Signal");
    if (at == std::string_view::npos) return -1;
    const std::string_view signal = scan::skip(body.substr(at + 6), " \t=");
    const size_t code = signal.empty() ? std::string_view::npos : digits.find(signal[0]);
    return code == std::string_view::npos ? -1 : static_cast<int>(code);
}

}  // namespace sip

namespace net {

namespace {

bool is(const char* method, const char* name) noexcept { return std::strcmp(method, name) == 0; }

}  // namespace

/// Without a record: the request is answered anew when it comes again.
void Sip::reply(const sip_account& account, const sip::header_t& header, unsigned status, const sockaddr_in& from) {
    if (account.wire && sip::top_via(header).good)
        account.wire->send(print_answer(account, header, status, from, {}, {}), &from);
}

bool Sip::is_in_call(const sip_account& account, const sip::header_t& header) noexcept {
    sip_session* const session = find_session(account, sip::field(header, "Call-ID"));
    const sip_user* const user = session ? find_user(*session, header) : nullptr;
    return user && user->established;
}

/// Whether a request may have a record. A flood of strangers leaves room for the server and for those in a call, a
/// flood of these leaves room for the end of a call.
bool Sip::has_room(const sip_account& account, const sip::header_t& header, const char* method,
                   const sockaddr_in& from) noexcept {
    if (requests.size() < sip::most_requests / 2) return true;
    const bool full = requests.size() >= sip::most_requests;
    if (!full && !account.open_server && account.wire && account.wire->is_server(from)) return true;
    return (!full || is(method, "BYE")) && is_in_call(account, header);
}

sip_request& Sip::add_theirs(sip_account& account, sip::owned_header header, const char* method,
                             const sockaddr_in& from) {
    core::owned_object<sip_request> made = sip::make<sip_request>(*this);
    const sip::via_t via = sip::top_via(*header);
    made->agent = this;
    made->account = &account;
    made->method = method;
    made->incoming = true;
    made->branch = via.branch;
    made->sent_by = via.host;
    made->call_id = sip::field(*header, "Call-ID");
    made->from_tag = sip::tag_of(sip::field(*header, "From"));
    made->from = from;
    made->ends_at = core_timer() + sip::t_end;
    std::string_view ignored;
    sip::read_cseq(*header, made->cseq, ignored);
    made->header = std::move(header);
    sip_request& request = *made;
    requests.push_back(std::move(made));
    core_log_print(log, "create dialog: %s, branch:%s ses:%s", method, request.branch.c_str(), request.call_id.c_str());
    return request;
}

void Sip::take_request(sip_account& account, sip::owned_header header, std::string_view body, unsigned fault,
                       const sockaddr_in& from) {
    const char* const method = sip::known_method(scan::text(header->method));
    if (is(method, "REGISTER")) return;
    if (is(method, "ACK")) return take_ack(account, *header, body);
    if (sip_request* const known = find_theirs(*header, method)) {
        if (account.wire && !known->bytes.empty()) account.wire->send(known->bytes, &from);
        return;
    }
    if (is(method, "UNKNOWN") || is(method, "SUBSCRIBE")) {
        core_log_print(log, "%s - не реализован", method);
        core_con_printf(0, "sip: %s - не реализован", method);
        return;
    }
    // That of a relay may name no way back: it is told, and cannot be answered.
    if (is(method, "NOTIFY") && sip::field(*header, "Via").empty()) return take_notify(account, body);
    if (fault == 0) fault = sip::fault_of(*header);
    if (fault == 0 && is(method, "OPTIONS")) {
        core_con_printf(0, "проверка связи");
        return reply(account, *header, 200, from);
    }
    if (fault == 0 && !has_room(account, *header, method, from)) fault = 503;
    if (fault != 0) return reply(account, *header, fault, from);

    sip_request& request = add_theirs(account, std::move(header), method, from);
    try {
        act(request, body);
    } catch (const std::bad_alloc&) {
        // Not to be taken for one that was acted on when it comes again. A call ends by its time.
        if (request.bytes.empty() && !is(method, "INVITE")) end(request);
        throw;
    }
}

void Sip::act(sip_request& request, std::string_view body) {
    const char* const method = request.method;
    if (is(method, "INVITE")) return take_invite(request, body);
    if (is(method, "BYE")) return take_bye(request);
    if (is(method, "CANCEL")) return take_cancel(request);
    if (is(method, "INFO")) return take_info(request, body);
    if (is(method, "NOTIFY")) take_notify(*request.account, body);
    if (is(method, "MESSAGE")) core_con_printf(0, "СООБЩЕНИЕ: %.*s", static_cast<int>(body.size()), body.data());
    answer(request, 200);
}

// That of a refusal belongs to the INVITE, which has its branch; that of a 200 to the call.
void Sip::take_ack(sip_account& account, const sip::header_t& header, std::string_view body) {
    core_con_printf(0, "связь установлена");
    sip_request* const refused = find_theirs(header, "INVITE");
    if (refused && refused->status >= 300) {
        refused->resend_at = 0;
        // Then it has ended: a server that hunts may ring here again (RFC 3261, 17.2.1).
        refused->ends_at = core_timer() + (account.transport == sip_udp ? sip::t4 : 0);
        return;
    }
    sip_session* const session = find_session(account, sip::field(header, "Call-ID"));
    sip_user* const user = session ? find_user(*session, header) : nullptr;
    if (!user) return;
    uint32_t number = 0;
    std::string_view ignored;
    sip::read_cseq(header, number, ignored);
    const auto same = std::ranges::find_if(requests, [&](const auto& each) {
        return each->user == user && each->incoming && each->answered && each->cseq == number;
    });
    sip_request* const invite = same == requests.end() ? user->invite : same->get();
    if (!invite || !invite->incoming || !invite->answered || number < invite->cseq) return;
    invite->resend_at = 0;
    invite->user = nullptr;
    if (user->invite == invite) user->invite = nullptr;
    // An INVITE without an offer is answered with one, which its ACK answers (RFC 3261, 13.2.1).
    if (!invite->has_offer && !body.empty()) user->media.start(sip::read_description(body), user->own);
}

/// Whether an INVITE has come here by another way already (RFC 3261, 8.2.2.2).
bool Sip::came_before(const sip_request& request) const noexcept {
    return std::ranges::any_of(requests, [&](const auto& each) {
        return each.get() != &request && !each->gone && each->incoming && each->account == request.account &&
               is(each->method, "INVITE") && each->cseq == request.cseq && each->call_id == request.call_id &&
               each->from_tag == request.from_tag;
    });
}

void Sip::take_invite(sip_request& request, std::string_view body) {
    sip_account& account = *request.account;
    const std::string_view from = sip::field(*request.header, "From");
    sip_session* session = find_session(account, request.call_id);
    sip_user* user = session ? find_user(*session, *request.header) : nullptr;
    if (user && user->established) {  // the call is set up anew (RFC 3261, 14)
        request.has_offer = !body.empty();
        request.user = user;
        user->invite = &request;
        sip::text target = sip::way_of(*request.header, false).target;
        if (!target.empty()) user->way.target = std::move(target);  // RFC 3261, 12.2.2
        return answer(request, 200, "application/sdp", answer_media(*user, body));
    }
    const bool inside = !sip::tag_of(sip::field(*request.header, "To")).empty();
    if (user || (!inside && came_before(request))) return answer(request, 482);
    if (inside) return answer(request, 481);
    if (ringing() >= sip::most_ringing || calls() >= sip::most_calls) return answer(request, 486);
    request.offer = body;
    request.has_offer = !body.empty();
    sip::way_t way = sip::way_of(*request.header, false);
    if (!session) session = &add_session(account, request.call_id);
    request.session = session;
    user = &add_user(*session, sip::user_of(from), request.from_tag);
    user->way = std::move(way);
    request.user = user;
    user->invite = &request;
    core_con_printf(0, "sip: меня вызвали");
    answer(request, 180);
    tell(user, sip_call_incoming);
}

// A Call-ID that was never heard of is a call that ends; one of ours with other tags is none of the peer's.
void Sip::take_bye(sip_request& request) {
    core_con_printf(0, "связь остановлена");
    const bool known = std::ranges::any_of(sessions, [&](const auto& each) {
        return each->account == request.account && each->call_id == request.call_id;
    });
    sip_session* session = find_session(*request.account, request.call_id);
    sip_user* user = session ? find_user(*session, *request.header) : nullptr;
    if (known && !session) return answer(request, 200);  // it was ended here, too
    if (known && !user) return answer(request, 481);
    if (!user) {
        session = &add_session(*request.account, request.call_id);
        user = &add_user(*session, sip::user_of(sip::field(*request.header, "From")), request.from_tag);
    }
    answer(request, 200);
    sip_request* const waits = user->invite;
    if (waits && waits->incoming && !waits->answered) {
        answer(*waits, 487);
        waits->user = nullptr;
        user->invite = nullptr;
    }
    finish(*user, sip_call_ended);
}

// Both are answered (RFC 3261, 9.2): the CANCEL, and the INVITE that it cancels.
void Sip::take_cancel(sip_request& request) {
    core_con_printf(0, "связь прервана");
    sip_request* const invite = find_theirs(*request.header, "INVITE");
    if (!invite || invite->from_tag != request.from_tag) return answer(request, 481);
    answer(request, 200);
    sip_user* const user = invite->user;
    if (invite->answered || !user) return;
    answer(*invite, 487);
    invite->user = nullptr;
    user->invite = nullptr;
    finish(*user, sip_call_ended);
}

void Sip::take_info(sip_request& request, std::string_view body) {
    core_con_printf(0, "ИНФО: %.*s", static_cast<int>(body.size()), body.data());
    const std::string_view type = sip::field(*request.header, "Content-Type");
    sip_session* session = find_session(*request.account, request.call_id);
    sip_user* user = session ? find_user(*session, *request.header) : nullptr;
    if (session && !user) return answer(request, 481);
    answer(request, 200);
    const bool digit = scan::same_name(type.substr(0, 16), "application/dtmf");
    if (!digit || !info.on_dtmf || closing) return;
    const bool passing = !user;
    if (passing)
        user = &add_user(add_session(*request.account, request.call_id),
                         sip::user_of(sip::field(*request.header, "From")), request.from_tag);
    info.on_dtmf(info.user, user, sip::read_digit(type, body));
    if (passing && !user->gone) drop(*user);
}

}  // namespace net
