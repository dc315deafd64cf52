// The insides of an Rtsp: its parts, and the one role that it has.
#pragma once

#include "rtsp/client.h"
#include "rtsp/server.h"

#include <variant>

namespace rtsp3 {

/// Every Rtsp is one. It begins as a server and becomes a client for good when it first asks for something. A call of
/// the role that it does not have finds no object to go to.
class session final : public Rtsp, private conversation::settler, private framing::taker {
public:
    session(const char* file, int line) noexcept;
    ~session() override;

    static session& of(Rtsp& rtsp) noexcept { return static_cast<session&>(rtsp); }
    static const session& of(const Rtsp& rtsp) noexcept { return static_cast<const session&>(rtsp); }

    server* as_server() noexcept { return std::get_if<server>(&role_); }
    const server* as_server() const noexcept { return std::get_if<server>(&role_); }
    client* as_client() noexcept { return std::get_if<client>(&role_); }
    const client* as_client() const noexcept { return std::get_if<client>(&role_); }

    /// The client; what serves nothing becomes one. Null for a server at work.
    client* asking() noexcept;
    /// The server, unless its owner owes an answer: then nothing else is served.
    server* serving() noexcept;
    int begin(const char* uri) noexcept;
    void end() noexcept;
    void take_bytes(buf_t* data) noexcept;
    void drop_tracks() noexcept;
    void take_packet(unsigned channel, buffer_t packet) noexcept;

    conversation talk;
    outbox out;
    framing in;
    tunnel pair;
    client_settings settings;

private:
    void settle() noexcept override;
    bool take_encoded() noexcept override { return pair.take_encoded(); }
    bool is_ready() const noexcept override;
    bool has_no_body(const net::http::header_s* header) const noexcept override;
    void take_message(net::http::header_s* header) noexcept override;
    void take_packet(uint8_t channel, buffer_t packet) noexcept override;
    void refuse(const net::http::header_s* header) noexcept override;
    void take_nonsense() noexcept override;

    void serve_request(net::http::header_s* header) noexcept;
    void take_response(net::http::header_s* header) noexcept;
    void release() noexcept;

    std::variant<server, client> role_;
    bool releasing_ = false;  // close() waits for the running call
    uint32_t senseless_ = 0;  // headers that are none and answers to no question
};

}  // namespace rtsp3
