#include "net_http/message.h"

#include "scan.h"

#include "core/text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace net::http {

namespace {

constexpr uint32_t usual_room = 8192;
constexpr uint32_t passing_room = 64 * 1024;

bool equal(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && core_strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool begins(std::string_view text, std::string_view with) noexcept { return equal(text.substr(0, with.size()), with); }

std::string_view trim(std::string_view text) noexcept {
    constexpr std::string_view blanks = " \t";
    text = scan::skip(text, blanks);
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

std::optional<uint64_t> whole_number(std::string_view text) noexcept {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

bool is_request(const header_s& header) noexcept { return header.status == 0; }

/// What two readers of one header could take for different ends of its message (RFC 9112, 2.2 and 5.1).
bool is_ambiguous(std::string_view text, const header_s& header) noexcept {
    for (size_t at = 0; (at = text.find_first_of("\r\n", at)) != std::string_view::npos; at += 2)
        if (text.substr(at, 2) != "\r\n") return true;
    for (value_t* const* field = header.fields; field && *field; ++field)
        if (std::strpbrk((*field)->key, " \t")) return true;
    return false;
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
        const std::string_view value = trim(scan::text((*field)->value));
        if (equal((*field)->key, "Content-Length")) {
            const auto length = whole_number(value);
            found.differ |= !length || (found.length && *found.length != *length);
            if (!found.length) found.length = length;
        } else if (equal((*field)->key, "Transfer-Encoding")) {
            found.other_coding |= found.chunked || !equal(value, "chunked");
            found.chunked = true;
        }
    }
    return found;
}

std::string_view field_of(const header_s& header, const char* name) noexcept {
    return trim(scan::text(value_geti(header.fields, name)));
}

}  // namespace

message_reader::message_reader(message_owner& owner, const char* file, int line) noexcept
    : owner_(owner), file_(file), line_(line) {}

message_reader::~message_reader() {
    forget();
    core_buf_free(&decoded_);
}

void message_reader::set_types(const char* types) noexcept { types_.reset(core_strdup(types, file_, line_)); }

void message_reader::take(buf_t& in) noexcept {
    while (phase_ != phase_t::stopped && owes_ != owes_t::whole && step(in) == step_t::on) {
    }
    if (phase_ == phase_t::stopped) core_buf_ignore(&in, in.length);
}

void message_reader::end(buf_t& in) noexcept {
    take(in);
    if (phase_ != phase_t::body || framing_ != framing_t::close || owes_ == owes_t::whole) return;
    const uint32_t turn = turn_;
    if (mode_ == mode_t::whole)
        read_whole(in, true);
    else if (mode_ == mode_t::multipart)
        complete(nullptr);
    else
        pass_through(in, true);
    if (turn == turn_) forget();
}

void message_reader::reset() noexcept {
    ++turn_;
    forget();
    phase_ = phase_t::head;
    owes_ = owes_t::nothing;
    bodyless_ = is_head_ = false;
    file_to_.reset();
}

void message_reader::stop() noexcept {
    ++turn_;
    forget();
    phase_ = phase_t::stopped;
    owes_ = owes_t::nothing;
}

void message_reader::answered() noexcept {
    if (owes_ == owes_t::announced && mode_ != mode_t::file) mode_ = mode_t::dropped;
    owes_ = owes_t::nothing;
}

void message_reader::expect(bool head, core::owned_object<download> to) noexcept {
    bodyless_ = head;
    if (phase_ == phase_t::body && mode_ == mode_t::multipart) {
        forget();
        phase_ = phase_t::head;
    }
    file_to_ = std::move(to);
}

bool message_reader::wants_continue() const noexcept {
    return owes_ == owes_t::announced && framing_ != framing_t::none &&
           equal(field_of(*header_, "Expect"), "100-continue");
}

uint32_t message_reader::room() const noexcept {
    if (phase_ != phase_t::body) return usual_room;
    const bool collects = mode_ == mode_t::whole || mode_ == mode_t::multipart;
    return collects && framing_ != framing_t::chunked ? limit_ + usual_room : passing_room;
}

/// What is known of one message alone.
void message_reader::forget() noexcept {
    http_header_free(header_);
    http_header_free(part_);
    searched_ = 0;
    behind_boundary_ = false;
    boundary_.reset();
    if (decoded_.size > passing_room)
        core_buf_free(&decoded_);
    else
        decoded_.length = 0;
    if (mode_ == mode_t::file) file_to_.reset();
    mode_ = mode_t::whole;
}

bool message_reader::call(int status, header_s* header, const buffer_t* body, bool is_complete) noexcept {
    const uint32_t turn = turn_;
    owner_.on_message(status, header, body, is_complete);
    return turn == turn_;
}

message_reader::step_t message_reader::refuse(int status) noexcept {
    owes_ = header_ && is_request(*header_) ? owes_t::whole : owes_t::nothing;
    forget();
    phase_ = phase_t::stopped;
    call(status, nullptr, nullptr, true);
    return step_t::more;
}

message_reader::step_t message_reader::step(buf_t& in) noexcept {
    return phase_ == phase_t::head ? read_head(in) : read_body(in);
}

message_reader::step_t message_reader::read_head(buf_t& in) noexcept {
    while (in.length >= 2 && in.data[0] == '\r' && in.data[1] == '\n')
        core_buf_ignore(&in, 2);  // behind a body, as some clients send it (RFC 9112, 2.2)
    const int size = http_header_find({in.data, in.length});
    if (size == 0) return step_t::more;
    if (size < 0) {
        core_buf_ignore(&in, in.length);
        call(http_header_large, nullptr, nullptr, true);
        return step_t::more;
    }
    const std::string_view text(reinterpret_cast<const char*>(in.data), static_cast<size_t>(size));
    owner_.on_header_text(text);
    header_ = http_header_parse(text.data(), static_cast<unsigned>(size), file_, line_);
    const bool understood = header_ && judge_framing(text);
    core_buf_ignore(&in, static_cast<uint32_t>(size));
    if (!understood) return refuse(http_malformed);
    const uint32_t status = header_->status;
    if (status >= 100 && status < 200) {  // the answer is still to come
        forget();
        return step_t::on;
    }
    phase_ = phase_t::body;
    if (!choose_mode()) {
        stop();
        return step_t::more;
    }
    owes_ = status == 0 ? owes_t::announced : owes_t::nothing;
    if (!call(http_message, header_, nullptr, false)) return step_t::on;
    if (mode_ == mode_t::whole && framing_ == framing_t::length && left_ > limit_) return refuse(http_body_large);
    return step_t::on;
}

/// @return false when the end of the message cannot be told
bool message_reader::judge_framing(std::string_view text) noexcept {
    const bool request = is_request(*header_);
    const lengths_t found = lengths_of(*header_);
    if (text.find('\0') != std::string_view::npos || found.differ) return false;
    if (request && (is_ambiguous(text, *header_) || found.other_coding || (found.chunked && found.length)))
        return false;
    is_head_ = request && equal(scan::text(header_->method), "HEAD");
    left_ = found.length.value_or(0);
    const bool has_none =
        !request && (std::exchange(bodyless_, false) || header_->status == 204 || header_->status == 304);
    const bool ends = !request && !found.length && (file_to_ || equal(field_of(*header_, "Connection"), "close"));
    framing_ = has_none        ? framing_t::none
               : found.chunked ? framing_t::chunked
               : left_ > 0     ? framing_t::length
               : ends          ? framing_t::close
                               : framing_t::none;
    if (framing_ == framing_t::chunked) chunks_.begin();
    return true;
}

/// @return false for a multipart body without a boundary
bool message_reader::choose_mode() noexcept {
    std::string_view type = field_of(*header_, "Content-Type");
    if (type.empty()) type = "text/plain";
    if (file_to_ && !is_request(*header_)) {
        const bool wanted = header_->status >= 200 && header_->status < 300 && file_to_->open();
        mode_ = wanted ? mode_t::file : mode_t::dropped;
        if (!wanted) file_to_.reset();
    } else if (begins(type, "multipart/")) {
        mode_ = mode_t::multipart;
        boundary_.reset(http_get_boundary(type.data()));
        if (!boundary_) return false;
        // In quotes (RFC 2046, 5.1.1).
        if (boundary_.get()[2] == '"') {
            char* const begin = boundary_.get() + 2;
            *std::remove(begin, begin + std::strlen(begin), '"') = '\0';
        }
        // Cameras state lengths of streams that have no end.
        if (framing_ != framing_t::chunked && (framing_ == framing_t::none || !is_request(*header_)))
            framing_ = framing_t::close;
    } else {
        mode_ = takes_whole(type) ? mode_t::whole : mode_t::unknown;
    }
    return true;
}

bool message_reader::takes_whole(std::string_view type) const noexcept {
    if (begins(type, "text/") || begins(type, "application/json")) return true;
    std::string_view rest = scan::text(types_.get());
    while (!rest.empty()) {
        const std::string_view each = trim(scan::take(rest, ','));
        if (!each.empty() && begins(type, each)) return true;
    }
    return false;
}

/// Bytes at the front that belong to the body at hand.
uint32_t message_reader::within(const buf_t& from) const noexcept {
    if (framing_ == framing_t::none) return 0;
    return framing_ == framing_t::length ? static_cast<uint32_t>(std::min<uint64_t>(left_, from.length)) : from.length;
}

void message_reader::consume(buf_t& from, uint32_t count) noexcept {
    core_buf_ignore(&from, count);
    if (framing_ == framing_t::length) left_ -= count;
}

message_reader::step_t message_reader::read_body(buf_t& in) noexcept {
    bool all = framing_ == framing_t::none || (framing_ == framing_t::length && in.length >= left_);
    buf_t& from = framing_ == framing_t::chunked ? decoded_ : in;
    bool malformed = false;
    if (framing_ == framing_t::chunked) {
        const uint32_t held = decoded_.length;
        const auto result = chunks_.take(in, decoded_, limit_, file_, line_);
        all = result == chunks::result_t::end;
        malformed = result == chunks::result_t::malformed;
        if (malformed && decoded_.length == held) return refuse(http_malformed);
    }
    const step_t result = mode_ == mode_t::whole       ? read_whole(from, all)
                          : mode_ == mode_t::multipart ? read_parts(from, all)
                                                       : pass_through(from, all);
    // What was decoded before the fault comes first.
    return malformed && phase_ == phase_t::body ? step_t::on : result;
}

message_reader::step_t message_reader::read_whole(buf_t& from, bool all) noexcept {
    if (!all) {
        const bool full = framing_ == framing_t::chunked ? chunks_.full() : from.length > limit_;
        return full ? refuse(http_body_large) : step_t::more;
    }
    const uint32_t size = within(from);
    const buffer_t body{from.data, size};
    const step_t result = complete(size > 0 ? &body : nullptr);
    if (result == step_t::on) consume(from, size);  // else it is no longer the owner's
    return result;
}

/// A body that nobody keeps: dropped, or written to a file.
message_reader::step_t message_reader::pass_through(buf_t& from, bool all) noexcept {
    const uint32_t size = within(from);
    if (mode_ == mode_t::file && size > 0 && !file_to_->write({from.data, size})) return refuse(http_not_written);
    consume(from, size);
    if (!all) return framing_ == framing_t::chunked && size > 0 ? step_t::on : step_t::more;
    if (mode_ == mode_t::file && !file_to_->finish()) return refuse(http_not_written);
    return complete(nullptr);
}

/// The second call of a message, or what stands for it.
message_reader::step_t message_reader::complete(const buffer_t* body) noexcept {
    const bool request = is_request(*header_);
    const bool silent = request && owes_ == owes_t::nothing;
    const bool unknown = mode_ == mode_t::unknown;
    phase_ = phase_t::head;
    if (!silent) {
        owes_ = request ? owes_t::whole : owes_t::nothing;
        if (unknown) owner_.on_unknown_type(value_geti(header_->fields, "Content-Type"));
        if (!call(unknown ? http_unknown_type : http_message, unknown ? nullptr : header_, body, true))
            return step_t::more;
    }
    forget();
    return step_t::on;
}

}  // namespace net::http
