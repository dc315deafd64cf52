#include "inet/net_http.h"

#include "net_http/message.h"

#include "core/log.h"
#include "core/slist.h"
#include "core/text.h"
#include "inet/net_socket.h"
#include "inet/net_tcp.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

namespace net {

namespace {

constexpr uint32_t header_room = 8192;
constexpr uint32_t smallest_room = 8192;
constexpr const char* refusal = "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

/// A message that is to be sent: a header and bytes of its own, then a body that is lent.
struct outgoing {
    ~outgoing() {
        core_buf_free(&own);
        if (release) release(owner);
    }

    enum class kind_t : uint8_t { more, answer, request };
    kind_t kind = kind_t::more;
    bool head = false;  ///< a HEAD request
    bool last = false;  ///< the connection ends behind it
    buf_t own;
    buffer_t body;
    void (*release)(void* owner) = nullptr;
    void* owner = nullptr;
    core::owned_object<http::download> to;
};

using owned_outgoing = core::owned_object<outgoing>;

}  // namespace

/// The insides of a connection. Every call of the owner is counted in `calls`: what is closed from inside one ends when
/// the last of them has returned.
struct http_ctx::inside final : ITcp, http::message_owner {
    inside(http_ctx& of, log_ctx* to, slist* list, const char* caller_file, int caller_line) noexcept
        : face(&of),
          file(caller_file),
          line(caller_line),
          log(to),
          queue(list),
          reader(*this, caller_file, caller_line) {}
    ~inside();

    static void on_accepted(void* arg, int fd, const sockaddr_in* peer) noexcept;
    static void on_failed(void* arg, uint32_t events) noexcept;

    void leave_old() noexcept;
    void set_tcp(Tcp* to) noexcept;
    void disconnect() noexcept;
    void drop_queue() noexcept;
    void note_answer() noexcept;
    bool queue_up(owned_outgoing message) noexcept;
    int send(const http::header_s* header, owned_outgoing message) noexcept;
    int request(const char* method, const char* uri, const void* data, size_t size,
                core::owned_object<http::download> to) noexcept;

    void pump() noexcept;
    void begin(outgoing& message) noexcept;
    bool send_front() noexcept;
    void parse(buf_t& received) noexcept;
    void fit_room(const buf_t& received) noexcept;
    void go_on() noexcept;
    void lost() noexcept;
    int id() const noexcept { return face ? face->fd.load() : -1; }

    void on_tcp_connected(Tcp* tcp) noexcept override;
    void on_tcp_received(Tcp* tcp, buf_t* received) noexcept override;
    void on_tcp_writable(Tcp* tcp) noexcept override;
    void on_tcp_signalled(Tcp* tcp) noexcept override;
    int on_tcp_ended(Tcp* tcp, buf_t* received) noexcept override;
    void on_tcp_closed(Tcp* tcp, int error) noexcept override;

    void on_message(int status, http::header_s* header, const buffer_t* body, bool complete) noexcept override;
    void on_frame(const av::frame_t& frame) noexcept override;
    void on_unknown_type(const char* type) noexcept override;
    void on_header_text(std::string_view text) noexcept override;

    /// Counts what runs inside the owner's connection; the last one out releases what was closed meanwhile.
    class call {
    public:
        explicit call(inside& in) noexcept : in_(in) { ++in.calls; }
        ~call() {
            if (--in_.calls == 0 && !in_.face) core::destroy(&in_);
        }
        call(const call&) = delete;
        call& operator=(const call&) = delete;

    private:
        inside& in_;
    };

    http_ctx* face;  ///< null once closed
    const char* file;
    int line;
    log_ctx* log;
    slist* queue;
    http::message_reader reader;
    std::mutex connection;  ///< of `tcp`, for what other threads do with it
    Tcp* tcp = nullptr;
    tcp_ctx* listener = nullptr;
    socket_ctx* failed = nullptr;  ///< tells of a connect that failed at once
    owned_outgoing front;          ///< is being sent
    uint32_t front_sent = 0;
    uint32_t calls = 0;
    std::atomic<bool> answer_queued = false;
    bool went = false;       ///< something was sent since on_drained
    bool answered = false;   ///< the reader may go on
    bool finishing = false;  ///< the sending half has ended
    bool ended = false;      ///< the peer's sending half has
};

namespace {

using inside = http_ctx::inside;

/// The bytes behind the first `count` of two runs.
void skip(buffer_t& first, buffer_t& second, uint32_t count) noexcept {
    const uint32_t of_first = std::min(count, first.size);
    first = {first.data + of_first, first.size - of_first};
    second = {second.data + (count - of_first), second.size - (count - of_first)};
}

}  // namespace

inside::~inside() {
    drop_queue();
    slist_free(queue);
    core_log_free(log);
}

void inside::drop_queue() noexcept {
    front.reset();
    while (void* waiting = slist_pop(queue))
        core::destroy(static_cast<outgoing*>(waiting));
}

void inside::set_tcp(Tcp* to) noexcept {
    Tcp* old = nullptr;
    {
        const std::lock_guard held(connection);
        old = std::exchange(tcp, to);
    }
    Tcp::destroy(old);
}

/// Closes whatever socket there is. On another thread than its own a running callback is waited for.
void inside::disconnect() noexcept {
    set_tcp(nullptr);
    net_tcp_close(listener);
    if (failed) {
        const int fd = failed->fd;
        net_nt_socket_rem(face->nt, failed);
        net_socket_close(fd);
    }
    face->fd = -1;
    drop_queue();
    finishing = ended = false;
    reader.reset();
}

void inside::leave_old() noexcept {
    if (!tcp && !listener && !failed) return;
    core_log_print(log, "%d: close by reopen at accept", id());
    disconnect();
}

// Sending

/// Has the loop send a message when its turn comes.
bool inside::queue_up(owned_outgoing message) noexcept {
    if (!message || !_slist_enqueue(queue, message.get(), file, line)) return false;
    const bool answers = message->kind == outgoing::kind_t::answer;
    static_cast<void>(message.release());
    if (answers) answer_queued = true;
    // Inside a callback of its own the connection looks when that has returned.
    if (!net_nt_need_invoke(face->nt) && calls > 0) return true;
    const std::lock_guard held(connection);
    if (tcp) tcp->signal();
    return true;
}

/// Prints the header in front of what the message has, and queues it.
int inside::send(const http::header_s* header, owned_outgoing message) noexcept {
    if (!message) return 0;
    if (header) {
        buf_t printed;
        if (!core_buf_resize(&printed, header_room + 1 + message->own.length, file, line)) return 0;
        const int size = http_header_sprintf(header, reinterpret_cast<char*>(printed.data), header_room + 1);
        const bool request = header->status == 0;
        const bool fits = static_cast<uint32_t>(size) < header_room;
        printed.length = static_cast<uint32_t>(size);
        if (!fits && !request) {
            message = owned_outgoing(core::create<outgoing>(file, line));
            printed.length = 0;
            core_buf_read(&printed, refusal, static_cast<uint32_t>(std::strlen(refusal)));
        }
        if (!message || (!fits && request)) {
            core_buf_free(&printed);
            return 0;
        }
        message->last = message->last || !fits;
        message->head = request && header->method && std::strcmp(header->method, "HEAD") == 0;
        message->kind = request                 ? outgoing::kind_t::request
                        : header->status >= 200 ? outgoing::kind_t::answer
                                                : outgoing::kind_t::more;
        if (core_log_wanted(log))
            core_log_print(log, "%d: send\n%.*s", id(), static_cast<int>(printed.length),
                           reinterpret_cast<const char*>(printed.data));
        // While an answer is owed no other request is read, so this is the one that it answers.
        const bool bodyless = message->kind == outgoing::kind_t::answer && reader.is_head();
        if (bodyless) message->body = {};
        if (!bodyless) core_buf_read(&printed, message->own.data, message->own.length);
        std::swap(message->own, printed);
        core_buf_free(&printed);
    }
    return queue_up(std::move(message)) ? 1 : 0;
}

int inside::request(const char* method, const char* uri, const void* data, size_t size,
                    core::owned_object<http::download> to) noexcept {
    http::header_s* header = http_header_request(method, uri, "HTTP/1.1");
    bool complete = header != nullptr;
    const bool with_body = data && size > 0;
    if (with_body)
        complete = complete && http_header_put_format(header, "Content-Length", "%zu", size) &&
                   http_header_put(header, "Content-Type", "text/plain");
    owned_outgoing message(core::create<outgoing>(file, line));
    if (message) message->to = std::move(to);
    complete = complete && message && size <= UINT32_MAX &&
               (!with_body || core_buf_read(&message->own, data, static_cast<uint32_t>(size)));
    const int result = complete ? send(header, std::move(message)) : 0;
    http_header_free(header);
    return result;
}

/// What a message means for the reader, when its turn has come.
void inside::begin(outgoing& message) noexcept {
    front_sent = 0;
    if (message.kind == outgoing::kind_t::request) reader.expect(message.head, std::move(message.to));
}

void inside::note_answer() noexcept {
    if (!answer_queued.exchange(false)) return;
    reader.answered();
    answered = true;
}

/// @return whether all of the message at the front has gone
bool inside::send_front() noexcept {
    const uint32_t size = front->own.length + front->body.size;
    if (front_sent < size) {
        buffer_t first{front->own.data, front->own.length};
        buffer_t second = front->body;
        skip(first, second, front_sent);
        front_sent += tcp->offer(first, second);
        if (front_sent < size) return false;
    }
    went = true;
    if (front->last) {
        tcp->end_output();
        reader.stop();
        tcp->set_reading(1);
        finishing = true;
    }
    front.reset();
    return true;
}

void inside::pump() noexcept {
    while (tcp && tcp->is_connected() && !finishing) {
        if (!front) {
            front.reset(static_cast<outgoing*>(slist_pop(queue)));
            if (front) begin(*front);
        }
        if (front && !send_front()) return;
        if (front || slist_count(queue) > 0) continue;
        if (!std::exchange(went, false)) return;
        if (face->info.on_drained) face->info.on_drained(face->info.arg, face);
        if (!face) return;
    }
}

// Receiving

void inside::parse(buf_t& received) noexcept {
    do {
        answered = false;
        reader.take(received);
        if (!face || !tcp) return;
        note_answer();
        pump();
    } while (face && tcp && answered && received.length > 0);
    if (face && tcp) fit_room(received);
}

/// The buffer grows with what one message needs, and shrinks when that has been taken.
void inside::fit_room(const buf_t& received) noexcept {
    const uint32_t room = reader.room();
    const bool full = received.length == received.size;
    if (reader.owes_answer()) {
        if (full) tcp->set_reading(0);
        return;
    }
    if (!ended) tcp->set_reading(1);
    if (full && received.size < room)
        tcp->set_room(static_cast<uint32_t>(std::min<uint64_t>(room, uint64_t{received.size} * 2)));
    else if (received.length == 0 && received.size > std::max(room, smallest_room))
        tcp->set_room(smallest_room);
}

/// An answer may have let the reader go on.
void inside::go_on() noexcept {
    note_answer();
    pump();
    if (face && tcp && std::exchange(answered, false)) {
        if (!ended) tcp->set_reading(1);
        tcp->show_received();
    }
    // The peer has nothing more to say, and everything has been said to it.
    if (face && tcp && ended && !front && slist_count(queue) == 0 && !reader.owes_answer()) lost();
}

/// There is no connection any more.
void inside::lost() noexcept {
    set_tcp(nullptr);
    face->fd = -1;
    drop_queue();
    reader.stop();
    if (face->info.on_close) face->info.on_close(face->info.arg, face);
}

void inside::on_tcp_connected(Tcp*) noexcept {
    const call running(*this);
    face->fd = tcp->descriptor();
    if (face->info.on_connect) face->info.on_connect(face->info.arg, face);
    if (face) go_on();
}

void inside::on_tcp_received(Tcp*, buf_t* received) noexcept {
    const call running(*this);
    parse(*received);
    if (face && ended) go_on();
}

void inside::on_tcp_writable(Tcp*) noexcept {
    const call running(*this);
    go_on();
}

void inside::on_tcp_signalled(Tcp*) noexcept {
    const call running(*this);
    go_on();
}

int inside::on_tcp_ended(Tcp*, buf_t* received) noexcept {
    const call running(*this);
    if (finishing) return 0;
    reader.end(*received);
    if (face && tcp) note_answer();
    if (face && tcp) pump();
    if (!face || !tcp) return 0;
    ended = front || slist_count(queue) > 0 || reader.owes_answer();
    return ended ? 1 : 0;
}

void inside::on_tcp_closed(Tcp*, int) noexcept {
    const call running(*this);
    lost();
}

void inside::on_accepted(void* arg, int fd, const sockaddr_in* peer) noexcept {
    auto& self = *static_cast<inside*>(arg);
    const call running(self);
    int keep = 1;
    const http_info& info = self.face->info;
    if (info.on_accept)
        info.on_accept(info.arg, self.face, fd, peer, &keep);
    else
        keep = 0;
    if (!keep) net_socket_close(fd);
}

void inside::on_failed(void* arg, uint32_t events) noexcept {
    auto& self = *static_cast<inside*>(arg);
    if (!(events & nt_event_signal)) return;
    const call running(self);
    self.disconnect();
    if (self.face->info.on_close) self.face->info.on_close(self.face->info.arg, self.face);
}

void inside::on_message(int status, http::header_s* header, const buffer_t* body, bool complete) noexcept {
    if (face->info.on_message) face->info.on_message(face->info.arg, face, status, header, body);
    if (!face || !tcp || complete) return;
    note_answer();
    if (reader.wants_continue()) {
        owned_outgoing go(core::create<outgoing>(file, line));
        constexpr std::string_view text = "HTTP/1.1 100 Continue\r\n\r\n";
        if (go && core_buf_read(&go->own, text.data(), static_cast<uint32_t>(text.size()))) queue_up(std::move(go));
        pump();
    }
}

void inside::on_frame(const av::frame_t& frame) noexcept {
    if (face->info.on_frame) face->info.on_frame(face->info.arg, face, &frame);
}

void inside::on_unknown_type(const char* type) noexcept {
    core_log_err("http: unknown mime type: %s", type ? type : "");
    core_con_printf(1, "http: unknown mime type: %s", type ? type : "");
}

void inside::on_header_text(std::string_view text) noexcept {
    if (core_log_wanted(log)) core_log_print(log, "%d: recv\n%.*s", id(), static_cast<int>(text.size()), text.data());
}

}  // namespace net

using net::http_ctx;

http_ctx* net_http_open(net::http_info info, net::nt_ctx* nt, const char* file, int line) noexcept {
    core::owned_object<http_ctx> made(core::create<http_ctx>(file, line));
    slist* queue = _slist_init(file, line);
    log_ctx* log = core_log_create(file, line, "http");
    if (made && queue && log) made->in = core::create<http_ctx::inside>(file, line, *made, log, queue, file, line);
    if (!made || !made->in) {
        slist_free(queue);
        core_log_free(log);
        return nullptr;
    }
    made->info = info;
    made->nt = nt;
    return made.release();
}

int net_http_listen(http_ctx* ctx, const char* address, unsigned port) noexcept {
    if (!ctx) return -5;
    if (!address || port == 0) return -2;
    if (ctx->fd >= 0) return -5;
    auto& in = *ctx->in;
    if (const int result = net_tcp_create(in.listener, ctx->nt, in.file, in.line)) return result;
    ctx->fd = in.listener->fd;
    core_log_print(in.log, "%d: listen %s:%u", in.listener->fd, address, port);
    const int result = net_tcp_listen2(in.listener, address, port, &in, http_ctx::inside::on_accepted);
    if (result == 0) return 0;
    net_tcp_close(in.listener);
    ctx->fd = -1;
    return result;
}

int net_http_accept(http_ctx* ctx, int fd) noexcept {
    if (!ctx) return -5;
    auto& in = *ctx->in;
    net::Tcp* made = net::Tcp::create(in.file, in.line);
    if (!made) return -1;
    in.leave_old();
    made->set_handler(&in);
    made->set_room(net::smallest_room);
    ctx->fd = fd;
    core_log_print(in.log, "%d: accept", fd);
    in.set_tcp(made);
    if (made->take(ctx->nt, fd, net_socket_peer(fd)) == 0) return 0;
    in.set_tcp(nullptr);
    ctx->fd = -1;
    return -1;
}

int net_http_take(http_ctx* ctx, net::Tcp*& from) noexcept {
    if (!ctx) return -5;
    auto& in = *ctx->in;
    in.leave_old();
    net::Tcp* const taken = std::exchange(from, nullptr);
    taken->set_handler(&in);
    in.set_tcp(taken);
    ctx->fd = taken->descriptor();
    core_log_print(in.log, "%d: accept", taken->descriptor());
    taken->show_received();
    return 0;
}

void net_http_connect(http_ctx* ctx, const char* host, unsigned port) noexcept {
    if (!ctx) return;
    auto& in = *ctx->in;
    in.leave_old();
    int result = -1;
    if (net::Tcp* made = net::Tcp::create(in.file, in.line)) {
        made->set_handler(&in);
        made->set_room(net::smallest_room);
        in.set_tcp(made);
        // The loop may find at once that it failed, and lets go of it when this is done.
        const std::lock_guard held(in.connection);
        result = port > 0xffff ? -2 : made->connect(ctx->nt, host, static_cast<unsigned short>(port));
        core_log_print(in.log, "%d: connect to %s:%u", made->descriptor(), host ? host : "", port);
    }
    if (result == 0) return;
    // The loop tells the owner, as it does of a connection that fails later.
    in.set_tcp(nullptr);
    const int fd = net_socket_create(2, 1, 6, in.file, in.line);
    if (fd >= 0) net_nt_socket_add(ctx->nt, in.failed, fd, 0, &in, http_ctx::inside::on_failed);
    if (in.failed) return net_nt_command(ctx->nt, in.failed);
    net_socket_close(fd);
    if (ctx->info.on_close) ctx->info.on_close(ctx->info.arg, ctx);
}

int net_http_send_message(http_ctx* ctx, const net::http::header_s* header, const void* body, unsigned size) noexcept {
    if (!ctx) return 0;
    auto& in = *ctx->in;
    net::owned_outgoing message(core::create<net::outgoing>(in.file, in.line));
    if (message && body && size > 0 && !core_buf_read(&message->own, body, size)) return 0;
    return in.send(header, std::move(message));
}

int net_http_send_share(http_ctx* ctx, const net::http::header_s* header, buffer_t text, buffer_t body,
                        void (*release)(void* owner), void* owner) noexcept {
    net::owned_outgoing message(ctx ? core::create<net::outgoing>(ctx->in->file, ctx->in->line) : nullptr);
    if (!message) {
        if (release) release(owner);
        return 0;
    }
    message->body = body;
    message->release = release;
    message->owner = owner;
    if (text.size > 0 && !core_buf_read(&message->own, text.data, text.size)) return 0;
    return ctx->in->send(header, std::move(message));
}

int net_http_recv(http_ctx* ctx, const char* uri) noexcept {
    return ctx ? ctx->in->request("GET", uri, nullptr, 0, nullptr) : 0;
}

int net_http_post(http_ctx* ctx, const char* uri, const void* data, size_t size) noexcept {
    return ctx ? ctx->in->request("POST", uri, data, size, nullptr) : 0;
}

int net_http_download(http_ctx* ctx, const char* uri, const char* directory, const char* name) noexcept {
    if (!ctx || !uri || !directory || !net::http::is_plain_name(name)) return -2;
    core::owned_object<net::http::download> to(
        core::create<net::http::download>(ctx->in->file, ctx->in->line, directory, name));
    return to && to->complete() ? ctx->in->request("GET", uri, nullptr, 0, std::move(to)) : 0;
}

void net_http_set_type(http_ctx* ctx, const char* type) noexcept {
    if (ctx) ctx->in->reader.set_types(type);
}

void net_http_set_limit(http_ctx* ctx, uint32_t bytes) noexcept {
    if (ctx) ctx->in->reader.set_limit(bytes);
}

void net_http_finish(http_ctx* ctx) noexcept {
    net::owned_outgoing message(ctx ? core::create<net::outgoing>(ctx->in->file, ctx->in->line) : nullptr);
    if (!message) return;
    message->last = true;
    ctx->in->queue_up(std::move(message));
}

unsigned net_http_second(http_ctx* ctx) noexcept { return ctx && ctx->in->tcp ? ctx->in->tcp->second() : 0; }

uint64_t net_http_sent(const http_ctx* ctx) noexcept { return ctx && ctx->in->tcp ? ctx->in->tcp->sent() : 0; }

void net_http_close(http_ctx*& ctx) noexcept {
    if (!ctx) return;
    core::owned_object<http_ctx> closed(std::exchange(ctx, nullptr));
    auto* in = closed->in;
    core_log_print(in->log, "%d: close", in->id());
    in->disconnect();
    in->face = nullptr;
    if (in->calls == 0) core::destroy(in);
}
