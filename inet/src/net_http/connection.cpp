#include "net_http/connection.h"

#include "scan.h"

#include "core/text.h"
#include "core/thread.h"
#include "inet/net_http_auth.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace net {

namespace {

using inside = http_ctx::inside;

constexpr uint32_t header_room = 8192;
constexpr uint32_t smallest_room = 8192;
constexpr uint32_t most_bytes = UINT32_MAX - 64 * 1024;  // of a message, with what is gathered before it
constexpr uint32_t most_at_once = 1U << 20;              // sent before others of the thread have their turn
constexpr std::string_view go_ahead = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr std::string_view refusal =
    "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

buffer_t bytes_of(std::string_view text) noexcept {
    return {reinterpret_cast<uint8_t*>(const_cast<char*>(text.data())), static_cast<uint32_t>(text.size())};
}

}  // namespace

inside::inside(const http_info& info, nt_ctx* nt, log_ctx* to, slist* list, const char* caller_file,
               int caller_line) noexcept
    : file(caller_file),
      line(caller_line),
      log(to),
      reader(*this, caller_file, caller_line),
      waits(list),
      out(caller_file, caller_line) {
    face.info = info;
    face.nt = nt;
    face.in = this;
}

inside::~inside() {
    drop_queue();
    slist_free(waits);
    core_log_free(log);
}

inside::call::call(inside& in, Tcp* of) noexcept : in_(in), before_(std::exchange(in.busy, of)) { ++in.calls; }

// Once it is no longer counted, another thread may release the connection.
inside::call::~call() {
    in_.busy = before_;
    const bool ours = in_.closed_inside;
    if (--in_.calls == 0 && ours) core::destroy(&in_);
}

// Opening and closing

/// @return false when the connection is being closed: `to` is still the caller's then
bool inside::install(Tcp* to, int descriptor) noexcept {
    Tcp* old = nullptr;
    {
        const std::lock_guard held(connection);
        if (to && closed) return false;
        old = tcp.exchange(to);
        face.fd = descriptor;
    }
    Tcp::destroy(old);
    return true;
}

/// Closes what socket there is. On another thread than its own it waits until no callback runs.
/// @return whether there was a connection
bool inside::disconnect() noexcept {
    tcp_ctx* listening = nullptr;
    command_ctx* command = nullptr;
    bool connected = false;
    {
        const std::lock_guard held(connection);
        listening = std::exchange(listener, nullptr);
        command = std::exchange(failed, nullptr);
        connected = tcp != nullptr;
    }
    install(nullptr, -1);
    net_tcp_close(listening);
    net_nt_command_destroy(command);
    while (calls > 0 && net_nt_need_invoke(face.nt))
        core_sleep(0);
    return connected;
}

void inside::drop_queue() noexcept {
    out.clear();
    front.reset();
    while (void* each = slist_pop(waits))
        core::destroy(static_cast<outgoing*>(each));
}

/// As at the beginning of a connection.
void inside::begin(role_t role, bool keeps_queue) noexcept {
    out.clear();
    if (!keeps_queue) drop_queue();
    answer = answer_t::none;
    taken = waiting = room_now = 0;
    ends = went = was_answered = look = finishing = ended = quiet = false;
    endless = false;
    sent_then = unsent = 0;
    reader.reset(role);
}

void inside::leave_old(role_t role) noexcept {
    if (face.fd >= 0) core_log_print(log, "%d: close by reopen at accept", face.fd.load());
    const bool connected = disconnect();
    begin(role, role == role_t::client && !connected);
}

int inside::listen(const char* address, unsigned port) noexcept {
    tcp_ctx* made = nullptr;
    if (const int result = net_tcp_create(made, face.nt, file, line)) return result;
    core_log_print(log, "%d: listen %s:%u", made->fd, address, port);
    const std::lock_guard held(connection);
    const int result = closed ? -5 : net_tcp_listen2(made, address, port, this, on_accepted);
    if (result != 0) {
        net_tcp_close(made);
        return result;
    }
    face.fd = made->fd;
    listener = made;
    return 0;
}

int inside::accept(int descriptor) noexcept {
    Tcp* const made = Tcp::create(file, line);
    if (!made) return -1;
    leave_old(role_t::server);
    made->set_handler(this);
    made->set_room(smallest_room);
    core_log_print(log, "%d: accept", descriptor);
    if (!install(made, descriptor)) {
        Tcp::destroy(made);
        return -1;
    }
    // From when it is taken, it is the loop's.
    if (made->take(face.nt, descriptor, net_socket_peer(descriptor)) == 0) return 0;
    install(nullptr, -1);
    return -1;
}

// What it has received is looked at by the loop: this may be a call of its earlier owner.
void inside::take(Tcp& from) noexcept {
    leave_old(role_t::server);
    from.set_handler(this);
    look = true;
    core_log_print(log, "%d: accept", from.descriptor());
    if (install(&from, from.descriptor())) return from.signal();
    Tcp::destroy(&from);
}

void inside::connect(const char* name, unsigned number) noexcept {
    leave_old(role_t::client);
    sockaddr_in address{};
    if (number > 0xffff || net_addr_setup(address, name, static_cast<unsigned short>(number)) != 0)
        return tell_failed();
    net_addr_ip(address, peer_host, sizeof peer_host);
    peer_port = static_cast<uint16_t>(number);
    open();
}

void inside::open() noexcept {
    Tcp* const made = Tcp::create(file, line);
    if (!made) return tell_failed();
    made->set_handler(this);
    made->set_room(smallest_room);
    if (!install(made, -1)) return Tcp::destroy(made);
    int result = -1;
    {
        // The loop may find at once that it failed. It lets go of it when this is done.
        const std::lock_guard held(connection);
        if (!is_current(made)) return;
        result = made->connect(face.nt, peer_host, peer_port);
        if (result == 0) face.fd = made->descriptor();
        core_log_print(log, "%d: connect to %s:%u", made->descriptor(), peer_host, unsigned{peer_port});
    }
    if (result == 0) return;
    install(nullptr, -1);
    tell_failed();
}

/// Has the loop tell the owner, as it does of a connection that fails later.
void inside::tell_failed() noexcept {
    {
        const std::lock_guard held(connection);
        if (closed) return;
        failed = net_nt_command_create(face.nt, this, on_failed);
        if (failed) return net_nt_command_exec(failed);
    }
    if (face.info.on_close) face.info.on_close(face.info.arg, &face);
}

void inside::on_failed(void* arg, command_ctx*) noexcept {
    auto& self = *static_cast<inside*>(arg);
    const call running(self, nullptr);
    command_ctx* mine = nullptr;
    {
        const std::lock_guard held(self.connection);
        mine = std::exchange(self.failed, nullptr);
    }
    if (!mine) return;
    net_nt_command_destroy(mine);
    if (self.face.info.on_close) self.face.info.on_close(self.face.info.arg, &self.face);
}

void inside::on_accepted(void* arg, int fd, const sockaddr_in* peer) noexcept {
    auto& self = *static_cast<inside*>(arg);
    const call running(self, nullptr);
    const http_info& info = self.face.info;
    int keep = info.on_accept ? 1 : 0;
    if (info.on_accept) info.on_accept(info.arg, &self.face, fd, peer, &keep);
    if (!keep) net_socket_close(fd);
}

void inside::close() noexcept {
    core_log_print(log, "%d: close", face.fd.load());
    {
        const std::lock_guard held(connection);
        closed = true;
    }
    disconnect();
    if (calls == 0) return core::destroy(this);
    drop_queue();
    reader.stop();
    closed_inside = true;
}

/// A peer that says nothing more, and is sent nothing, may be gone.
unsigned inside::second() noexcept {
    Tcp* const to = tcp;
    if (!to) return 0;
    unsent = ended && endless && to->sent() == sent_then ? unsent + 1 : 0;
    sent_then = to->sent();
    return std::max(to->second(), unsent);
}

// Queueing

owned_outgoing inside::message(buffer_t head, buffer_t text) noexcept {
    owned_outgoing made(core::create<outgoing>(file, line));
    if (!made || head.size + text.size == 0) return made;
    if (!core_buf_resize(&made->own, head.size + text.size, file, line)) return nullptr;
    core_buf_read(&made->own, head.data, head.size);
    core_buf_read(&made->own, text.data, text.size);
    return made;
}

bool inside::queue_up(owned_outgoing message, bool answers) noexcept {
    if (!message || !_slist_enqueue(waits, message.get(), file, line)) return false;
    static_cast<void>(message.release());
    was_queued(answers);
    return true;
}

void inside::was_queued(bool answers) noexcept {
    auto was = answer_t::being_queued;
    if (answers) answer.compare_exchange_strong(was, answer_t::queued);
    // Inside a callback of its own, the connection looks when that has returned.
    if (busy_here()) return;
    const std::lock_guard held(connection);
    if (Tcp* const to = tcp) to->signal();
}

/// On the connection's own thread a message takes no place in the queue, where nothing waits.
/// @return whether it is added
bool inside::add_now(buffer_t head, buffer_t text, http::lent& body) noexcept {
    Tcp* const to = net_nt_need_invoke(face.nt) ? nullptr : tcp.load();
    return to && to->is_connected() && gather() && out.add(head, text, body);
}

bool inside::queue(buffer_t head, buffer_t text, http::lent body, bool answers) noexcept {
    if (add_now(head, text, body)) {
        was_queued(answers);
        return true;
    }
    owned_outgoing made = message(head, text);
    if (made) made->body.swap(body);
    return queue_up(std::move(made), answers);
}

/// @return the bytes, which are not all of the header when they fill the room
buffer_t inside::print(const http::header_s& header, std::span<char> room) noexcept {
    const int size = http_header_sprintf(&header, room.data(), static_cast<int>(room.size()));
    if (core_log_wanted(log)) core_log_print(log, "%d: send\n%.*s", face.fd.load(), size, room.data());
    return bytes_of({room.data(), static_cast<size_t>(size)});
}

int inside::send(const http::header_s* header, buffer_t text, http::lent body) noexcept {
    if (uint64_t{text.size} + body.bytes().size > most_bytes) return 0;
    if (!header) return queue({}, text, std::move(body), false) ? 1 : 0;
    if (header->status == 0) return send_request(*header, text, std::move(body), nullptr);
    const bool answers = header->status >= 200;
    auto was = answer_t::asked;
    if (answers && !answer.compare_exchange_strong(was, answer_t::being_queued)) return 0;
    char room[header_room + 1];
    buffer_t head = print(*header, room);
    const bool fits = head.size < header_room;
    if (!fits) head = bytes_of(refusal);
    if (answers) endless = !reader.is_head() && http::ends_with_connection(*header);
    // The reader goes on to no other request before this is queued.
    if (!fits || (answers && reader.is_head())) {
        text = {};
        body = {};
    }
    if (queue(head, text, std::move(body), answers)) {
        if (!fits) finish();
        return 1;
    }
    was = answer_t::being_queued;
    if (answers) answer.compare_exchange_strong(was, answer_t::asked);
    return 0;
}

core::owned_object<http::download> inside::file_for(const char* directory, const char* name) const noexcept {
    core::owned_object<http::download> made(core::create<http::download>(file, line, directory, name));
    if (made && !made->complete()) made.reset();
    return made;
}

int inside::send_request(const http::header_s& header, buffer_t text, http::lent body,
                         core::owned_object<http::expectation> expects) noexcept {
    char room[header_room + 1];
    const buffer_t head = print(header, room);
    if (head.size >= header_room) return 0;
    owned_outgoing made = message(head, text);
    if (!expects) expects.reset(core::create<http::expectation>(file, line));
    if (!made || !expects) return 0;
    expects->head = header.method && std::strcmp(header.method, "HEAD") == 0;
    // What may have to be sent again.
    if (user && body.bytes().size == 0 && !core_buf_read(&expects->sent, made->own.data, made->own.length)) return 0;
    made->expects = std::move(expects);
    made->body.swap(body);
    return queue_up(std::move(made), false) ? 1 : 0;
}

int inside::request(const char* method, const char* uri, const void* data, size_t size,
                    core::owned_object<http::download> to) noexcept {
    if (size > most_bytes) return 0;
    const bool with_body = data && size > 0;
    auto* const bytes = static_cast<uint8_t*>(const_cast<void*>(data));
    core::owned_object<http::expectation> expects(core::create<http::expectation>(file, line));
    http::header_s* header = http_header_request(method, uri, "HTTP/1.1");
    bool complete = header && expects;
    if (with_body)
        complete = complete && http_header_put_format(header, "Content-Length", "%zu", size) &&
                   http_header_put(header, "Content-Type", "text/plain");
    if (complete) expects->to = std::move(to);
    const buffer_t text{bytes, with_body ? static_cast<uint32_t>(size) : 0};
    const int result = complete ? send_request(*header, text, {}, std::move(expects)) : 0;
    http_header_free(header);
    return result;
}

// Requests that are refused

bool inside::set_login(const char* name, const char* secret) noexcept {
    user.reset(core_strdup(name, file, line));
    password.reset(core_strdup(secret ? secret : "", file, line));
    return !name || (user && password);
}

/// The request with an answer to the challenge; null when there is none, or memory is out.
owned_outgoing inside::answer_to(const http::header_s& response, http::expectation& refused) noexcept {
    const buf_t& sent = refused.sent;
    const int size = http_header_find({sent.data, sent.length});
    const auto head = static_cast<uint32_t>(std::max(size, 0));
    http::header_s* header = http_header_parse(reinterpret_cast<const char*>(sent.data), head, file, line);
    // More of its body may have been queued behind it.
    const bool whole =
        header && scan::decimal(scan::text(value_geti(header->fields, "Content-Length"))) == sent.length - head;
    const bool complete = whole && size > 0 && http_header_authorize(header, &response, user.get(), password.get());
    char room[header_room + 1];
    const buffer_t printed = complete ? print(*header, room) : buffer_t{};
    http_header_free(header);
    if (printed.size == 0 || printed.size >= header_room) return nullptr;
    owned_outgoing made = message(printed, {sent.data + head, sent.length - head});
    if (made) made->expects.reset(core::create<http::expectation>(file, line));
    if (!made || !made->expects) return nullptr;
    made->expects->head = refused.head;
    made->expects->to = std::move(refused.to);
    return made;
}

// Over a new connection: many cameras end the one that they refuse on.
bool inside::on_refused(const http::header_s& response, http::expectation& refused) noexcept {
    owned_outgoing made = user && !has_output() ? answer_to(response, refused) : nullptr;
    if (!made) return false;
    disconnect();
    begin(role_t::client, true);
    quiet = true;
    reader.expect(std::move(made->expects));
    front = std::move(made);
    open();
    return true;
}

void inside::finish() noexcept {
    owned_outgoing made = message({}, {});
    if (made) made->last = true;
    queue_up(std::move(made), false);
}

// Sending

/// Moves what waits to what is being sent, as far as there is place. @return whether nothing waits, and more may follow
bool inside::gather() noexcept {
    if (!front && slist_count(waits) == 0) return !ends;
    while (!ends) {
        if (!front) {
            front.reset(static_cast<outgoing*>(slist_pop(waits)));
            if (front && front->expects) reader.expect(std::move(front->expects));
        }
        if (!front) return true;
        if (!out.add(front->own, front->body)) return false;
        ends = front->last;
        front.reset();
    }
    return false;
}

/// All has gone behind which the connection ends.
void inside::end_output(Tcp* of) noexcept {
    of->end_output();
    reader.stop();
    if (!ended) of->set_reading(1);
    finishing = look = true;
}

void inside::pump(Tcp* of) noexcept {
    uint32_t sent = 0;
    while (is_current(of) && of->is_connected()) {
        gather();
        if (!out.is_empty()) {
            sent += out.send(*of);
            if (!out.is_empty()) return;
            went = true;
            if (sent >= most_at_once) return of->signal();
        } else if (ends && !finishing) {
            end_output(of);
        } else {
            if (!std::exchange(went, false)) return;
            if (face.info.on_drained) face.info.on_drained(face.info.arg, &face);
        }
    }
}

// Receiving

void inside::note_answer() noexcept {
    auto was = answer_t::queued;
    if (!answer.compare_exchange_strong(was, answer_t::none)) return;
    was_answered = true;
    reader.answered();
    if (!endless) return;
    reader.stop();
    look = true;
}

/// The next request may be read when there is place for its answer. @return whether it may
bool inside::resume() noexcept {
    if (!was_answered || !reader.owes_answer() || !gather() || !out.has_place()) return false;
    was_answered = false;
    reader.go_on();
    return true;
}

void inside::parse(Tcp* of, buf_t& received) noexcept {
    do {
        // The answers to what is there go out together.
        do {
            const uint32_t count = reader.take({received.data + taken, received.length - taken});
            if (!is_current(of)) return;
            taken += count;
            note_answer();
        } while (resume());
        pump(of);
        if (!is_current(of)) return;
        note_answer();
    } while (resume() || std::exchange(look, false));
    if (ended && !reader.owes_answer()) {
        reader.end({received.data + taken, received.length - taken});
        if (!is_current(of)) return;
        taken = received.length;
        pump(of);
        if (!is_current(of)) return;
    }
    tidy(of, received);
}

/// Drops what was parsed. The buffer grows with what one message needs, and shrinks when that has been taken.
void inside::tidy(Tcp* of, buf_t& received) noexcept {
    const bool full = received.length == received.size;
    waiting = received.length - taken;
    // While an answer is owed, many requests may wait: they are not moved for each of them.
    if (!reader.owes_answer() || waiting <= taken) core_buf_ignore(&received, std::exchange(taken, 0));
    room_now = received.size;
    if (reader.owes_answer()) {
        if (received.length == received.size || taken > 0) of->set_reading(0);
        return;
    }
    if (!ended) of->set_reading(1);
    const uint32_t room = reader.room();
    if (full && received.size < room)
        of->set_room(static_cast<uint32_t>(std::min<uint64_t>(room, uint64_t{received.size} * 2)));
    else if (received.length == 0 && received.size > std::max(room, smallest_room))
        of->set_room(smallest_room);
}

/// After whatever may have changed something: sends, and reads on when that is possible now.
void inside::settle(Tcp* of) noexcept {
    pump(of);
    if (!is_current(of)) return;
    note_answer();
    if (resume() || std::exchange(look, false)) {
        if (waiting == 0 && room_now > smallest_room) {
            of->set_room(smallest_room);
            room_now = smallest_room;
        }
        if (!ended) of->set_reading(1);
        of->show_received();
        if (!is_current(of)) return;
    }
    if (is_done()) lost();
}

/// The peer has nothing more to say, and everything has been said to it.
bool inside::is_done() const noexcept {
    return ended && (finishing || (!endless && !has_output() && !reader.owes_answer()));
}

/// There is no connection any more.
void inside::lost() noexcept {
    install(nullptr, -1);
    begin(role_t::server, false);
    if (face.info.on_close) face.info.on_close(face.info.arg, &face);
}

void inside::on_tcp_connected(Tcp* of) noexcept {
    const call running(*this, of);
    if (!is_current(of)) return;
    {
        const std::lock_guard held(connection);  // whoever connects has set it before
        face.fd = of->descriptor();
    }
    if (face.info.on_connect && !std::exchange(quiet, false)) face.info.on_connect(face.info.arg, &face);
    if (is_current(of)) settle(of);
}

void inside::on_tcp_received(Tcp* of, buf_t* received) noexcept {
    const call running(*this, of);
    if (!is_current(of)) return;
    parse(of, *received);
    if (is_current(of) && is_done()) lost();
}

void inside::on_tcp_writable(Tcp* of) noexcept {
    const call running(*this, of);
    if (is_current(of)) settle(of);
}

void inside::on_tcp_signalled(Tcp* of) noexcept {
    const call running(*this, of);
    if (is_current(of)) settle(of);
}

int inside::on_tcp_ended(Tcp* of, buf_t* received) noexcept {
    const call running(*this, of);
    if (!is_current(of)) return 0;
    ended = true;
    parse(of, *received);
    return is_current(of) && !is_done() && reader.is_server() ? 1 : 0;
}

void inside::on_tcp_closed(Tcp* of, int) noexcept {
    const call running(*this, of);
    if (is_current(of)) lost();
}

void inside::on_message(int status, http::header_s* header, const buffer_t* body, bool complete) noexcept {
    auto was = answer_t::none;
    if (reader.awaits_answer()) answer.compare_exchange_strong(was, answer_t::asked);
    if (face.info.on_message) face.info.on_message(face.info.arg, &face, status, header, body);
    // The rest of what was answered before it was whole is dropped.
    if (!complete && is_current(busy)) note_answer();
}

void inside::on_expect() noexcept { queue({}, bytes_of(go_ahead), {}, false); }

void inside::on_frame(const av::frame_t& frame) noexcept {
    if (face.info.on_frame) face.info.on_frame(face.info.arg, &face, &frame);
}

void inside::on_unknown_type(const char* type) noexcept {
    core_log_err("http: unknown mime type: %s", type ? type : "");
    core_con_printf(1, "http: unknown mime type: %s", type ? type : "");
}

void inside::on_header_text(std::string_view text) noexcept {
    if (core_log_wanted(log))
        core_log_print(log, "%d: recv\n%.*s", face.fd.load(), static_cast<int>(text.size()), text.data());
}

}  // namespace net
