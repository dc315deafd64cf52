// Multipart bodies (RFC 2046, 5.1), as they come from cameras: parts with or without a length, in a body without an
// end.
#include "net_http/message.h"
#include "scan.h"

#include "avc/fcc.h"
#include "core/time.h"

#include <algorithm>
#include <charconv>

namespace net::http {

namespace {

std::string_view text_of(std::span<const uint8_t> from) noexcept {
    return {reinterpret_cast<const char*>(from.data()), from.size()};
}

struct part_type_t {
    const char* name;
    uint32_t fcc;
    uint32_t bits, rate, channels;
};
constexpr part_type_t part_types[] = {
    {"image/jpeg", av::fcc_jpeg, 0, 0, 0},
    {"video/h264", av::fcc_h264, 0, 0, 0},
    {"audio/pcmu", av::fcc_pcmu, 16, 8000, 1},
};

constexpr size_t longest_delimiter = 200;

/// The delimiter that a body begins with, when the header of a part follows it. Empty for none; not set when more bytes
/// are needed.
std::optional<std::string_view> first_delimiter(std::string_view body) noexcept {
    constexpr std::string_view field = "\r\ncontent-";
    if (body.empty()) return std::nullopt;
    const std::string_view text = scan::skip(body, "\r\n");
    const std::string_view line = text.substr(0, std::min(text.find('\r'), text.size()));
    if (!line.substr(0, 2).empty() && !std::string_view("--").starts_with(line.substr(0, 2))) return "";
    if (line.size() > longest_delimiter || body.size() - text.size() > 4) return "";
    const std::string_view behind = text.substr(line.size(), field.size());
    if (!scan::same_name(behind, field.substr(0, behind.size()))) return "";
    if (behind.size() < field.size()) return std::nullopt;
    return line.size() > 2 ? line : "";
}

}  // namespace

/// Servers that do not know their own type send "application/octet-stream".
message_reader::step_t message_reader::look_for_parts(bytes& from, bool all) noexcept {
    const std::optional<std::string_view> found = first_delimiter(text_of(within(from)));
    if (!found && !all) return step_t::more;
    looking_ = false;
    if (found && !found->empty()) {
        boundary_.reset(core_strndup(found->data(), found->size(), file_, line_));
        if (!boundary_) return refuse(http_malformed);
        to_.reset();
        mode_ = mode_t::multipart;
        // As of what is called multipart, the length is not looked at.
        if (framing_ == framing_t::length) all = false;
        if (framing_ != framing_t::chunked) framing_ = framing_t::close;
    } else if (mode_ == mode_t::file && !to_->open()) {
        return refuse(http_not_written);
    }
    return read_content(from, all);
}

message_reader::step_t message_reader::read_parts(bytes& from, bool all) noexcept {
    const size_t held = from.size();
    for (step_t next = step_t::on; next == step_t::on;) {
        next = framing_ == framing_t::none ? step_t::more
               : behind_boundary_          ? read_boundary(from)
               : skipping_                 ? skip_to_boundary(from)
               : part_                     ? read_part(from)
                                           : read_part_head(from);
        if (phase_ != phase_t::body) return step_t::more;
        if (mode_ != mode_t::multipart) return step_t::on;
    }
    if (all) {
        consume(from, within(from).size());
        return complete(nullptr);
    }
    if (framing_ != framing_t::chunked || !chunks_.full()) return step_t::more;
    return from.size() < held ? step_t::on : refuse(http_body_large);
}

/// Behind a delimiter: the last one has "--" there, and what follows it is nothing.
message_reader::step_t message_reader::read_boundary(bytes& from) noexcept {
    const std::string_view ahead = text_of(within(from)).substr(0, 2);
    if (ahead.size() < 2) return step_t::more;
    behind_boundary_ = false;
    if (ahead != "--") return step_t::on;
    consume(from, ahead.size());
    mode_ = mode_t::dropped;
    if (framing_ == framing_t::close) framing_ = framing_t::none;
    return step_t::on;
}

message_reader::step_t message_reader::leave_part(bytes& from, size_t count, bool at_boundary) noexcept {
    consume(from, count);
    part_ = nullptr;
    searched_ = 0;
    skipping_ = false;
    behind_boundary_ = at_boundary;
    return step_t::on;
}

message_reader::step_t message_reader::skip_to_boundary(bytes& from) noexcept {
    const std::string_view text = text_of(within(from));
    const std::string_view boundary = boundary_.get();
    const size_t end = text.find(boundary);
    if (end != std::string_view::npos) return leave_part(from, end + boundary.size(), true);
    consume(from, text.size() - std::min(text.size(), boundary.size() - 1));
    return step_t::more;
}

message_reader::step_t message_reader::read_part_head(bytes& from) noexcept {
    const std::string_view text = text_of(within(from));
    const std::string_view boundary = boundary_.get();
    const head_text found(text, role_ == role_t::client);
    if (found.size < 0) {
        // No header: up to the next boundary it is nothing.
        skipping_ = true;
        return step_t::on;
    }
    const std::string_view head = found.size > 0 ? text.substr(0, static_cast<size_t>(found.size)) : text;
    const size_t end = head.find(boundary);
    if (end != std::string_view::npos) return leave_part(from, end + boundary.size(), true);
    if (found.size == 0) return step_t::more;
    if (!take_part_head(found.text)) return refuse(http_malformed);
    part_head_size_ = searched_ = head.size();
    return part_length_.value_or(0) > limit_ ? refuse(http_body_large) : step_t::on;
}

/// @return false when memory is out
bool message_reader::take_part_head(std::string_view text) noexcept {
    // A part has no start line.
    constexpr std::string_view start = "HTTP/1.1 200 OK\r\n";
    part_ = part_head_.read(start, scan::skip(text, "\r\n"));
    if (!part_) return false;
    const std::string_view length = scan::text(value_geti(part_->fields, "Content-Length"));
    uint64_t value = 0;
    const auto result = std::from_chars(length.data(), length.data() + length.size(), value);
    part_length_ = result.ec == std::errc() ? std::optional(value) : std::nullopt;
    return true;
}

message_reader::step_t message_reader::read_part(bytes& from) noexcept {
    const bytes there = within(from);
    const bytes content = there.subspan(part_head_size_);
    if (part_length_) {
        const auto length = static_cast<size_t>(*part_length_);
        if (content.size() < length) return step_t::more;
        if (hand_over_part(content.first(length)) == step_t::more) return step_t::more;
        return leave_part(from, part_head_size_ + length, false);
    }
    const std::string_view boundary = boundary_.get();
    const size_t end = text_of(there).find(boundary, searched_);
    const bool found = end != std::string_view::npos;
    searched_ = found ? end : std::max(part_head_size_, there.size() - std::min(there.size(), boundary.size() - 1));
    const size_t size = searched_ - part_head_size_;
    if (size > limit_) return refuse(http_body_large);
    if (!found) return step_t::more;
    if (hand_over_part(content.first(size)) == step_t::more) return step_t::more;
    return leave_part(from, end + boundary.size(), true);
}

/// @return `more` when the owner has reset or stopped the reader
message_reader::step_t message_reader::hand_over_part(bytes content) noexcept {
    if (silent_) return step_t::on;
    const std::string_view type = scan::text(value_geti(part_->fields, "Content-Type"));
    const std::string_view name = scan::trim(scan::split(type, ';').key, " \t");
    const auto* known =
        std::ranges::find_if(part_types, [&](const part_type_t& each) { return scan::same_name(name, each.name); });
    av::frame_t frame{};
    if (known != std::end(part_types)) {
        frame.fcc = known->fcc;
        frame.bits = known->bits;
        frame.rate = known->rate;
        frame.channels = known->channels;
    }
    frame.time = time_now();
    frame.data = content.data();
    frame.size = static_cast<uint32_t>(content.size());
    frame.key = frame.fcc == av::fcc_jpeg;
    frame.complete = 1;
    const uint32_t turn = turn_;
    ++calling_;
    owner_.on_frame(frame);
    leave_call();
    return turn == turn_ ? step_t::on : step_t::more;
}

}  // namespace net::http
