// What the relay does with each message.
#include "sip/relay.h"

#include "scan.h"

#include "core/time.h"
#include "inet/net_uri.h"

#include <algorithm>

namespace sip {

namespace {

// What is forwarded must mean the same to everybody: another reader takes a line that ends otherwise for a part of its
// neighbour, and a text that holds a NUL for one that ends there. Behind the first line we add fields: it goes no
// further.

bool has_plain_lines(std::string_view head) noexcept {
    const char second = head[head.find('\n') + 1];
    if (second == ' ' || second == '\t') return false;
    for (size_t i = 0; i < head.size(); ++i) {
        if (head[i] == '\n' && (i == 0 || head[i - 1] != '\r')) return false;
        if (head[i] == '\r' && (i + 1 == head.size() || head[i + 1] != '\n')) return false;
    }
    return true;
}

/// What the relay adds to a head.
constexpr size_t most_added = 256;
/// What a phone adds to its answer: its address, its tag, what it is and can do.
constexpr size_t usual_answer = 1024;

/// Whether a request and its answer, which repeats some of its fields (RFC 3261, 8.2.6.2 and 12.1.1), stay below the
/// bound of a header. Whoever sent one that passes it would lose the connection.
bool has_room(const header_t& header, std::string_view head) {
    if (head.size() <= max_header / 3) return true;  // nearly all; even where an answer writes compact names in full
    size_t repeated = most_added + usual_answer;
    for (value_t* const* each = header.fields; each && *each; ++each)
        for (const std::string_view name : {"Via", "Record-Route", "From", "To", "Call-ID", "CSeq"})
            if (is_named((*each)->key, name)) repeated += name.size() + scan::text((*each)->value).size() + 4;
    return std::max(repeated, head.size() + most_added) <= max_header;
}

bool has_nul(std::string_view head) noexcept { return head.find('\0') != std::string_view::npos; }

}  // namespace

relay::relay(value_t* const* users, const char* file, int line) : file_(file), line_(line) {
    users_.reserve(value_count(users));
    for (value_t* const* each = users; each && *each; ++each) {
        relay_user user;
        user.name = (*each)->key;
        user.value = scan::text((*each)->value);
        const core::owned_text coded(uri_encode_rest(user.name.c_str(), file, line));
        if (!coded) throw std::bad_alloc();
        user.coded = coded.get();
        users_.push_back(std::move(user));
    }
    by_name_.reserve(users_.size());
    for (relay_user& each : users_)
        by_name_.push_back(&each);
    // Of equal names the first stays in front.
    std::ranges::sort(by_name_, [](const relay_user* a, const relay_user* b) {
        const int order = a->name.compare(b->name);
        return order != 0 ? order < 0 : a < b;
    });
}

/// A password is no part of a name; "%61" means 'a' (RFC 3261, 19.1.1 and 19.1.4).
relay_user* relay::find(std::string_view name) {
    name = name.substr(0, name.find(':'));
    relay_user* const found = find_plain(name);
    if (found || name.find('%') == name.npos) return found;
    const core::owned_text plain(uri_decode_part(name.data(), name.data() + name.size(), file_, line_));
    if (!plain) throw std::bad_alloc();
    return find_plain(plain.get());
}

relay_user* relay::find_plain(std::string_view name) noexcept {
    const auto by = [](const relay_user* each) { return std::string_view(each->name); };
    const auto found = std::ranges::lower_bound(by_name_, name, {}, by);
    return found == by_name_.end() || by(*found) != name ? nullptr : *found;
}

const relay_user* relay::reached(std::string_view name) noexcept {
    const relay_user* const found = find_plain(name);
    return found && found->reached() ? found : nullptr;
}

/// A console is slow, and a peer must not fill it; the log has every line.
bool relay::may_print() noexcept {
    const uint64_t now = core_timer() / 1'000'000;
    if (now != printed_in_) printed_ = 0;
    printed_in_ = now;
    return printed_++ < most_printed;
}

void relay::bind(relay_user& user, party& to) noexcept {
    if (to.user == &user) return;
    listed_ = false;
    if (to.user) to.user->at = nullptr;
    if (user.at) user.at->user = nullptr;
    user.at = &to;
    to.user = &user;
}

void relay::forget(party& gone) noexcept {
    if (gone.user) gone.user->at = nullptr;
    gone.user = nullptr;
    listed_ = false;
    std::erase(waiting_, &gone);
}

uint32_t relay::take(party& from, std::string_view bytes) noexcept {
    uint32_t used = 0;
    while (!from.lost && used < bytes.size()) {
        const piece_t piece = cut(bytes.substr(used), false);
        if (piece.what == cut_t::more) return used;
        uint32_t step = piece.used;
        try {
            if (piece.what == cut_t::skipped) take_line_ends(from, bytes.substr(used, piece.used));
            if (piece.what == cut_t::message) step = take_message(from, piece);
            if (piece.what == cut_t::broken) lose(from);
        } catch (const std::bad_alloc&) {
            core_log_err("sip server: out of memory");
        }
        used += step;
        if (piece.what == cut_t::broken) break;
    }
    return static_cast<uint32_t>(bytes.size());  // of a lost one nothing is kept
}

/// Two line ends between messages ask whether the connection lives; one answers (RFC 5626, 4.4.1).
void relay::take_line_ends(party& from, std::string_view ends) {
    if (ends.front() == '$') return;
    for (const char c : ends) {
        if (c != '\n' || ++from.line_ends % 2 != 0) continue;
        head_ = "\r\n";
        send(from, {});
    }
}

/// @return how much of it is done with
uint32_t relay::take_message(party& from, const piece_t& message) {
    const std::string_view head = message.head;
    from.line_ends = 0;
    owned_header header = has_plain_lines(head) ? read(head) : nullptr;
    if (!header || (!header->method && header->status == 0)) {
        const auto shown = static_cast<int>(head.size());
        core_log_print(log, "sip header parse failed:\n%.*s", shown, head.data());
        if (may_print()) core_con_printf(0, "sip header parse failed:\n%.*s", shown, head.data());
        return static_cast<uint32_t>(head.size());
    }
    if (core_log_wanted(log))  // the body stands behind the head
        core_log_print(log, "in %s:%u\n%.*s", from.peer.c_str(), from.peer_port, static_cast<int>(message.used),
                       head.data());
    if (message.bad_length) {  // nobody knows where the next message begins
        if (header->method) answer(from, *header, 400);
        lose(from);
    } else if (header->method) {
        take_request(from, *header, message);
    } else if (const relay_user* caller = find(user_of(field(*header, "From")));
               caller && caller->reached() && !has_nul(head)) {
        pass_on(*caller->at, head.substr(0, head.find("\r\n")), message);
    }
    return message.used;
}

void relay::take_request(party& from, const header_t& header, const piece_t& message) {
    const std::string_view method = header.method;
    relay_user* const sender = find(user_of(field(header, "From")));
    if (!sender) return answer(from, header, 404);
    if (method == "REGISTER") return take_register(from, *sender, header);
    if (method == "SUBSCRIBE") return take_subscribe(from, *sender, header);
    if (method != "INVITE" && method != "ACK" && method != "BYE") return refuse(from, header, method);
    if (has_nul(message.head)) return answer(from, header, 400);
    if (!has_room(header, message.head)) return method == "ACK" ? void() : answer(from, header, 513);
    if (method == "INVITE") return take_invite(from, *sender, header, message);
    const relay_user* const target = find(user_of(field(header, "To")));
    if (!target || !target->reached()) return answer(from, header, 480);
    forward(from, *target->at, method, message);
}

void relay::take_register(party& from, relay_user& sender, const header_t& header) {
    bind(sender, from);
    core_log_print(log, "регистрация %s - %s:%u", sender.name.c_str(), from.peer.c_str(), from.peer_port);
    for (const relay_user& each : users_)
        announce(each);
    answer(from, header, 200);
}

void relay::take_invite(party& from, relay_user& sender, const header_t& header, const piece_t& message) {
    if (sender.at != &from) {
        bind(sender, from);
        core_log_print(log, "перерегистрация %s на порт %s:u", sender.name.c_str(), from.peer.c_str());
    }
    const relay_user* const target = find(user_of(field(header, "To")));
    if (!target) return;
    if (!target->reached()) return answer(from, header, 480);
    answer(from, header, 100);
    forward(from, *target->at, "INVITE", message);
}

/// One who has not registered yet, or only on a connection that is dead, is announced to once it has registered here.
void relay::take_subscribe(party& from, relay_user& sender, const header_t& header) {
    if (!from.user) from.presence = true;
    if (sender.at) sender.at->presence = true;
    answer(from, header, 200);
    announce(sender);
}

void relay::refuse(party& from, const header_t& header, std::string_view method) {
    const auto shown = static_cast<int>(method.size());
    core_log_print(log, "%.*s - не реализован", shown, method.data());
    if (may_print()) core_con_printf(0, "sip server: %.*s - не реализован", shown, method.data());
    answer(from, header, 405);
}

}  // namespace sip
