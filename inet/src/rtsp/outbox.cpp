#include "rtsp/outbox.h"

#include "common/digest.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_http_auth.h"

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

// A header and its body go out by one event.
int outbox::send(header_s* header, const char* uri, std::string_view body) noexcept {
    if (talk_.ended) return 0;
    const uint32_t start = bytes_.length;
    const core::owned_text text(http_header_str(header, uri, talk_.file, talk_.line));
    const size_t size = core_strlen(text.get());
    const bool whole = size != 0 && size <= INT32_MAX &&
                       core_buf_read(&bytes_, text.get(), static_cast<uint32_t>(size)) &&
                       (body.empty() || core_buf_read(&bytes_, body.data(), static_cast<uint32_t>(body.size())));
    if (whole) return announce(start);
    bytes_.length = start;
    core_log_print(talk_.log, "%d: message left out: no memory", talk_.number);
    return 0;
}

int outbox::send_content(const char* data, int size) noexcept {
    const uint32_t start = bytes_.length;
    if (!data || size <= 0 || talk_.ended) return 0;
    if (core_buf_read(&bytes_, data, static_cast<uint32_t>(size)) == 0) return 0;
    return announce(start);
}

bool outbox::add_packet(uint8_t channel, const buf_t& packet) noexcept {
    const uint32_t start = bytes_.length;
    if (start > max_unread) return false;
    if (!core_buf_respace(&bytes_, rtp::interleaved_header + packet.length, talk_.file, talk_.line)) return false;
    std::memcpy(bytes_.data + start + rtp::interleaved_header, packet.data, packet.length);
    rtp::add_interleaved(bytes_, channel, packet.length);
    return encode(start);
}

int outbox::send_ok() noexcept {
    reply ok(200, "OK", talk_.cseq());
    ok.put("Session", talk_.identifier);
    ok.put_date();
    return send(ok.header(), nullptr);
}

int outbox::send_methods() noexcept { return send_methods(200, "OK"); }

int outbox::send_methods(unsigned status, const char* reason) noexcept {
    reply methods(status, reason, talk_.cseq());
    methods.put("Public", "OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE");
    methods.put_date();
    return send(methods.header(), nullptr);
}

void outbox::refuse_method(const header_s* header) noexcept {
    core_log_print(talk_.log, "%d: method is not served: %s", talk_.number, header->method);
    if (refuses_methods_) send_methods(501, "Not Implemented");
}

int outbox::send_error(unsigned code, const char* nonce) noexcept {
    // The nonce without credentials is the same for all: it is the owner then who judges the answers.
    static constexpr char fixed_nonce[] = "5b1f0c7e94a2d8360f9d41c6b87ea3527c10e4d96fb285";
    static_assert(sizeof fixed_nonce == 46 + 1);
    const char* reason = code == 454   ? "Session Not Found"
                         : code == 455 ? "Method Not Valid in This State"
                                       : http_error(code);
    reply error(code, reason, talk_.cseq());
    if (code == 401) {
        const core::owned_text challenge(core_sprintf(
            talk_.file, talk_.line, "Digest realm=\"inet\", nonce=\"%s\", stale=FALSE", nonce ? nonce : fixed_nonce));
        error.put("WWW-Authenticate", challenge.get());
    }
    return send(error.header(), nullptr);
}

bool outbox::has_unread_replies() noexcept {
    if (bytes_.length == 0) replies_ = 0;
    return replies_ > max_unread;
}

// What was added from `start` on: counted, logged and announced.
int outbox::announce(uint32_t start) noexcept {
    if (core_log_wanted(talk_.log)) log_sent({reinterpret_cast<char*>(bytes_.data) + start, bytes_.length - start});
    if (!encode(start)) return 0;
    replies_ = start == 0 ? bytes_.length : replies_ + bytes_.length - start;
    talk_.raise(event_t::rtsp_send);
    return 1;
}

// What was added from `start` on becomes Base64, padded, as servers decode each request by itself.
bool outbox::encode(uint32_t start) noexcept {
    if (!base64_) return true;
    const uint32_t size = bytes_.length - start;
    const uint32_t grown = (size + 2) / 3 * 4 - size;
    if (!core_buf_respace(&bytes_, grown, talk_.file, talk_.line)) {
        bytes_.length = start;
        return false;
    }
    b64_encode(bytes_.data + start, size, reinterpret_cast<char*>(bytes_.data) + start);
    bytes_.length += grown;
    return true;
}

// Without the password, which Basic credentials give away (RFC 2617, 2).
void outbox::log_sent(std::string_view text) noexcept {
    constexpr std::string_view credentials = "\r\nAuthorization: Basic ";
    const size_t found = text.find(credentials);
    const bool secret = found != std::string_view::npos;
    const std::string_view front = text.substr(0, secret ? found + credentials.size() : text.size());
    const std::string_view back = text.substr(std::min(text.find("\r\n", front.size()), text.size()));
    core_log_print(talk_.log, "%d: send\n%.*s%s%.*s", talk_.number, static_cast<int>(front.size()), front.data(),
                   secret ? "***" : "", static_cast<int>(back.size()), back.data());
}

}  // namespace rtsp3
