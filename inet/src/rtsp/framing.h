// Cuts the received stream into interleaved packets, headers and bodies (RFC 2326, 4 and 10.12).
#pragma once

#include "rtsp/conversation.h"

namespace rtsp3 {

class framing {
public:
    /// Takes what was cut.
    class taker {
    public:
        /// Whether the bytes that wait are no messages, but those of a tunnel; these are then taken.
        virtual bool take_encoded() noexcept = 0;
        /// Whether the next message is taken; it waits as long as it is not.
        virtual bool is_ready() const noexcept = 0;
        virtual bool has_no_body(const net::http::header_s* header) const noexcept = 0;
        /// A message, with its body in conversation::body.
        virtual void take_message(net::http::header_s* header) noexcept = 0;
        virtual void take_packet(uint8_t channel, buffer_t packet) noexcept = 0;
        /// Answers a request whose body cannot be told.
        virtual void refuse(const net::http::header_s* header) noexcept = 0;
        /// A header that is none.
        virtual void take_nonsense() noexcept = 0;

    protected:
        ~taker() = default;
    };

    framing(conversation& of, taker& to) noexcept : talk_(of), taker_(to) {}
    ~framing() { free(); }
    framing(const framing&) = delete;
    framing& operator=(const framing&) = delete;

    /// Takes received bytes and serves what is complete. What there is no memory for stays in `data`.
    void take(buf_t* data) noexcept;
    /// Serves what waits.
    void resume() noexcept;
    /// Names and values lose the blanks behind them.
    static void trim(net::http::header_s* header) noexcept;
    /// As Rtsp::process_header().
    bool take_header(net::http::header_s* header) noexcept;

    /// The rest of the bytes being taken is dropped.
    void drop_rest() noexcept;
    /// Of a tunnel's POST connection: decodes what waits. @return as decode_base64_stream()
    int decode(buf_t* out) noexcept;
    bool is_full() const noexcept { return received_.length >= max_waiting; }
    /// Nothing of the stream is left.
    void forget() noexcept;
    void free() noexcept;

private:
    void serve() noexcept;
    bool serve_next() noexcept;
    bool cut_packet() noexcept;
    bool cut_header() noexcept;
    bool serve_held() noexcept;

    conversation& talk_;
    taker& taker_;
    buf_t received_;
    uint32_t used_ = 0;  // bytes of it that were served
    bool dropping_ = false;
    net::http::header_s* held_ = nullptr;  // its body is yet to come
};

}  // namespace rtsp3
