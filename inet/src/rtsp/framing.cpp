// Cuts the stream into interleaved packets, headers and bodies (RFC 2326, 4 and 10.12).
#include "rtsp/session.h"

#include <algorithm>
#include <charconv>

namespace rtsp3 {

namespace {

using net::http::header_s;

constexpr uint32_t max_header = 4098;
constexpr uint32_t max_body = 64 * 1024;
constexpr uint32_t slice = 16 * 1024;  // what is taken of the owner's bytes at a time

std::string_view trim(std::string_view text) noexcept {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && blank(text.back()))
        text.remove_suffix(1);
    return text;
}

/// Bytes of the body that follows a header; 0 without a Content-Length. False when it cannot be told or is too long.
bool body_length(const header_s* header, uint32_t* length) noexcept {
    *length = 0;
    const char* value = value_geti(header->fields, "Content-Length");
    if (!value) return true;
    const std::string_view digits = trim(value);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), *length);
    return error == std::errc() && end == digits.data() + digits.size() && *length <= max_body;
}

}  // namespace

void Rtsp::process(buf_t* data) noexcept {
    if (data && tunnel_ == tunnel_t::get_server) core_buf_ignore(data, data->length);
    take(data);
    buf_t none;
    if (post_) post_->take(&none);  // what waited for this call to be through
}

// What process() takes, and what comes out of the POST connection of a tunnel.
void Rtsp::take(buf_t* data) noexcept {
    if (!data || running_) return;
    const running call(*this);
    const tunnel_t before = tunnel_;
    uint32_t taken = 0;
    serve_waiting();  // what found no memory the last time
    while (!closed_ && taken < data->length && receive_.length < max_waiting) {
        const uint32_t piece = std::min(data->length - taken, slice);
        if (!core_buf_respace(&receive_, piece, file_, line_)) break;
        core_buf_read(&receive_, data->data + taken, piece);
        taken += piece;
        serve_waiting();
        if (tunnel_ == tunnel_t::get_server && before != tunnel_) taken = data->length;
    }
    core_buf_ignore(data, closed_ ? data->length : taken);
}

void Rtsp::serve_waiting() noexcept {
    while (!closed_ && serve_next()) {
    }
    core_buf_ignore(&receive_, used_);
    used_ = 0;
}

bool Rtsp::serve_next() noexcept {
    if (held_) return serve_held();
    if (tunnel_ == tunnel_t::post_server) return decode_tunnel();
    if (receive_.length - used_ <= interleaved_header) return false;
    return receive_.data[used_] == '$' ? take_interleaved() : take_header();
}

bool Rtsp::take_interleaved() noexcept {
    uint8_t* packet = receive_.data + used_;
    const uint32_t length = static_cast<uint32_t>(packet[2]) << 8 | packet[3];
    if (receive_.length - used_ < interleaved_header + length) return false;
    process_rtp(packet[1], buffer_t{packet + interleaved_header, length});
    used_ += interleaved_header + length;
    return true;
}

bool Rtsp::take_header() noexcept {
    const std::string_view waiting(reinterpret_cast<const char*>(receive_.data) + used_, receive_.length - used_);
    const size_t end = waiting.substr(0, max_header).find("\r\n\r\n");
    if (end == std::string_view::npos) {
        if (waiting.size() >= max_header) fail("header without an end");
        return false;
    }
    const int size = static_cast<int>(end + 4);
    header_s* header = http_header_parse(waiting.data(), static_cast<unsigned>(size), file_, line_);
    if (!header) return false;  // no memory: the next bytes try again
    core_log_print(log_, "%u: recv\n%.*s", static_cast<unsigned>(id_), size, waiting.data());
    used_ += static_cast<uint32_t>(size);
    if (!header->method && !header->status) {
        core_log_print(log_, "rtsp header parse failed:\n%.*s", size, waiting.data());
        core_con_printf(0, "rtsp header parse failed:\n%.*s", size, waiting.data());
        http_header_free(header);
        count_senseless();
        return !closed_;
    }
    held_ = header;
    return serve_held();
}

bool Rtsp::serve_held() noexcept {
    if (!process_header(held_)) return false;
    http_header_free(held_);
    return true;
}

int Rtsp::process_header(header_s* header) noexcept {
    if (!header || closed_) return 1;
    const running call(*this);
    uint32_t body = 0;
    if (!has_no_body(header) && !body_length(header, &body)) {
        if (!header->status) {
            remember_cseq(header);
            send_error(400);
        }
        fail("body without a usable length");
        return 1;
    }
    if (receive_.length - used_ < body) return 0;
    body_ = buffer_t{receive_.data + used_, body};
    used_ += body;
    if (header->status) {
        serve_response(header);
    } else {
        serve_request(header);
    }
    body_ = {};
    return 1;
}

}  // namespace rtsp3
