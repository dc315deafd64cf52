// Requests: ours until they are answered, and those of peers until they cannot come again (RFC 3261, 17).
#include "scan.h"
#include "sip/agent.h"

#include "common/digest.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <cstring>

namespace sip {

text uri_of(const sip_request& request) {
    if (request.by_way) return request.way.target;
    if (request.peer.empty()) return join({"sip:", request.account->server});
    return join({"sip:", request.peer, "@", request.account->server});
}

}  // namespace sip

namespace net {

namespace {

bool is_invite(const sip_request& request) noexcept { return std::strcmp(request.method, "INVITE") == 0; }

void put_contact(sip::text& to, const sip_account& account) {
    sip::put(to, "Contact",
             {"<sip:", account.user, "@", account.contact_address, ":", account.contact_port,
              account.transport == sip_tcp ? ";transport=tcp>" : ">"});
}

}  // namespace

sip_request& Sip::ask(sip_account& account, sip_session& session, sip_user* user, const char* method, sip::text extra,
                      sip::text body) {
    core::owned_object<sip_request> made = sip::make<sip_request>(*this);
    made->agent = this;
    made->account = &account;
    made->session = &session;
    made->user = user;
    made->method = method;
    if (user) {
        made->peer = user->name;
        made->remote_tag = user->remote_tag;
        made->way = user->way;
    }
    made->extra = std::move(extra);
    made->body = std::move(body);
    made->ends_at = core_timer() + sip::t_end;
    made->branch = new_branch();
    sip_request& request = *made;
    requests.push_back(std::move(made));
    core_log_print(log, "create dialog: %s, branch:%s ses:%s", method, request.branch.c_str(), session.call_id.c_str());
    return request;
}

/// Makes another transaction of it, with the next number.
void Sip::renew_branch(sip_request& request) {
    request.branch = new_branch();
    request.cseq = 0;
    request.stale = 0;
    request.sent_by.clear();
    core_log_print(log, "rebanch dialog: %s, branch:%s ses:%s", request.method, request.branch.c_str(),
                   request.session->call_id.c_str());
}

sip::text Sip::new_branch() const {
    const core::owned_text random(common_srand(8, file, line));
    if (!random) throw std::bad_alloc();
    return sip::join({"z9hG4bK", random.get()});
}

void Sip::render(sip_request& request) {
    const sip_account& account = *request.account;
    const uint32_t port = account.wire ? account.wire->local_port() : 0;
    if (request.sent_by.empty()) request.sent_by = sip::join({account.contact_address, ":", sip::number_text(port)});
    const bool tcp = account.transport == sip_tcp;
    const std::string_view whom = request.peer.empty() ? std::string_view(account.user) : request.peer;
    sip::text out = sip::join({request.method, " ", sip::uri_of(request), " SIP/2.0\r\n"});
    sip::put(out, "Via", {"SIP/2.0/", tcp ? "TCP" : "UDP", " ", request.sent_by, ";branch=", request.branch, ";rport"});
    sip::put(out, "Max-Forwards", {"70"});
    sip::put(out, "From", {"<sip:", account.user, "@", account.server, ">;tag=", account.local_tag});
    sip::put(out, "To",
             {"<sip:", whom, "@", account.server, ">", request.remote_tag.empty() ? "" : ";tag=", request.remote_tag});
    put_contact(out, account);
    sip::put(out, "Call-ID", {request.session->call_id});
    sip::put(out, "CSeq", {sip::number_text(request.cseq), " ", request.method});
    sip::put(out, "Allow", {sip::known_methods});
    sip::put(out, "Supported", {sip::supported});
    sip::put(out, "User-Agent", {sip::agent_name});
    if (request.credentials_name) sip::put(out, request.credentials_name, {request.credentials});
    if (request.by_way) out.append(request.way.routes);
    out.append(request.extra);
    sip::put_body(out, request.body);
    request.bytes = std::move(out);
}

void Sip::send(sip_request& request) {
    if (request.cseq == 0) request.cseq = ++request.session->cseq;
    render(request);
    const uint64_t now = core_timer();
    request.interval = sip::t1;
    request.resent = 0;
    request.resend_at = request.account->transport == sip_udp ? now + sip::t1 : 0;
    request.ends_at = now + sip::t_end;
    if (request.account->wire) request.account->wire->send(request.bytes, nullptr);
}

/// Sends what an account has said in its calls while there was no connection, or what was lost with it.
void Sip::say_again(const sip_account& account) {
    for (const auto& each : requests) {
        const bool cancel = std::strcmp(each->method, "CANCEL") == 0;
        const bool said = cancel || std::strcmp(each->method, "BYE") == 0 || std::strcmp(each->method, "INFO") == 0;
        if (each->gone || each->incoming || each->account != &account || !said) continue;
        if (!cancel) each->sent_by.clear();  // a CANCEL has that of its INVITE
        render(*each);
        account.wire->send(each->bytes, nullptr);
    }
}

/// Once more, past a server that does not know where the other end of the call is.
void Sip::send_by_way(sip_request& request) {
    request.by_way = true;
    request.credentials_name = nullptr;  // those it has are for another URI
    request.doubted = request.renewed = false;
    renew_branch(request);
    send(request);
}

// Has the number and the credentials of its INVITE (RFC 3261, 22.1), and the branch where it goes to the server.
sip::text Sip::print_ack(const sip_request& invite, std::string_view tag, bool by_way) {
    sip_request ack;
    ack.account = invite.account;
    ack.session = invite.session;
    ack.method = "ACK";
    ack.branch = by_way ? new_branch() : invite.branch;
    ack.by_way = by_way;
    if (by_way)
        ack.way = invite.way;
    else
        ack.sent_by = invite.sent_by;
    ack.cseq = invite.cseq;
    ack.peer = invite.peer;
    ack.remote_tag = tag;
    ack.credentials_name = invite.credentials_name;
    ack.credentials = invite.credentials;
    render(ack);
    return std::move(ack.bytes);
}

// Goes out again whenever the final answer comes again.
void Sip::send_ack(sip_request& request) {
    request.ack = print_ack(request, request.remote_tag);
    if (request.account->wire) request.account->wire->send(request.ack, nullptr);
}

/// Whether one more request for an INVITE has a place: who is called causes these, and takes no more than a few.
bool Sip::may_ask(const sip_request& invite, std::string_view method) const noexcept {
    const auto alike = std::ranges::count_if(requests, [&](const auto& each) {
        return !each->gone && each->session == invite.session && each->peer == invite.peer && each->method == method;
    });
    return alike < sip::most_alike && requests.size() < sip::most_requests;
}

/// Ends a call that somebody took whom we do not want: too late, or after another (RFC 3261, 13.2.2.4).
void Sip::leave(sip_request& invite, std::string_view tag, const sip::way_t& way) {
    if (invite.account->wire) invite.account->wire->send(print_ack(invite, tag), nullptr);
    const bool said = std::ranges::any_of(requests, [&](const auto& each) {
        return !each->gone && each->session == invite.session && each->remote_tag == tag &&
               std::strcmp(each->method, "BYE") == 0;
    });
    if (said || !may_ask(invite, "BYE")) return;
    sip_request& bye = ask(*invite.account, *invite.session, nullptr, "BYE", {}, {});
    bye.peer = invite.peer;
    bye.remote_tag = tag;
    bye.way = way;
    send(bye);
}

/// Its answer ends the INVITE. A 200 may still be on its way.
void Sip::cancel(sip_request& invite) {
    sip_request& request = ask(*invite.account, *invite.session, nullptr, "CANCEL", {}, {});
    request.branch = invite.branch;
    request.sent_by = invite.sent_by;
    request.cseq = invite.cseq;
    request.peer = invite.peer;
    send(request);
    invite.cancelled = true;
    invite.ends_at = core_timer() + sip::t_end;
}

/// Takes it out of its user. The record is released later.
void Sip::end(sip_request& request) noexcept {
    if (request.gone) return;
    request.gone = true;
    if (request.user && request.user->invite == &request) request.user->invite = nullptr;
    request.user = nullptr;
    core_log_print(log, "destroy dialog: %s, branch:%s ses:%s", request.method, request.branch.c_str(),
                   request.session ? request.session->call_id.c_str() : "");
}

// RFC 3261, 17.1.3: a CANCEL has the branch of its INVITE.
sip_request* Sip::find_ours(std::string_view branch, std::string_view method) noexcept {
    const auto found = std::ranges::find_if(requests, [&](const auto& each) {
        return !each->gone && !each->incoming && each->branch == branch && (method.empty() || each->method == method);
    });
    return branch.empty() || found == requests.end() ? nullptr : found->get();
}

// RFC 3261, 17.2.3. The ACK of a refusal and a CANCEL have the branch of their INVITE.
// Call-ID and number tell apart what old peers send without a branch of its own (17.2.3).
sip_request* Sip::find_theirs(const sip::header_t& header, const char* method) noexcept {
    const sip::via_t via = sip::top_via(header);
    const std::string_view call_id = sip::field(header, "Call-ID");
    uint32_t number = 0;
    std::string_view ignored;
    sip::read_cseq(header, number, ignored);
    const auto found = std::ranges::find_if(requests, [&](const auto& each) {
        return !each->gone && each->incoming && each->cseq == number && each->branch == via.branch &&
               each->sent_by == via.host && std::strcmp(each->method, method) == 0 && each->call_id == call_id;
    });
    return found == requests.end() ? nullptr : found->get();
}

sip::text Sip::print_answer(const sip_account& account, const sip::header_t& header, unsigned status,
                            const sockaddr_in& from, std::string_view type, std::string_view body) const {
    const std::string_view to = sip::field(header, "To");
    const std::string_view place = sip::place_of(to);
    const std::string_view known_tag = sip::tag_of(to);
    const std::string_view tag = known_tag.empty() ? std::string_view(account.local_tag) : known_tag;
    char address[net_addr_size];
    net_addr_ip(from, address, sizeof address);
    sip::text out = sip::join({"SIP/2.0 ", sip::number_text(status), " ", sip::reason(status), "\r\n"});
    sip::put_vias(out, header, address, sip::number_text(net_addr_port(from)));
    for (value_t* const* each = header.fields; status < 300 && each && *each; ++each)
        if (sip::is_named((*each)->key, "Record-Route")) sip::put(out, "Record-Route", {scan::text((*each)->value)});
    sip::put(out, "Max-Forwards", {"70"});
    sip::put(out, "From", {sip::field(header, "From")});
    sip::put(out, "Call-ID", {sip::field(header, "Call-ID")});
    if (place.empty())
        sip::put(out, "To", {to, known_tag.empty() ? ";tag=" : "", known_tag.empty() ? tag : ""});
    else
        sip::put(out, "To", {"<sip:", place, ">;tag=", tag});
    put_contact(out, account);
    sip::put(out, "User-Agent", {sip::agent_name});
    sip::put(out, "CSeq", {sip::field(header, "CSeq")});
    sip::put(out, "Allow", {sip::known_methods});
    if (status == 420) sip::put(out, "Unsupported", {sip::unsupported(header)});
    if (!type.empty()) sip::put(out, "Content-Type", {type});
    sip::put_body(out, body);
    return out;
}

/// Answers a request of a peer. What was answered last is the answer when it comes again.
void Sip::answer(sip_request& request, unsigned status, std::string_view type, std::string_view body) {
    request.bytes = print_answer(*request.account, *request.header, status, request.from, type, body);
    request.status = status;
    request.answered = status >= 200;
    if (request.answered) sip::text().swap(request.offer);
    const uint64_t now = core_timer();
    request.ends_at = now + (request.answered ? sip::t_end : sip::ring_time);
    // Its ACK may be lost, or this (RFC 3261, 13.3.1.4 and 17.2.1).
    const bool again =
        is_invite(request) && request.answered && (status < 300 || request.account->transport == sip_udp);
    request.interval = sip::t1;
    request.resend_at = again ? now + sip::t1 : 0;
    if (request.account->wire) request.account->wire->send(request.bytes, &request.from);
}

void Sip::resend(sip_request& request, uint64_t now) {
    const bool slow = !is_invite(request) || request.incoming;
    request.interval = slow ? std::min(2 * request.interval, sip::t2) : 2 * request.interval;
    request.resend_at = now + request.interval;
    ++request.resent;
    if (request.account->wire) request.account->wire->send(request.bytes, request.incoming ? &request.from : nullptr);
}

void Sip::timed_out(sip_request& request) {
    sip_user* const user = request.user;
    const bool invite = is_invite(request);
    if (request.incoming && invite && !request.answered) {
        answer(request, 480);
        if (!user) return;
        user->invite = nullptr;
        request.user = nullptr;
        return finish(*user, sip_call_ended);
    }
    const bool unacknowledged = request.incoming && invite && request.status < 300 && user && user->invite == &request;
    const bool unanswered = !request.incoming && request.ack.empty() && invite && user;
    if (!request.incoming && request.ack.empty() && invite && request.provisional && !request.cancelled) {
        cancel(request);
        request.user = nullptr;
        request.abandoned = true;
        if (!unanswered) return;
        user->invite = nullptr;
        return finish(*user, sip_call_failed);
    }
    const bool refused = !request.incoming && request.doubted;
    if (refused && !request.renewed) {
        request.renewed = true;
        renew_branch(request);
        send(request);
        request.ends_at = core_timer() + sip::last_try_time;
        return;
    }
    if (refused) return give_up(request);
    const bool vanished = !request.incoming && user && std::strcmp(request.method, "OPTIONS") == 0;
    end(request);
    if (unacknowledged || vanished) return bye(*user);
    if (unanswered) finish(*user, sip_call_failed);
}

}  // namespace net
