// What a session sends: messages, put together as headers and printed whole or not at all, and packets between them.
#pragma once

#include "rtsp/conversation.h"

#include "core/buf.h"

#include <cstdint>
#include <string_view>

namespace rtsp3 {

/// A message being put together. Out of memory makes it incomplete, and an incomplete one is not sent.
class message {
public:
    /// @param header  becomes the message's own
    explicit message(net::http::header_s* header) noexcept : header_(header), complete_(header != nullptr) {}
    ~message() { http_header_free(header_); }
    message(const message&) = delete;
    message& operator=(const message&) = delete;

    /// Adds a field; an empty text is left out, a null one makes the message incomplete.
    void put(const char* name, const char* value) noexcept;
    void put_number(const char* name, uint32_t value) noexcept;
    void put_date() noexcept;

    /// The header, or null when it is incomplete.
    net::http::header_s* header() const noexcept { return complete_ ? header_ : nullptr; }

private:
    net::http::header_s* header_;
    bool complete_;
};

class reply : public message {
public:
    /// @param cseq  of the request; "" when it had none
    reply(unsigned status, const char* reason, const char* cseq) noexcept;
};

class request : public message {
public:
    /// @param uri  null when it is written as it is, see outbox::send()
    request(const char* method, const char* uri, const char* protocol, uint32_t cseq) noexcept;
};

/// All of its int results are 1, or 0 when nothing was sent.
class outbox {
public:
    explicit outbox(conversation& of) noexcept : talk_(of) {}
    ~outbox() { core_buf_free(&bytes_); }
    outbox(const outbox&) = delete;
    outbox& operator=(const outbox&) = delete;

    buf_t& bytes() noexcept { return bytes_; }
    /// Whether what is said becomes Base64, as it goes by the POST connection of a tunnel.
    void set_base64(bool on) noexcept { base64_ = on; }
    void clear() noexcept { bytes_.length = replies_ = 0; }

    /// @param header  null for one that is incomplete
    /// @param uri     target of a request, written as it is; else null
    int send(net::http::header_s* header, const char* uri, std::string_view body = {}) noexcept;
    int send_content(const char* data, int size) noexcept;
    /// A packet between the messages, unless so much waits already. False when it was left out.
    bool add_packet(uint8_t channel, const buf_t& packet) noexcept;

    /// Answers to the request being served.
    int send_ok() noexcept;
    int send_methods() noexcept;
    /// To a request of a method that is not known: nothing, unless the owner wants it told.
    void refuse_method(const net::http::header_s* header) noexcept;
    void set_refuses_methods(bool on) noexcept { refuses_methods_ = on; }
    /// @param nonce  of the challenge of a 401; null for the one that is the same for all
    int send_error(unsigned code, const char* nonce = nullptr) noexcept;

    /// Whether the peer has left so much of what was said that it gets no more. Frames have a limit of their own, so a
    /// server counts the replies alone.
    bool has_unread_replies() noexcept;
    bool has_unread_bytes() const noexcept { return bytes_.length > max_unread; }
    /// A picture was taken, so somebody reads.
    void count_replies_anew() noexcept { replies_ = 0; }

private:
    static constexpr uint32_t max_unread = 64 * 1024;

    int send_methods(unsigned status, const char* reason) noexcept;
    bool encode(uint32_t start) noexcept;
    void log_sent(std::string_view text) noexcept;
    int announce(uint32_t start) noexcept;

    conversation& talk_;
    buf_t bytes_;
    uint32_t replies_ = 0;  // bytes of replies added since nothing waited or a picture was taken
    bool base64_ = false;
    bool refuses_methods_ = false;
};

}  // namespace rtsp3
