#include "rtsp/tunnel.h"

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

// Another HTTP request has no business here: it is refused and the connection ends.
bool tunnel::take_cookie(const header_s* header) noexcept {
    const char* cookie = field(header, "x-sessioncookie");
    const bool fresh = end_ == end_t::none && talk_.trak_total == 0;
    if (cookie && *cookie && fresh) {
        cookie_.reset(core_strdup(cookie, talk_.file, talk_.line));
        if (cookie_) return true;
    }
    message refusal(http_header_error(http_version(header), 400, 0, nullptr));
    out_.send(refusal.header(), nullptr);
    talk_.fail("HTTP request that opens no tunnel");
    return false;
}

void tunnel::serve_get(const header_s* header) noexcept {
    if (!take_cookie(header)) return;
    const char* connection = field(header, "Connection");
    message ok(http_header_respond(http_version(header), 200, "OK"));
    ok.put("Server", "Norvane-K Rtsp server");
    ok.put("Connection", core_strcasecmp(connection, "close") == 0 ? "close" : "");
    ok.put_date();
    ok.put("Cache-Control", "no-store");
    ok.put("Pragma", "no-cache");
    ok.put("Content-Type", tunnelled);
    end_ = end_t::get;
    in_.drop_rest();
    if (out_.send(ok.header(), nullptr)) {
        talk_.raise(event_t::tunnel_get);
    } else {
        talk_.fail("no memory for a tunnel");
    }
}

void tunnel::serve_post(const header_s* header) noexcept {
    if (!take_cookie(header)) return;
    end_ = end_t::post;
    talk_.raise(event_t::tunnel_post);
    talk_.raise(event_t::rtsp_key);
}

bool tunnel::join(tunnel& get) noexcept {
    if (talk_.ended || end_ != end_t::post || get_) return false;
    if (get.talk_.ended || get.end_ != end_t::get || get.post_) return false;
    get_ = &get;
    get.post_ = this;
    buf_t none;
    in_.take(&none);
    return true;
}

bool tunnel::take_encoded() noexcept {
    if (end_ != end_t::post) return false;
    if (!get_) {
        if (in_.is_full()) talk_.fail("tunnel without its GET");
        return true;
    }
    if (decoded_.length < max_waiting && in_.decode(&decoded_) < 0) {
        talk_.fail("tunnel that is not Base64");
        return true;
    }
    get_->in_.take(&decoded_);
    return true;
}

void tunnel::take_waiting() noexcept {
    buf_t none;
    if (post_) post_->in_.take(&none);
}

bool tunnel::draw_cookie() noexcept {
    cookie_.reset(common_srand(22, talk_.file, talk_.line));
    return cookie_ != nullptr;
}

void tunnel::put_get(message& get) const noexcept {
    get.put("x-sessioncookie", cookie_.get());
    get.put("Accept", tunnelled);
    get.put("Pragma", "no-cache");
    get.put("Cache-Control", "no-cache");
}

// The length is what servers and proxies are used to; the stream may pass it.
void tunnel::put_post(message& post) const noexcept {
    post.put("x-sessioncookie", cookie_.get());
    post.put("Content-Type", tunnelled);
    post.put("Pragma", "no-cache");
    post.put("Cache-Control", "no-cache");
    post.put("Content-Length", "32767");
    post.put("Expires", "Sun, 9 Jan 1972 00:00:00 GMT");
}

void tunnel::forget() noexcept {
    if (get_) get_->post_ = nullptr;
    if (post_) post_->get_ = nullptr;
    get_ = post_ = nullptr;
    end_ = end_t::none;
    core_buf_free(&decoded_);
}

}  // namespace rtsp3
