// Multipart bodies (RFC 2046, 5.1), as they come from cameras: parts with or without a length, in a body without an end.
#include "net_http/message.h"
#include "scan.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <charconv>

namespace net::http {

namespace {

constexpr uint32_t most_part_head = 4096 + 3;  // as far as http_header_find() looks

std::string_view text_of(const buf_t& from, uint32_t size) noexcept {
    return {reinterpret_cast<const char*>(from.data), size};
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

}  // namespace

message_reader::step_t message_reader::read_parts(buf_t& from, bool all) noexcept {
    const uint32_t held = from.length;
    for (;;) {
        const uint32_t size = within(from);
        if (behind_boundary_) {
            const std::string_view ahead = text_of(from, std::min(size, 2U));
            if (ahead == "--") {  // the last one; what stands behind it is nothing
                mode_ = mode_t::dropped;
                const bool stands_alone = framing_ == framing_t::close;
                if (stands_alone) consume(from, 2);
                if (stands_alone) framing_ = framing_t::none;
                return step_t::on;
            }
            if (ahead.size() == 2) behind_boundary_ = false;
        }
        if (!behind_boundary_) {
            const step_t result = part_ ? read_part(from) : read_part_head(from);
            if (phase_ != phase_t::body) return step_t::more;
            if (result == step_t::on) continue;
        }
        if (all) return complete(nullptr);
        if (framing_ != framing_t::chunked || !chunks_.full()) return step_t::more;
        return from.length < held ? step_t::on : refuse(http_body_large);
    }
}

message_reader::step_t message_reader::leave_part(buf_t& from, uint32_t count, bool at_boundary) noexcept {
    consume(from, count);
    http_header_free(part_);
    searched_ = 0;
    behind_boundary_ = at_boundary;
    return step_t::on;
}

message_reader::step_t message_reader::read_part_head(buf_t& from) noexcept {
    const std::string_view text = text_of(from, within(from));
    const std::string_view boundary = boundary_.get();
    const int size = http_find_header(text.data(), static_cast<unsigned>(text.size()));
    const std::string_view head = size > 0 ? text.substr(0, static_cast<size_t>(size)) : text;
    const size_t end = head.find(boundary);
    if (end != std::string_view::npos) return leave_part(from, static_cast<uint32_t>(end + boundary.size()), true);
    if (size > 0) {
        if (!take_part_head(head)) return refuse(http_malformed);
        return part_length_.value_or(0) > limit_ ? refuse(http_body_large) : step_t::on;
    }
    // No header, and not a boundary either: what cannot be the beginning of one is nothing.
    if (size < 0) consume(from, static_cast<uint32_t>(text.size() - std::min(text.size(), boundary.size() - 1)));
    return step_t::more;
}

/// @return false when memory is out
bool message_reader::take_part_head(std::string_view text) noexcept {
    // A part has no start line.
    constexpr std::string_view start = "HTTP/1.1 200 OK\r\n";
    char whole[start.size() + most_part_head + 1];
    const std::string_view fields = scan::skip(text, "\r\n");
    char* const end = std::ranges::copy(fields, std::ranges::copy(start, whole).out).out;
    part_ = http_header_parse(whole, static_cast<unsigned>(end - whole), file_, line_);
    if (!part_) return false;
    part_head_ = static_cast<uint32_t>(text.size());
    const std::string_view length = scan::text(value_geti(part_->fields, "Content-Length"));
    uint64_t value = 0;
    const auto result = std::from_chars(length.data(), length.data() + length.size(), value);
    part_length_ = result.ec == std::errc() ? std::optional(value) : std::nullopt;
    searched_ = part_head_;
    return true;
}

message_reader::step_t message_reader::read_part(buf_t& from) noexcept {
    const uint32_t size = within(from);
    uint8_t* const content = from.data + part_head_;
    if (part_length_) {
        const auto length = static_cast<uint32_t>(*part_length_);
        if (size - part_head_ < length) return step_t::more;
        return hand_over_part(content, length) ? leave_part(from, part_head_ + length, false) : step_t::more;
    }
    const std::string_view boundary = boundary_.get();
    const std::string_view text = text_of(from, size);
    const size_t end = text.find(boundary, searched_);
    if (end == std::string_view::npos) {
        searched_ = std::max(part_head_, size - static_cast<uint32_t>(std::min<size_t>(size, boundary.size() - 1)));
        return size - part_head_ > limit_ ? refuse(http_body_large) : step_t::more;
    }
    if (!hand_over_part(content, static_cast<uint32_t>(end) - part_head_)) return step_t::more;
    return leave_part(from, static_cast<uint32_t>(end + boundary.size()), true);
}

/// @return false when the owner has reset or stopped the reader
bool message_reader::hand_over_part(uint8_t* data, uint32_t size) noexcept {
    std::string_view type = scan::text(value_geti(part_->fields, "Content-Type"));
    type = scan::split(type, ';').key;
    type = type.substr(0, type.find_last_not_of(" \t") + 1);
    const auto* known = std::ranges::find_if(part_types, [&](const part_type_t& each) {
        return type.size() == std::string_view(each.name).size() &&
               core_strncasecmp(type.data(), each.name, type.size()) == 0;
    });
    av::frame_t frame{};
    if (known != std::end(part_types)) {
        frame.fcc = known->fcc;
        frame.bits = known->bits;
        frame.rate = known->rate;
        frame.channels = known->channels;
    }
    frame.time = time_now();
    frame.data = data;
    frame.size = size;
    frame.key = frame.fcc == av::fcc_jpeg;
    frame.complete = 1;
    const uint32_t turn = turn_;
    owner_.on_frame(frame);
    return turn == turn_;
}

}  // namespace net::http
