// What the relay says: answers, messages passed on, and the presence of its users.
#include "bounded.h"
#include "scan.h"
#include "sip/relay.h"

#include "inet/net_uri.h"

#include <algorithm>

namespace sip {

namespace {

constexpr std::string_view server_name = "Norvane-K Sip Server";
constexpr std::string_view server_methods = "ACK, BYE, CANCEL, INVITE, MESSAGE, OPTIONS";

}  // namespace

/// Every Via is copied, for an answer goes back the whole way, and every Contact, among which a phone seeks its own.
void relay::answer(party& to, const header_t& header, unsigned status) {
    head_.clear();
    head_.append("SIP/2.0 ").append(number_text(status)).append(" ").append(reason(status)).append("\r\n");
    const auto copy = [&](std::string_view name, bool all) {
        bool first = true;
        for (value_t* const* each = header.fields; each && *each && (all || first); ++each) {
            if (!is_named((*each)->key, name)) continue;
            const std::string_view value = scan::trim(scan::text((*each)->value), " \t");
            if (all || !value.empty()) put(head_, name, {value});
            first = false;
        }
    };
    for (const std::string_view name : {"Via", "From", "To", "Call-ID", "Contact", "CSeq"})
        copy(name, name == "Via" || name == "Contact");
    put(head_, "Allow", {server_methods});
    put(head_, "User-Agent", {server_name});
    put_body(head_, {});
    send(to, {});
}

/// The target is bound. Phones say what follows in a call by way of those that its INVITE names (RFC 3261, 16.6): else
/// they would connect to each other, where nobody listens.
void relay::forward(const party& from, party& to, std::string_view method, const piece_t& message) {
    core::string start = join({method, " sip:", to.user->coded, "@", to.local, " SIP/2.0"});
    const bool call = method == "INVITE";
    if (call && !to.route.empty()) start.append("\r\nRecord-Route: ").append(to.route);
    if (call && from.route != to.route) start.append("\r\nRecord-Route: ").append(from.route);
    pass_on(to, start, message);
}

/// The fields go on as they came.
void relay::pass_on(party& to, std::string_view start, const piece_t& message) {
    const std::string_view fields = message.head.substr(message.head.find("\r\n") + 2);
    head_.clear();
    head_.append(start).append("\r\n");
    if (!message.has_length) head_.append("Content-Length: 0\r\n");  // it came without a body
    head_.append(fields);
    if (head_.size() <= max_header) send(to, message.body);  // who gets a longer one drops the connection
}

/// The list is the same for everybody, but for the own name.
void relay::list_names() {
    if (listed_) return;
    names_.clear();
    for (relay_user& each : users_) {
        each.listed_at = names_.size();
        if (each.at) names_.append(",\"").append(each.name).append("\"");
        each.listed_to = names_.size();
    }
    listed_ = true;
}

/// A NOTIFY, if the user has subscribed. Who is far behind gets the newest one later, so that nobody who registers over
/// and over has others closed.
void relay::announce(const relay_user& to) {
    if (!to.at || !to.at->presence) return;
    party& there = *to.at;
    there.outdated = there.out.length > most_presence;
    if (there.outdated) return;
    list_names();
    const std::string_view names = names_;
    list_.clear();
    list_.append(names.substr(0, to.listed_at)).append(names.substr(to.listed_to)).append("]");
    if (list_.size() > 1)
        list_.front() = '[';  // in place of the first comma
    else
        list_.assign("[]");
    head_.clear();
    head_.append("NOTIFY sip:").append(to.coded).append("@").append(there.local).append(" SIP/2.0\r\n");
    put(head_, "To", {"<sip:", to.coded, "@", there.local, ">"});
    put(head_, "From", {"<sip:resource@", there.local, ">"});
    put(head_, "CSeq", {number_text(++there.notified), " NOTIFY"});
    put(head_, "User-Agent", {server_name});
    put(head_, "Content-Type", {"application/pidf-xml"});
    put(head_, "Content-Length", {number_text(static_cast<uint32_t>(list_.size()))});
    head_.append("\r\n");
    send(there, list_);
}

void relay::catch_up(party& to) noexcept {
    if (!to.outdated || !to.user) return;
    try {
        announce(*to.user);
    } catch (const std::bad_alloc&) {
        core_log_err("sip server: out of memory");
    }
}

/// Queues head_ and the body. All of it or nothing: half a message would spoil what follows.
void relay::send(party& to, std::string_view body) {
    if (to.lost) return;
    if (core_log_wanted(log))
        core_log_print(log, "out %s:%u\n%s%.*s", to.peer.c_str(), to.peer_port, head_.c_str(),
                       static_cast<int>(body.size()), body.data());
    const auto size = static_cast<uint32_t>(head_.size() + body.size());
    wake(to);
    if (!bounded::make_room(to.out, size, most_output, file_, line_)) return lose(to);
    core_buf_read(&to.out, head_.data(), static_cast<uint32_t>(head_.size()));
    core_buf_read(&to.out, body.data(), static_cast<uint32_t>(body.size()));
}

void relay::lose(party& which) noexcept {
    which.lost = true;
    wake(which);
}

// There is room: see expect().
void relay::wake(party& which) noexcept {
    if (which.waits) return;
    waiting_.push_back(&which);
    which.waits = true;
}

}  // namespace sip
