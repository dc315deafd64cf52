#include "rtsp/session.h"

#include <cstring>
#include <utility>

namespace rtsp3 {

using net::http::header_s;

session::session(const char* file, int line) noexcept
    : talk(*this, *this, file, line),
      out(talk),
      in(talk, *this),
      pair(talk, out, in),
      role_(std::in_place_type<server>, talk, out, pair) {}

session::~session() { release(); }

client* session::asking() noexcept {
    if (client* const one = as_client()) return one;
    if (talk.ended || talk.running != 0 || talk.trak_total != 0 || *talk.identifier) return nullptr;
    return &role_.emplace<client>(talk, out, pair, settings);
}

server* session::serving() noexcept {
    server* const one = as_server();
    return one && !one->owes_answer() ? one : nullptr;
}

// The next conversation begins with nothing of the last: no half of a message, no unsent request, no credentials.
int session::begin(const char* uri) noexcept {
    login_t login;
    if (talk.ended || talk.running != 0 || !client::read_uri(talk, uri, &login)) return 0;
    talk.drop_tracks();
    pair.forget();
    in.forget();
    out.clear();
    out.set_base64(false);
    *talk.identifier = 0;
    senseless_ = 0;
    return role_.emplace<client>(talk, out, pair, settings).open(std::move(login));
}

void session::end() noexcept {
    talk.ended = releasing_ = talk.settling = true;
    if (talk.running == 0) settle();
}

void session::settle() noexcept {
    talk.settling = false;
    if (std::exchange(releasing_, false)) return release();
    in.resume();
    pair.take_waiting();
}

void session::release() noexcept {
    talk.ended = true;
    pair.forget();
    drop_tracks();
    if (server* const one = as_server()) one->forget();
    in.free();
    core_buf_free(&out.bytes());
}

void session::drop_tracks() noexcept {
    if (!talk.drop_tracks()) return;
    std::visit([](auto& one) { one.forget_tracks(); }, role_);
}

void session::take_bytes(buf_t* data) noexcept {
    if (data && pair.is_get() && data->length != 0) {
        ++talk.received;  // some players show on this connection alone that they are there
        core_buf_ignore(data, data->length);
    }
    in.take(data);
    pair.take_waiting();
}

void session::take_packet(unsigned channel, buffer_t packet) noexcept {
    if (client* const one = as_client()) return one->frames().take(channel, packet);
    as_server()->take_rtp(channel, packet);
}

void session::take_packet(uint8_t channel, buffer_t packet) noexcept { take_packet(unsigned{channel}, packet); }

bool session::is_ready() const noexcept {
    const server* const one = as_server();
    return !one || !one->owes_answer();
}

// Either may be the beginning of a stream: neither has a body that ends, whatever its Content-Length. Only a refusal
// that is answered with credentials is followed by another answer, behind its body.
bool session::has_no_body(const header_s* header) const noexcept {
    const client* const one = as_client();
    if (header->status) return one && one->expects_tunnel() && header->status != 401;
    return header->method && (std::strcmp(header->method, "GET") == 0 || std::strcmp(header->method, "POST") == 0);
}

void session::take_message(header_s* header) noexcept {
    if (header->status) {
        take_response(header);
    } else {
        serve_request(header);
    }
}

void session::serve_request(header_s* header) noexcept {
    ++talk.received;
    client* const one = as_client();
    if (one ? out.has_unread_bytes() : out.has_unread_replies()) return talk.fail("replies are not read");
    if (!talk.remember_cseq(header)) return;
    if (one ? one->serve(header) : as_server()->serve(header)) senseless_ = 0;
}

void session::take_response(header_s* header) noexcept {
    if (header->status < 200) return;  // the answer is still to come
    client* const one = as_client();
    if (one && one->take_response(header)) {
        senseless_ = 0;
        return;
    }
    core_log_print(talk.log, "rtsp protocol dectect bad header");
    core_con_printf(0, "rtsp protocol dectect bad header");
    take_nonsense();
}

// Each one is told on the console, which a peer shall not fill.
void session::take_nonsense() noexcept {
    constexpr uint32_t most = 100;
    if (++senseless_ > most) talk.fail("nothing that makes sense comes");
}

void session::refuse(const header_s* header) noexcept {
    if (!header->status && talk.remember_cseq(header)) out.send_error(400);
}

}  // namespace rtsp3
