#include "rtsp/framing.h"

#include "rtsp/tunnel.h"
#include "scan.h"

#include "core/text.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace rtsp3 {

namespace {

using net::http::header_s;

constexpr uint32_t max_header = 4098;
constexpr uint32_t max_body = 64 * 1024;
constexpr uint32_t slice = 16 * 1024;  // what is taken of the owner's bytes at a time

constexpr std::string_view blanks = " \t";

/// Whether the head says one thing only of what follows it.
bool is_definite(const header_s* header) noexcept {
    std::optional<std::string_view> length;
    for (value_t* const* field = header->fields; field && *field; ++field) {
        if (core_strcasecmp((*field)->key, "Content-Length") != 0) continue;
        const std::string_view value = scan::trim(scan::text((*field)->value), blanks);
        if (length && value != *length) return false;
        length = value;
    }
    return true;
}

/// Bytes of the body that follows a header; 0 without a Content-Length. False when it cannot be told or is too long.
bool body_length(const header_s* header, uint32_t* length) noexcept {
    *length = 0;
    const char* value = field(header, "Content-Length");
    if (!value) return true;
    const std::string_view digits = scan::trim(value, blanks);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), *length);
    return error == std::errc() && end == digits.data() + digits.size() && *length <= max_body;
}

}  // namespace

void framing::take(buf_t* data) noexcept {
    if (!data || talk_.running) return;
    const conversation::call running(talk_);
    uint32_t taken = 0;
    dropping_ = false;
    serve();  // what found no memory the last time
    while (!talk_.ended && taken < data->length && !is_full()) {
        const uint32_t piece = std::min(data->length - taken, slice);
        if (!core_buf_respace(&received_, piece, talk_.file, talk_.line)) break;
        core_buf_read(&received_, data->data + taken, piece);
        taken += piece;
        serve();
        if (dropping_) taken = data->length;
    }
    core_buf_ignore(data, talk_.ended ? data->length : taken);
}

void framing::resume() noexcept {
    const conversation::call running(talk_);
    serve();
}

void framing::serve() noexcept {
    while (!talk_.ended && serve_next()) {
    }
    core_buf_ignore(&received_, used_);
    used_ = 0;
}

bool framing::serve_next() noexcept {
    if (held_) return serve_held();
    if (taker_.take_encoded()) return false;
    // Empty lines before a message mean nothing (RFC 7230, 3.5), such as those of a body that is longer than told.
    while (used_ != received_.length && (received_.data[used_] == '\r' || received_.data[used_] == '\n'))
        ++used_;
    if (received_.length - used_ <= rtp::interleaved_header) return false;
    if (received_.data[used_] == '$') return cut_packet();
    if (taker_.is_ready()) return cut_header();
    if (received_.length - used_ >= max_waiting) talk_.fail("too much comes while an answer is owed");
    return false;
}

bool framing::cut_packet() noexcept {
    uint8_t* packet = received_.data + used_;
    const uint32_t length = static_cast<uint32_t>(packet[2]) << 8 | packet[3];
    if (received_.length - used_ < rtp::interleaved_header + length) return false;
    taker_.take_packet(packet[1], buffer_t{packet + rtp::interleaved_header, length});
    used_ += rtp::interleaved_header + length;
    return true;
}

bool framing::cut_header() noexcept {
    const std::string_view waiting(reinterpret_cast<const char*>(received_.data) + used_, received_.length - used_);
    const size_t end = waiting.substr(0, max_header).find("\r\n\r\n");
    if (end == std::string_view::npos) {
        if (waiting.size() >= max_header) talk_.fail("header without an end");
        return false;
    }
    const int size = static_cast<int>(end + 4);
    header_s* header = http_header_parse(waiting.data(), static_cast<unsigned>(size), talk_.file, talk_.line);
    if (!header) return false;  // no memory: the next bytes try again
    core_log_print(talk_.log, "%u: recv\n%.*s", static_cast<unsigned>(talk_.number), size, waiting.data());
    used_ += static_cast<uint32_t>(size);
    // What is behind a NUL was not read: a body could be taken for the next request.
    if (waiting.substr(0, end).find('\0') != std::string_view::npos) {
        taker_.refuse(header);
        http_header_free(header);
        talk_.fail("header with a NUL");
        return false;
    }
    if (!header->method && !header->status) {
        core_log_print(talk_.log, "rtsp header parse failed:\n%.*s", size, waiting.data());
        core_con_printf(0, "rtsp header parse failed:\n%.*s", size, waiting.data());
        http_header_free(header);
        taker_.take_nonsense();
        return !talk_.ended;
    }
    held_ = header;
    return serve_held();
}

bool framing::serve_held() noexcept {
    if (!take_header(held_)) return false;
    http_header_free(held_);
    return true;
}

void framing::trim(header_s* header) noexcept {
    const auto trim_end = [](char* text) {
        for (size_t size = core_strlen(text); size != 0 && (text[size - 1] == ' ' || text[size - 1] == '\t');)
            text[--size] = '\0';
    };
    for (value_t* const* field = header->fields; field && *field; ++field) {
        trim_end((*field)->key);
        trim_end((*field)->value);
    }
}

bool framing::take_header(header_s* header) noexcept {
    if (!header || talk_.ended) return true;
    if (!taker_.is_ready()) return false;
    const conversation::call running(talk_);
    trim(header);
    uint32_t size = 0;
    if (!is_definite(header) || (!taker_.has_no_body(header) && !body_length(header, &size))) {
        taker_.refuse(header);
        talk_.fail("body without a usable length");
        return true;
    }
    if (received_.length - used_ < size) return false;
    talk_.body = buffer_t{received_.data + used_, size};
    used_ += size;
    taker_.take_message(header);
    talk_.body = {};
    return true;
}

void framing::drop_rest() noexcept {
    used_ = received_.length;
    dropping_ = true;
}

int framing::decode(buf_t* out) noexcept {
    if (used_ == received_.length) return 1;
    buf_t text{received_.data + used_, received_.size - used_, received_.length - used_};
    const int decoded = decode_base64_stream(&text, out, talk_.file, talk_.line);
    received_.length = used_ + text.length;
    return decoded;
}

void framing::forget() noexcept {
    if (held_) http_header_free(held_);
    received_.length = used_ = 0;
}

void framing::free() noexcept {
    forget();
    core_buf_free(&received_);
}

}  // namespace rtsp3
