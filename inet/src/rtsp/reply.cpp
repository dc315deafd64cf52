// Messages: put together as headers, printed into the send buffer whole or not at all.
#include "rtsp/session.h"

#include "core/text.h"
#include "core/time.h"

#include <cstring>

namespace rtsp3 {

using net::http::header_s;

reply::reply(unsigned status, const char* reason, const char* cseq) noexcept
    : message(http_header_respond("RTSP/1.0", status, reason)) {
    put("CSeq", cseq);
}

request::request(const char* method, const char* uri, const char* protocol, uint32_t cseq) noexcept
    : message(http_header_request(method, uri, protocol)) {
    put_number("CSeq", cseq);
    put("User-Agent", "Norvane-K Rtsp Client 14.01");
}

void message::put(const char* name, const char* value) noexcept {
    if (value && !*value) return;
    complete_ = complete_ && value && http_header_put(header_, name, value);
}

void message::put_number(const char* name, uint32_t value) noexcept {
    complete_ = complete_ && http_header_put_uint32(header_, name, value);
}

void message::put_date() noexcept {
    char date[40];
    time_format(time_now(), "%a, %d %b %Y %H:%M:%S GMT", date, sizeof date);
    put("Date", date);
}

// Appends without announcing, so that a header and its body go out by one event.
bool Rtsp::append_header(header_s* header, const char* uri) noexcept {
    if (closed_) return false;
    const core::owned_text text(http_header_str(header, uri, file_, line_));
    const size_t size = core_strlen(text.get());
    if (size == 0 || size > INT32_MAX || !core_buf_read(&send_, text.get(), static_cast<uint32_t>(size))) {
        core_log_print(log_, "%d: message left out: no memory", id_);
        return false;
    }
    return true;
}

// Without the password, which Basic credentials give away (RFC 2617, 2).
void Rtsp::log_sent(std::string_view text) noexcept {
    constexpr std::string_view credentials = "\r\nAuthorization: Basic ";
    const size_t found = text.find(credentials);
    const bool secret = found != std::string_view::npos;
    const std::string_view front = text.substr(0, secret ? found + credentials.size() : text.size());
    const std::string_view back = text.substr(std::min(text.find("\r\n", front.size()), text.size()));
    core_log_print(log_, "%d: send\n%.*s%s%.*s", id_, static_cast<int>(front.size()), front.data(), secret ? "***" : "",
                   static_cast<int>(back.size()), back.data());
}

// What was added from `start` on: counted, logged and announced.
int Rtsp::announce_reply(uint32_t start) noexcept {
    if (core_log_wanted(log_)) log_sent({reinterpret_cast<char*>(send_.data) + start, send_.length - start});
    if (!encode_tunnel(start)) return 0;
    replies_ = start == 0 ? send_.length : replies_ + send_.length - start;
    raise(event_t::rtsp_send);
    return 1;
}

// Whether the peer has left so much of what was said that it gets no more. Frames have a limit of their own.
bool Rtsp::is_unread() noexcept {
    if (send_.length == 0) replies_ = 0;
    return (role_ == role_t::client ? send_.length : replies_) > max_replies_waiting;
}

int Rtsp::send_header(header_s* header, const char* uri) noexcept {
    const uint32_t start = send_.length;
    return append_header(header, uri) ? announce_reply(start) : 0;
}

int Rtsp::send_content(const char* data, int size) noexcept {
    const uint32_t start = send_.length;
    if (!data || size <= 0 || closed_) return 0;
    if (core_buf_read(&send_, data, static_cast<uint32_t>(size)) == 0) return 0;
    return announce_reply(start);
}

int Rtsp::send_ok() noexcept {
    reply ok(200, "OK", cseq_);
    ok.put("Session", session_);
    ok.put_date();
    return send_header(ok.header(), nullptr);
}

int Rtsp::send_error(unsigned code) noexcept {
    // The nonce without credentials is the same for all: it is the owner then who judges the answers.
    static constexpr char fixed_nonce[] = "5b1f0c7e94a2d8360f9d41c6b87ea3527c10e4d96fb285";
    static_assert(sizeof fixed_nonce == 46 + 1);
    const char* reason = code == 454   ? "Session Not Found"
                         : code == 455 ? "Method Not Valid in This State"
                                       : http_error(code);
    reply error(code, reason, cseq_);
    if (code == 401) {
        const core::owned_text challenge(core_sprintf(file_, line_, "Digest realm=\"%s\", nonce=\"%s\", stale=FALSE",
                                                      auth_realm, nonce_ ? nonce_.get() : fixed_nonce));
        error.put("WWW-Authenticate", challenge.get());
    }
    return send_header(error.header(), nullptr);
}

}  // namespace rtsp3
