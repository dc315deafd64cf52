// RTSP over HTTP: a GET connection carries what the server sends, a POST connection what the client asks, as Base64.
#pragma once

#include "rtsp/framing.h"
#include "rtsp/outbox.h"

namespace rtsp3 {

/// Decodes the whole groups of four at the front of a Base64 stream and appends them to `out`; blanks are skipped, a
/// group with padding is followed by the next. What was decoded is dropped from `text`, a group that is not yet whole
/// stays.
/// @return 1; 0 when memory is out, with both as before but for blanks; -1 for what is no Base64
int decode_base64_stream(buf_t* text, buf_t* out, const char* file, int line) noexcept;

class tunnel {
public:
    tunnel(conversation& of, outbox& out, framing& in) noexcept : talk_(of), out_(out), in_(in) {}
    ~tunnel() { forget(); }
    tunnel(const tunnel&) = delete;
    tunnel& operator=(const tunnel&) = delete;

    const char* cookie() const noexcept { return cookie_.get(); }

    // Server: each connection's session has a tunnel, and the two are joined.

    void serve_get(const net::http::header_s* header) noexcept;
    void serve_post(const net::http::header_s* header) noexcept;
    bool join(tunnel& get) noexcept;
    /// Whether nothing is taken on this connection, as the requests come on the other one.
    bool is_get() const noexcept { return end_ == end_t::get; }
    /// On a POST connection: what waits goes to the session of the GET. @return false on any other
    bool take_encoded() noexcept;
    /// On a GET connection: what of the POST waited for a call to be through.
    void take_waiting() noexcept;

    // Client

    /// False when memory is out.
    bool draw_cookie() noexcept;
    /// Fields of the two requests.
    void put_get(message& get) const noexcept;
    void put_post(message& post) const noexcept;

    /// Leaves the other end.
    void forget() noexcept;

private:
    enum class end_t : uint8_t { none, get, post };

    bool take_cookie(const net::http::header_s* header) noexcept;

    conversation& talk_;
    outbox& out_;
    framing& in_;
    end_t end_ = end_t::none;
    core::owned_text cookie_;
    buf_t decoded_;
    tunnel* post_ = nullptr;  // the one that takes the POST connection's bytes,
    tunnel* get_ = nullptr;   // and the one that serves them
};

}  // namespace rtsp3
