// RTSP over HTTP: a GET carries what the server sends, a POST what the client asks, as Base64.
#include "rtsp/tunnel.h"

#include "rtsp/client.h"

#include "common/digest.h"
#include "core/text.h"

#include <algorithm>
#include <cstring>

namespace rtsp3 {

using net::http::header_s;

namespace {

constexpr char tunnelled[] = "application/x-rtsp-tunnelled";

const char* http_version(const header_s* header) noexcept {
    return header->protocol && std::strncmp(header->protocol, "HTTP/", 5) == 0 ? header->protocol : "HTTP/1.0";
}

/// The part of an absolute URI that an HTTP request names.
const char* path_of(const char* uri) noexcept {
    const char* authority = std::strstr(uri, "://");
    const char* path = authority ? authority + 3 + std::strcspn(authority + 3, "/?") : uri;
    return *path ? path : "/";
}

}  // namespace

int decode_base64_stream(buf_t* text, buf_t* out, const char* file, int line) noexcept {
    constexpr uint32_t group = 4;
    auto* const begin = reinterpret_cast<char*>(text->data);
    const auto is_blank = [](char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\t'; };
    text->length = static_cast<uint32_t>(std::remove_if(begin, begin + text->length, is_blank) - begin);
    const uint32_t whole = text->length / group * group;
    if (!core_buf_respace(out, whole + group, file, line)) return 0;
    for (uint32_t at = 0; at < whole;) {
        // Up to the group that has padding, which is as far as the decoder goes.
        const void* pad = std::memchr(begin + at, '=', whole - at);
        const auto to_pad = pad ? static_cast<uint32_t>(static_cast<const char*>(pad) - begin - at) : whole - at;
        const uint32_t size = pad ? to_pad / group * group + group : to_pad;
        const auto padding = static_cast<uint32_t>(std::count(begin + at, begin + at + size, '='));
        const bool is_last = std::all_of(begin + at + to_pad, begin + at + size, [](char c) { return c == '='; });
        if (padding > 2 || !is_last) return -1;
        if (b64_decode(begin + at, size, out, file, line) != size / group * 3 - padding) return -1;
        at += size;
    }
    core_buf_ignore(text, whole);
    return 1;
}

// Either may be the beginning of a stream: neither has a body that ends, whatever its Content-Length. Only a refusal
// that is answered with credentials is followed by another answer, behind its body.
bool Rtsp::has_no_body(const header_s* header) const noexcept {
    if (header->status) return step_ == step_t::tunnel && header->status != 401;
    return header->method && (std::strcmp(header->method, "GET") == 0 || std::strcmp(header->method, "POST") == 0);
}

// Another HTTP request has no business here: it is refused and the connection ends.
bool Rtsp::take_cookie(header_s* header) noexcept {
    const char* cookie = field(header, "x-sessioncookie");
    const bool fresh = tunnel_ == tunnel_t::none && trak_count_ == 0;
    if (cookie && *cookie && fresh) {
        cookie_.reset(core_strdup(cookie, file_, line_));
        if (cookie_) return true;
    }
    message refusal(http_header_error(http_version(header), 400, 0, nullptr));
    send_header(refusal.header(), nullptr);
    fail("HTTP request that opens no tunnel");
    return false;
}

void Rtsp::process_get(header_s* header) noexcept {
    if (!header || header->status) return take_get(header);
    if (!take_cookie(header)) return;
    const char* connection = field(header, "Connection");
    message ok(http_header_respond(http_version(header), 200, "OK"));
    ok.put("Server", "Norvane-K Rtsp server");
    ok.put("Connection", core_strcasecmp(connection, "close") == 0 ? "close" : "");
    ok.put_date();
    ok.put("Cache-Control", "no-store");
    ok.put("Pragma", "no-cache");
    ok.put("Content-Type", tunnelled);
    tunnel_ = tunnel_t::get_server;
    used_ = receive_.length;
    if (send_header(ok.header(), nullptr)) {
        raise(event_t::tunnel_get);
    } else {
        fail("no memory for a tunnel");
    }
}

void Rtsp::process_post(header_s* header) noexcept {
    if (header) {
        if (header->status || !take_cookie(header)) return;
        tunnel_ = tunnel_t::post_server;
        raise(event_t::tunnel_post);
        raise(event_t::rtsp_key);
        return;
    }
    if (!may_ask()) return;
    // The length is what servers and proxies are used to; the stream may pass it.
    request post("POST", path_of(uri_.get()), "HTTP/1.0", ++next_cseq_);
    post.put("x-sessioncookie", cookie_.get());
    post.put("Content-Type", tunnelled);
    post.put("Pragma", "no-cache");
    post.put("Cache-Control", "no-cache");
    post.put("Content-Length", "32767");
    post.put("Expires", "Sun, 9 Jan 1972 00:00:00 GMT");
    add_credentials(post, "POST", path_of(uri_.get()));
    if (!post.header() || !send_header(post.header(), nullptr)) failed("POST", 0, "no memory");
}

int Rtsp::ask_get(trak_t*) noexcept {
    if (!may_ask()) return 0;
    step_ = step_t::tunnel;
    const char* path = path_of(uri_.get());
    request get("GET", path, "HTTP/1.0", ++next_cseq_);
    get.put("x-sessioncookie", cookie_.get());
    get.put("Accept", tunnelled);
    get.put("Pragma", "no-cache");
    get.put("Cache-Control", "no-cache");
    add_credentials(get, "GET", path);
    if (!repeating_) raise(event_t::tunnel_get);
    return send_pending(asked_t::get, get, nullptr, nullptr);
}

void Rtsp::take_get(header_s* header) noexcept {
    if (!header) {
        ask_get(nullptr);
        return;
    }
    if (step_ != step_t::tunnel) return;
    step_ = step_t::none;
    send_.length = 0;
    raise(event_t::tunnel_post);
    process_post(nullptr);
    if (closed_) return;
    tunnel_ = tunnel_t::post_client;
    ask_options(nullptr);
}

// What was added to the send buffer from `start` on becomes Base64, padded, as servers decode each request by itself.
bool Rtsp::encode_tunnel(uint32_t start) noexcept {
    if (tunnel_ != tunnel_t::post_client) return true;
    const uint32_t size = send_.length - start;
    const uint32_t grown = (size + 2) / 3 * 4 - size;
    if (!core_buf_respace(&send_, grown, file_, line_)) {
        send_.length = start;
        return false;
    }
    b64_encode(send_.data + start, size, reinterpret_cast<char*>(send_.data) + start);
    send_.length += grown;
    return true;
}

int Rtsp::join(Rtsp* get) noexcept {
    if (closed_ || tunnel_ != tunnel_t::post_server || get_) return 0;
    if (!get || get->closed_ || get->tunnel_ != tunnel_t::get_server || get->post_) return 0;
    get_ = get;
    get->post_ = this;
    buf_t none;
    take(&none);
    return 1;
}

void Rtsp::leave_tunnel() noexcept {
    if (get_) get_->post_ = nullptr;
    if (post_) post_->get_ = nullptr;
    get_ = post_ = nullptr;
}

bool Rtsp::decode_tunnel() noexcept {
    if (!get_) {
        if (receive_.length >= max_waiting) fail("tunnel without its GET");
        return false;
    }
    if (decoded_.length < max_waiting && used_ < receive_.length) {
        buf_t text{receive_.data + used_, receive_.size - used_, receive_.length - used_};
        const int decoded = decode_base64_stream(&text, &decoded_, file_, line_);
        receive_.length = used_ + text.length;
        if (decoded < 0) {
            fail("tunnel that is not Base64");
            return false;
        }
    }
    get_->take(&decoded_);
    return false;
}

}  // namespace rtsp3
