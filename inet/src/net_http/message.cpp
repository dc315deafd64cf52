#include "net_http/message.h"

#include "scan.h"

#include "core/text.h"
#include "core/value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <utility>

namespace net::http {

namespace {

constexpr uint32_t usual_room = 8192;
constexpr uint32_t passing_room = 64 * 1024;
constexpr uint32_t largest_limit = 1U << 30;
constexpr uint32_t most_blank_lines = 8;
constexpr size_t most_head = 4096;
constexpr std::string_view blanks = " \t";

bool begins(std::string_view text, std::string_view with) noexcept {
    return scan::same_name(text.substr(0, with.size()), with);
}

std::optional<uint64_t> whole_number(std::string_view text) noexcept {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

bool is_control(char c) noexcept { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f; }

/// By character: whether a token may have it (RFC 9110, 5.6.2).
constexpr std::array<bool, 256> token_characters = [] {
    std::array<bool, 256> may{};
    for (unsigned char c = 0x21; c < 0x7f; ++c)
        may[c] = std::string_view("\"(),/:;<=>?@[\\]{}").find(static_cast<char>(c)) == std::string_view::npos;
    return may;
}();

bool is_token(std::string_view text) noexcept {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return token_characters[static_cast<uint8_t>(c)]; });
}

bool is_http(const char* protocol) noexcept { return scan::text(protocol).starts_with("HTTP/"); }

/// Whether every line of a head ends with CR LF, has no other CR or LF, and is the first one, a field or the blank one.
bool has_plain_lines(std::string_view text) noexcept {
    for (bool first = true; !text.empty(); first = false) {
        const size_t end = text.find('\r');
        if (end >= text.size() - 1 || text[end + 1] != '\n') return false;
        const std::string_view line = text.substr(0, end);
        if (line.find('\n') != std::string_view::npos) return false;
        const bool is_folded = !line.empty() && blanks.find(line[0]) != std::string_view::npos;
        const bool is_no_field = !line.empty() && line.find(':') == std::string_view::npos;
        if (!first && (is_folded || is_no_field)) return false;
        text.remove_prefix(end + 2);
    }
    return true;
}

/// Whether two readers of a request could not take it for different messages (RFC 9112, 2.2, 3 and 5).
bool is_plain(std::string_view text, const header_s& header) noexcept {
    if (!has_plain_lines(text)) return false;
    const std::string_view target = scan::text(header.uri);
    if (!is_token(scan::text(header.method)) || target.empty() || std::ranges::any_of(target, is_control)) return false;
    if (!is_http(header.protocol)) return false;
    for (value_t* const* field = header.fields; field && *field; ++field)
        if (!is_token((*field)->key)) return false;
    return true;
}

/// Whether a line of an unfinished head ends with LF alone.
bool has_bare_end(std::span<const uint8_t> head) noexcept {
    const auto* const begin = reinterpret_cast<const char*>(head.data());
    const std::string_view text(begin, std::min<size_t>(head.size(), most_head));
    const size_t end = text.find('\n');
    return end != std::string_view::npos && (end == 0 || text[end - 1] != '\r');
}

struct lengths_t {
    std::optional<uint64_t> length;
    bool differ = false;
    bool chunked = false;
    bool other_coding = false;
};

lengths_t lengths_of(const header_s& header) noexcept {
    lengths_t found;
    for (value_t* const* field = header.fields; field && *field; ++field) {
        const auto value = [&] { return scan::trim(scan::text((*field)->value), blanks); };
        if (scan::same_name((*field)->key, "Content-Length")) {
            const auto length = whole_number(value());
            found.differ |= !length || (found.length && *found.length != *length);
            if (!found.length) found.length = length;
        } else if (scan::same_name((*field)->key, "Transfer-Encoding")) {
            found.other_coding |= found.chunked || !scan::same_name(value(), "chunked");
            found.chunked = true;
        }
    }
    return found;
}

bool has_no_body(unsigned status) noexcept { return status == 204 || status == 304; }

std::string_view field_of(const header_s& header, const char* name) noexcept {
    return scan::trim(scan::text(value_geti(header.fields, name)), blanks);
}

bool lists(std::string_view list, std::string_view name) noexcept {
    while (!list.empty())
        if (scan::same_name(scan::trim(scan::take(list, ','), blanks), name)) return true;
    return false;
}

/// Whether the fields "Connection" have that option.
bool has_option(const header_s& header, std::string_view option) noexcept {
    for (value_t* const* field = header.fields; field && *field; ++field)
        if (scan::same_name((*field)->key, "Connection") && lists(scan::text((*field)->value), option)) return true;
    return false;
}

}  // namespace

head_text::head_text(std::string_view in, bool bare_lf) noexcept
    : size(http_find_header(in.data(), static_cast<unsigned>(in.size()))) {
    if (size > 0) text = in.substr(0, static_cast<size_t>(size));
    const std::string_view within = in.substr(0, most / 2);
    const size_t end = bare_lf ? within.find("\n\n") : std::string_view::npos;
    if (end == std::string_view::npos || within.substr(0, end).find('\r') != std::string_view::npos) return;
    size = static_cast<int>(end) + 2;
    char* out = room_;
    for (const char c : within.substr(0, end + 2)) {
        if (c == '\n') *out++ = '\r';
        *out++ = c;
    }
    text = {room_, out};
}

message_reader::message_reader(message_owner& owner, const char* file, int line) noexcept
    : owner_(owner), file_(file), line_(line), head_(file, line), part_head_(file, line) {}

message_reader::~message_reader() {
    reset(role_);
    core_buf_free(&decoded_);
}

void message_reader::set_types(const char* types) noexcept { types_.reset(core_strdup(types, file_, line_)); }

void message_reader::set_limit(uint32_t most) noexcept { limit_ = std::min(most, largest_limit); }

uint32_t message_reader::take(bytes in) noexcept {
    const size_t size = in.size();
    while (phase_ != phase_t::stopped && owes_ != owes_t::whole && step(in) == step_t::on) {
    }
    if (phase_ == phase_t::stopped) in = {};
    return static_cast<uint32_t>(size - in.size());
}

void message_reader::end(bytes in) noexcept {
    const uint32_t turn = turn_;
    const uint32_t taken = take(in);
    if (turn != turn_ || phase_ == phase_t::stopped || owes_ == owes_t::whole) return;
    in = in.subspan(taken);
    if (phase_ == phase_t::body && framing_ == framing_t::close) read_content(in, true);
    if (turn == turn_) stop();
}

void message_reader::reset(role_t role) noexcept {
    stop();
    role_ = role;
    phase_ = phase_t::head;
    blank_lines_ = 0;
    while (expected_)
        expected_ = std::move(expected_->next);
    last_expected_ = nullptr;
}

void message_reader::stop() noexcept {
    ++turn_;
    forget();
    phase_ = phase_t::stopped;
    owes_ = owes_t::nothing;
}

void message_reader::answered() noexcept {
    settled_ = owes_ != owes_t::nothing;
    if (owes_ != owes_t::announced) return;
    owes_ = owes_t::answered;
    mode_ = mode_t::dropped;
    silent_ = true;
}

void message_reader::go_on() noexcept {
    if (owes_ != owes_t::whole) return;
    owes_ = owes_t::nothing;
    settled_ = false;
}

void message_reader::expect(core::owned_object<expectation> response) noexcept {
    expectation* const added = response.get();
    (last_expected_ ? last_expected_->next : expected_) = std::move(response);
    last_expected_ = added;
    const bool at_hand = phase_ == phase_t::body || phase_ == phase_t::announcing;
    if (at_hand && mode_ == mode_t::multipart) silent_ = true;
}

bool message_reader::wants_continue() const noexcept {
    return owes_ == owes_t::announced && framing_ != framing_t::none &&
           scan::text(header_->protocol) != std::string_view("HTTP/1.0") &&
           scan::same_name(field_of(*header_, "Expect"), "100-continue");
}

uint32_t message_reader::room() const noexcept {
    if (phase_ != phase_t::body) return usual_room;
    const bool collects = mode_ == mode_t::whole || mode_ == mode_t::multipart;
    if (!collects || framing_ == framing_t::chunked) return passing_room;
    const uint64_t most = framing_ == framing_t::length ? std::min<uint64_t>(left_, limit_) : limit_;
    return static_cast<uint32_t>(most) + usual_room;
}

/// What is known of one message alone. What a call of the owner reads is released when it has returned.
void message_reader::forget() noexcept {
    if (calling_ > 0 && header_) spent_ = std::exchange(decoded_, {});
    header_ = part_ = nullptr;
    boundary_.reset();
    behind_boundary_ = skipping_ = false;
    searched_ = 0;
    decoded_.length = 0;
    if (decoded_.size > passing_room) core_buf_free(&decoded_);
    to_.reset();
    mode_ = mode_t::whole;
    silent_ = settled_ = bodyless_ = looking_ = false;
}

void message_reader::leave_call() noexcept {
    if (--calling_ == 0) core_buf_free(&spent_);
}

/// @return false when the owner has reset or stopped the reader
bool message_reader::call(int status, header_s* header, const buffer_t* body, bool is_complete) noexcept {
    const uint32_t turn = turn_;
    ++calling_;
    owner_.on_message(status, header, body, is_complete);
    leave_call();
    return turn == turn_;
}

message_reader::step_t message_reader::refuse(int status) noexcept {
    const bool was_answered = phase_ == phase_t::body && owes_ != owes_t::announced;
    forget();
    owes_ = role_ == role_t::server ? owes_t::whole : owes_t::nothing;
    settled_ = was_answered;
    phase_ = phase_t::stopped;
    call(status, nullptr, nullptr, true);
    return step_t::more;
}

message_reader::step_t message_reader::step(bytes& in) noexcept {
    return phase_ == phase_t::head ? read_head(in) : read_body(in);
}

// Heads

message_reader::step_t message_reader::read_head(bytes& in) noexcept {
    // Behind a body, as some clients send it (RFC 9112, 2.2).
    for (; in.size() >= 2 && in[0] == '\r' && in[1] == '\n'; in = in.subspan(2))
        if (++blank_lines_ > most_blank_lines) return refuse(http_malformed);
    const head_text head({reinterpret_cast<const char*>(in.data()), in.size()}, role_ == role_t::client);
    // Its blank line may never come: what ends lines otherwise ends them all so.
    if (head.size <= 0 && role_ == role_t::server && has_bare_end(in)) return refuse(http_malformed);
    if (head.size == 0) return step_t::more;
    if (head.size < 0) return refuse(http_header_large);
    const std::string_view text = head.text;
    in = in.subspan(static_cast<size_t>(head.size));
    blank_lines_ = 0;
    owner_.on_header_text(text);
    header_ = head_.read(text);
    is_old_ = header_ && (header_->status ? text.starts_with("HTTP/1.0") : scan::text(header_->protocol) == "HTTP/1.0");
    if (!header_ || !is_sound(text)) return refuse(http_malformed);
    if (header_->status >= 100 && header_->status < 200) {  // the response is still to come
        forget();
        return step_t::on;
    }
    if (header_->status == 401 && is_sent_again()) return step_t::more;
    judge_framing();
    if (!choose_mode()) return refuse(http_malformed);
    return announce();
}

/// @return false for what is not of the peer's role, and when the end of the message cannot be told
bool message_reader::is_sound(std::string_view text) const noexcept {
    const bool request = header_->status == 0;
    const lengths_t found = lengths_of(*header_);
    if (request != (role_ == role_t::server) || text.find('\0') != std::string_view::npos) return false;
    // That of a multipart response is not looked at.
    const bool is_looked_at = request || found.chunked || !begins(field_of(*header_, "Content-Type"), "multipart/");
    if ((found.differ && is_looked_at) || found.other_coding) return false;
    if (found.chunked && is_old_) return false;
    return !request || (is_plain(text, *header_) && !(found.chunked && found.length));
}

bool message_reader::is_sent_again() noexcept {
    if (!expected_ || expected_->next || expected_->sent.length == 0) return false;
    ++calling_;
    const bool result = owner_.on_refused(*header_, *expected_);
    leave_call();
    return result;
}

void message_reader::judge_framing() noexcept {
    const bool response = role_ == role_t::client;
    bool no_body = response && has_no_body(header_->status);
    if (response && expected_) {
        no_body = no_body || expected_->head;
        to_ = std::move(expected_->to);
        expected_ = std::move(expected_->next);
        if (!expected_) last_expected_ = nullptr;
    }
    bodyless_ = no_body;
    is_head_ = !response && std::strcmp(header_->method, "HEAD") == 0;
    framing_ = framing_of_body();
    left_ = lengths_of(*header_).length.value_or(0);
    saved_ = 0;
    if (framing_ == framing_t::chunked) chunks_.begin();
}

message_reader::framing_t message_reader::framing_of_body() const noexcept {
    if (bodyless_) return framing_t::none;
    const lengths_t found = lengths_of(*header_);
    if (found.chunked) return framing_t::chunked;
    if (found.length) return *found.length > 0 ? framing_t::length : framing_t::none;
    const bool closes = has_option(*header_, "close") || (is_old_ && !has_option(*header_, "keep-alive"));
    return role_ == role_t::client && (to_ || looking_ || closes) ? framing_t::close : framing_t::none;
}

bool message_reader::save(core::owned_object<download> to) noexcept {
    if (role_ != role_t::client || phase_ != phase_t::announcing) return false;
    to_ = std::move(to);
    mode_ = mode_t::file;
    framing_ = framing_of_body();
    return true;
}

bool message_reader::split_if_parts() noexcept {
    if (role_ != role_t::client || phase_ != phase_t::announcing || mode_ == mode_t::multipart) return false;
    looking_ = true;
    framing_ = framing_of_body();
    return true;
}

/// @return false for a multipart body without a boundary
bool message_reader::choose_mode() noexcept {
    std::string_view type = field_of(*header_, "Content-Type");
    if (type.empty()) type = "text/plain";
    const bool response = role_ == role_t::client;
    if (response && to_) {
        const bool wanted = header_->status >= 200 && header_->status < 300;
        mode_ = wanted ? mode_t::file : mode_t::dropped;
    } else if (begins(type, "multipart/")) {
        mode_ = mode_t::multipart;
        // Cameras state lengths of streams that have no end.
        if (response && !bodyless_ && framing_ != framing_t::chunked) framing_ = framing_t::close;
        return framing_ == framing_t::none || choose_boundary(type);
    } else {
        mode_ = framing_ == framing_t::none || takes_whole(type) ? mode_t::whole : mode_t::unknown;
    }
    return true;
}

bool message_reader::choose_boundary(std::string_view type) noexcept {
    boundary_.reset(http_get_boundary(type.data()));
    if (!boundary_) {  // names of parameters have no case (RFC 2045, 5.1)
        value_t** const parameters = core_value_split(type.data(), ";", "=", file_, line_);
        if (const char* named = value_geti(parameters, "boundary"))
            boundary_.reset(core_sprintf(file_, line_, "--%s", named));
        core_value_free(parameters);
    }
    if (!boundary_) return false;
    // In quotes (RFC 2046, 5.1.1), with or without the two '-' that it is written with.
    char* const begin = boundary_.get() + 2;
    char* const end = std::remove(begin, begin + std::strlen(begin), '"');
    char* const first = std::find_if(begin, end, [](char c) { return c != '-'; });
    *std::copy(first, end, begin) = '\0';
    return first != end;
}

bool message_reader::takes_whole(std::string_view type) const noexcept {
    if (begins(type, "text/") || begins(type, "application/json")) return true;
    std::string_view rest = scan::text(types_.get());
    while (!rest.empty()) {
        const std::string_view each = scan::trim(scan::take(rest, ','), blanks);
        if (!each.empty() && begins(type, each)) return true;
    }
    return false;
}

message_reader::step_t message_reader::announce() noexcept {
    phase_ = phase_t::announcing;
    owes_ = role_ == role_t::server ? owes_t::announced : owes_t::nothing;
    if (!call(http_message, header_, nullptr, false)) return step_t::more;
    phase_ = phase_t::body;
    if (mode_ == mode_t::whole && framing_ == framing_t::length && left_ > limit_) return refuse(http_body_large);
    if (mode_ == mode_t::file && !looking_ && !to_->open()) return refuse(http_not_written);
    if (wants_continue()) owner_.on_expect();
    return step_t::on;
}

// Bodies

/// What stands at the front of the body at hand.
message_reader::bytes message_reader::within(bytes from) const noexcept {
    if (framing_ == framing_t::none) return from.first(0);
    return framing_ == framing_t::length ? from.first(static_cast<size_t>(std::min<uint64_t>(left_, from.size())))
                                         : from;
}

void message_reader::consume(bytes& from, size_t count) noexcept {
    from = from.subspan(count);
    if (framing_ == framing_t::length) left_ -= count;
}

message_reader::step_t message_reader::read_body(bytes& in) noexcept {
    if (framing_ == framing_t::chunked) return read_chunked(in);
    return read_content(in, framing_ == framing_t::none || (framing_ == framing_t::length && in.size() >= left_));
}

message_reader::step_t message_reader::read_chunked(bytes& in) noexcept {
    const bool collects = mode_ == mode_t::whole || mode_ == mode_t::multipart;
    const uint32_t held = decoded_.length;
    const auto result = chunks_.take(in, decoded_, collects ? limit_ : passing_room, file_, line_);
    // What was decoded before the fault comes first.
    const bool malformed = result == chunks::result_t::malformed;
    if (malformed && decoded_.length == held) return refuse(http_malformed);
    bytes from(decoded_.data, decoded_.length);
    const step_t next = read_content(from, result == chunks::result_t::end);
    if (phase_ != phase_t::body) return next;
    core_buf_ignore(&decoded_, decoded_.length - static_cast<uint32_t>(from.size()));
    return malformed ? step_t::on : next;
}

/// @param all  nothing more of the body comes
message_reader::step_t message_reader::read_content(bytes& from, bool all) noexcept {
    return looking_                     ? look_for_parts(from, all)
           : mode_ == mode_t::whole     ? read_whole(from, all)
           : mode_ == mode_t::multipart ? read_parts(from, all)
                                        : pass_through(from, all);
}

message_reader::step_t message_reader::read_whole(bytes& from, bool all) noexcept {
    const bytes content = within(from);
    const bool full = framing_ == framing_t::chunked ? chunks_.full() : content.size() > limit_;
    if (full) return refuse(http_body_large);
    if (!all) return step_t::more;
    const buffer_t body{content.data(), static_cast<uint32_t>(content.size())};
    consume(from, content.size());
    return complete(content.empty() ? nullptr : &body);
}

/// A body that nobody keeps: dropped, or written to a file.
message_reader::step_t message_reader::pass_through(bytes& from, bool all) noexcept {
    const bytes content = within(from);
    if (mode_ == mode_t::file && !content.empty() && !to_->write(content)) return refuse(http_not_written);
    if (mode_ == mode_t::file) saved_ += content.size();
    consume(from, content.size());
    if (!all) return framing_ == framing_t::chunked && !content.empty() ? step_t::on : step_t::more;
    if (mode_ == mode_t::file && !to_->finish()) return refuse(http_not_written);
    return complete(nullptr);
}

/// The second call of a message, or what stands for it.
message_reader::step_t message_reader::complete(const buffer_t* body) noexcept {
    phase_ = phase_t::head;
    if (role_ == role_t::server) owes_ = owes_t::whole;
    if (!silent_) {
        const bool unknown = mode_ == mode_t::unknown;
        if (unknown) owner_.on_unknown_type(value_geti(header_->fields, "Content-Type"));
        if (!call(unknown ? http_unknown_type : http_message, unknown ? nullptr : header_, body, true))
            return step_t::more;
    }
    const bool settled = settled_;
    forget();
    settled_ = settled;
    return step_t::on;
}

bool ends_with_connection(const header_s& response) noexcept {
    const lengths_t found = lengths_of(response);
    return !found.length && !found.chunked && !has_no_body(response.status);
}

}  // namespace net::http
