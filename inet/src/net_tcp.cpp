#include "inet/net_tcp.h"

#include "platform/socket_api.h"

#include "core/owned.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

namespace net {

namespace {

int open_spare() noexcept { return platform::open_socket(2, 1, 6); }

// With no descriptor left a waiting connection could neither be taken nor be told, and would wake the loop without end:
// the spare makes room to turn it away.
void turn_away(tcp_ctx& t) noexcept {
    if (t.spare >= 0) platform::close_socket(t.spare);
    const int fd = platform::accept_socket(t.fd, nullptr);
    if (fd >= 0) platform::close_socket(fd);
    t.spare = open_spare();
}

// The callback may close the record: nothing of it is touched afterwards.
void accept_one(tcp_ctx& t) noexcept {
    if (t.spare < 0) t.spare = open_spare();  // somebody else was quicker when it was last turned in
    const int fd = net_socket_accept(t.fd, &t.peer, CORE_HERE);
    if (fd < 0) {
        if (platform::last_error() == socket_error_too_many_open) turn_away(t);
        return;
    }
    if (!t.callback) return net_socket_close(fd);
    const sockaddr_in peer = t.peer;
    t.callback(t.arg, fd, &peer);
}

void on_event(void* arg, uint32_t events) noexcept {
    if (events & nt_event_accept) accept_one(*static_cast<tcp_ctx*>(arg));
}

}  // namespace

int net_tcp_create(tcp_ctx*& t, nt_ctx* nt, const char* file, int line) noexcept {
    if (t) return -5;
    if (!nt) return -2;
    const int fd = net_socket_create(2, 1, 6, file, line);
    if (fd < 0) return -1;
    t = core::create<tcp_ctx>(file, line);
    if (!t) {
        net_socket_close(fd);
        return -1;
    }
    t->fd = fd;
    t->nt = nt;
    t->spare = open_spare();
    return 0;
}

int net_tcp_listen2(tcp_ctx*& t, const char* address, unsigned port, void* arg, accept_callback callback) noexcept {
    if (!t || t->socket) return -5;
    if (port == 0 || port > 0xffff) return -2;
    t->arg = arg;
    t->callback = callback;
    const int result = ::net_tcp_listen(t->fd, address ? address : "0.0.0.0", static_cast<unsigned short>(port));
    if (result != 0) return result;
    net_nt_socket_add(t->nt, t->socket, t->fd, nt_flag_listening, t, on_event);
    return t->socket ? 0 : -1;
}

void net_tcp_close(tcp_ctx*& t) noexcept {
    if (!t) return;
    net_nt_socket_rem(t->nt, t->socket);
    net_socket_close(t->fd);
    if (t->spare >= 0) platform::close_socket(t->spare);
    core::destroy(t);
    t = nullptr;
}

void ITcp::on_tcp_connected(Tcp*) noexcept {}
void ITcp::on_tcp_writable(Tcp*) noexcept {}
void ITcp::on_tcp_signalled(Tcp*) noexcept {}
int ITcp::on_tcp_ended(Tcp*, buf_t*) noexcept { return 0; }

struct Tcp::inside {
    inside(const char* caller_file, int caller_line) noexcept : file(caller_file), line(caller_line) {}
    ~inside();
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    static void on_socket(void* arg, uint32_t events) noexcept;
    bool watch(nt_ctx* on, int flags) noexcept;
    void unwatch() noexcept;
    void connected() noexcept;
    void receive() noexcept;
    void show() noexcept;
    void write() noexcept;
    void end() noexcept;
    void lose(int error) noexcept;
    void watch_writability(bool wanted) noexcept;
    bool count(int result) noexcept;
    // Read by the loop while another thread that destroys the connection takes it.
    socket_ctx* watched_socket() noexcept { return std::atomic_ref(socket).load(); }

    // What every send looks at, in one line of the cache.
    Tcp own{this};
    int fd = -1;
    uint32_t left = 0;  ///< by the last flush()
    buf_t out;
    uint64_t sent = 0;
    bool up = false;

    bool writing = false;
    int failure = 0;
    int broken = 0;  ///< why nothing can be sent any more
    const char* file;
    int line;
    Tcp* face = &own;  ///< null once destroyed, from inside one of its own calls
    ITcp* handler = nullptr;
    nt_ctx* nt = nullptr;
    std::mutex watched;            ///< of `socket`, for signal()
    socket_ctx* socket = nullptr;  ///< changed by the network thread, or by whoever makes or destroys the connection
    sockaddr_in peer{};
    uint32_t room = 64 * 1024;
    uint32_t output_limit = 1024 * 1024;
    buf_t in;
    bool reading = true;
    uint32_t running = 0;  ///< calls of the handler
    uint64_t received = 0;

    unsigned stalled = 0;    ///< seconds
    uint32_t expected = 0;   ///< bytes that are to go
    uint64_t sent_then = 0;  ///< when they were expected
};

namespace {

/// Of what waits for it a peer takes so much in a stall time, or all: less is no reading.
constexpr uint32_t least_progress = 64 * 1024;

}  // namespace

Tcp::inside::~inside() {
    unwatch();
    if (fd >= 0) net_socket_close(fd);
    core_buf_free(&in);
    core_buf_free(&out);
}

Tcp* Tcp::create(const char* file, int line) noexcept {
    inside* const made = core::create<inside>(file, line, file, line);
    return made ? made->face : nullptr;
}

// From inside a call of the handler, what runs below it on the stack is left alive until it returns. On another thread
// such a call is waited for first.
void Tcp::destroy(Tcp* tcp) noexcept {
    if (!tcp) return;
    inside* const in = tcp->inside_;
    in->unwatch();
    in->face = nullptr;
    in->handler = nullptr;
    in->up = false;
    if (in->running == 0) core::destroy(in);
}

void Tcp::set_handler(ITcp* handler) noexcept { inside_->handler = handler; }
void Tcp::set_room(uint32_t bytes) noexcept {
    inside& in = *inside_;
    in.room = bytes;
    if (!in.in.data) return;
    if (bytes > in.in.size) core_buf_respace(&in.in, bytes - in.in.length, in.file, in.line);
    if (bytes < in.in.size && in.in.length == 0) core_buf_resize(&in.in, bytes, in.file, in.line);
}
void Tcp::set_reading(int wanted) noexcept {
    inside& in = *inside_;
    if (in.reading == (wanted != 0)) return;
    in.reading = wanted != 0;
    net_nt_socket_set(in.nt, in.watched_socket(), in.reading, in.writing);
}
void Tcp::set_output_limit(uint32_t bytes) noexcept { inside_->output_limit = bytes; }

bool Tcp::inside::watch(nt_ctx* on, int flags) noexcept {
    if (!in.data && !core_buf_resize(&in, room, file, line)) return false;
    nt = on;
    const std::lock_guard held(watched);
    net_nt_socket_add(nt, socket, fd, flags, this, on_socket);
    return socket != nullptr;
}

// The lock is not held while a callback that runs elsewhere is waited for: it may want the lock itself.
void Tcp::inside::unwatch() noexcept {
    socket_ctx* taken = nullptr;
    {
        const std::lock_guard held(watched);
        taken = std::atomic_ref(socket).exchange(nullptr);
    }
    net_nt_socket_rem(nt, taken);
}

void Tcp::signal() noexcept {
    const std::lock_guard held(inside_->watched);
    if (inside_->socket) net_nt_command(inside_->nt, inside_->socket);
}

int Tcp::connect(nt_ctx* nt, const char* address, unsigned short port) noexcept {
    inside& in = *inside_;
    if (in.fd >= 0) return -5;
    if (net_addr_setup(in.peer, address, port) != 0) return -2;
    char dotted[net_addr_size];
    net_addr_ip(in.peer, dotted, sizeof dotted);
    in.fd = net_socket_create(2, 1, 6, in.file, in.line);
    int result = in.fd < 0 ? -1 : net_tcp_connect(in.fd, dotted, port);
    if (result != 0) {
        in.failure = socket_get_error_code();
    } else {
        in.writing = true;
        in.failure = 0;
        if (!in.watch(nt, nt_flag_read | nt_flag_write | nt_flag_connecting)) result = -1;
    }
    if (result == 0) return 0;
    in.writing = false;
    if (in.fd >= 0) net_socket_close(std::exchange(in.fd, -1));
    return result;
}

int Tcp::take(nt_ctx* nt, int fd, const sockaddr_in& peer) noexcept {
    inside& in = *inside_;
    if (in.fd >= 0) return -5;
    in.fd = fd;
    in.peer = peer;
    in.up = true;  // from when it is watched on, it is the loop's
    if (in.watch(nt, nt_flag_read)) return 0;
    in.up = false;
    in.fd = -1;
    return -1;
}

void Tcp::detach() noexcept { inside_->unwatch(); }

int Tcp::attach(nt_ctx* nt) noexcept {
    inside& in = *inside_;
    if (!in.up || in.socket) return 0;
    const int read = in.reading ? static_cast<int>(nt_flag_read) : 0;
    const int write = in.writing ? static_cast<int>(nt_flag_write) : 0;
    return in.watch(nt, read | write) ? 1 : 0;
}

void Tcp::inside::on_socket(void* arg, uint32_t events) noexcept {
    auto& self = *static_cast<inside*>(arg);
    ++self.running;
    if (!self.up && (events & nt_event_connected)) {
        self.connected();
    } else if (self.up) {
        if (events & nt_event_read) self.receive();
        if (self.up && (events & nt_event_write)) self.write();
        if (self.up && (events & nt_event_signal) && self.handler) self.handler->on_tcp_signalled(self.face);
    }
    if (--self.running == 0 && !self.face) core::destroy(&self);
}

void Tcp::inside::connected() noexcept {
    if (const int error = net_socket_get_error(fd)) return lose(error);
    up = true;
    if (handler) handler->on_tcp_connected(face);
    if (up) watch_writability(out.length != 0 || left != 0);
}

// It stays registered until it is destroyed: who does that on another thread waits for this call.
void Tcp::inside::lose(int error) noexcept {
    up = false;
    net_nt_socket_set(nt, watched_socket(), 0, 0);
    if (handler) handler->on_tcp_closed(face, error);
}

void Tcp::inside::end() noexcept {
    if (!handler || !handler->on_tcp_ended(face, &in)) return lose(0);
    if (face) face->set_reading(0);
}

void Tcp::inside::receive() noexcept {
    // Told of something else in this pass. What does not read is told of nothing but a reset.
    if (!reading) {
        if (const int error = net_socket_get_error(fd)) lose(error);
        return;
    }
    if (in.length == in.size) return lose(socket_error_no_buffers);
    const int result = net_tcp_recv(fd, in);
    if (result == 0) return end();
    if (result < 0) {
        const int error = socket_get_error_code();
        if (error != socket_error_would_block) lose(error);
        return;
    }
    received += static_cast<uint64_t>(result);
    show();
}

void Tcp::inside::show() noexcept {
    if (!handler || in.length == 0) return;
    ++running;
    handler->on_tcp_received(face, &in);
    if (--running == 0 && !face) core::destroy(this);
}

void Tcp::show_received() noexcept { inside_->show(); }

// A connection that failed shows as readable and writable. While nothing is read, its writability tells.
bool Tcp::inside::count(int result) noexcept {
    if (result > 0) sent += static_cast<uint64_t>(result);
    if (result < 0 && socket_get_error_code() != socket_error_would_block) {
        broken = socket_get_error_code();
        watch_writability(true);
    }
    return result > 0;
}

void Tcp::inside::watch_writability(bool wanted) noexcept {
    wanted = wanted || broken;
    if (writing == wanted) return;
    writing = wanted;
    net_nt_socket_set(nt, watched_socket(), reading, wanted);
}

void Tcp::inside::write() noexcept {
    if (out.length && !broken) count(net_tcp_send(fd, out));
    if (broken) return lose(broken);
    watch_writability(out.length != 0 || left != 0);
    if (out.length == 0 && handler) handler->on_tcp_writable(face);
}

int Tcp::send(buffer_t bytes) noexcept {
    inside& in = *inside_;
    if (!in.up || in.out.length + uint64_t{bytes.size} > in.output_limit) return 0;
    // The room first: what has gone out in part cannot be taken back.
    if (!core_buf_respace(&in.out, bytes.size, in.file, in.line)) return 0;
    const uint32_t went = lend(bytes);
    core_buf_read(&in.out, bytes.data + went, bytes.size - went);
    in.watch_writability(in.out.length != 0);
    return 1;
}

uint32_t Tcp::lend(buffer_t bytes) noexcept {
    inside& in = *inside_;
    if (!in.up || in.broken || in.out.length != 0 || in.left != 0 || bytes.size == 0) return 0;
    const int result = platform::send_bytes(in.fd, {bytes.data, bytes.size}, nullptr);
    return in.count(result) ? static_cast<uint32_t>(result) : 0;
}

void Tcp::flush(buf_t& own) noexcept {
    inside& in = *inside_;
    if (!in.up) return;
    if (own.length && in.out.length == 0 && !in.broken) in.count(net_tcp_send(in.fd, own));
    in.left = own.length;
    in.watch_writability(in.left != 0 || in.out.length != 0);
}

uint32_t Tcp::offer(buffer_t first, buffer_t second, buffer_t third) noexcept {
    inside& in = *inside_;
    if (!in.up) return 0;
    const bool single = second.size == 0 && third.size == 0;
    const int result = in.broken ? 0
                       : single  ? platform::send_bytes(in.fd, {first.data, first.size}, nullptr)
                                 : platform::send_pieces(in.fd, {first, second, third});
    const uint32_t went = in.count(result) ? static_cast<uint32_t>(result) : 0;
    in.left = first.size + second.size + third.size - went;
    in.watch_writability(in.left != 0);
    return went;
}

void Tcp::end_output() noexcept {
    if (inside_->up) platform::end_output(inside_->fd);
}

void Tcp::give_up() noexcept {
    if (inside_->fd >= 0) platform::reset_on_close(inside_->fd);
}

unsigned Tcp::second() noexcept {
    inside& in = *inside_;
    const uint32_t waits = waiting();
    if (waits == 0 || in.sent - in.sent_then >= in.expected) {
        in.expected = std::min(waits, least_progress);
        in.sent_then = in.sent;
        in.stalled = 0;
    } else {
        ++in.stalled;
    }
    return in.stalled;
}

bool Tcp::is_connected() const noexcept { return inside_->up; }
int Tcp::descriptor() const noexcept { return inside_->fd; }
uint32_t Tcp::waiting() const noexcept { return inside_->out.length + inside_->left; }
uint64_t Tcp::sent() const noexcept { return inside_->sent; }
uint64_t Tcp::received() const noexcept { return inside_->received; }
int Tcp::error() const noexcept { return inside_->failure; }
sockaddr_in Tcp::local() const noexcept { return net_socket_near(inside_->fd); }
const sockaddr_in& Tcp::peer() const noexcept { return inside_->peer; }

}  // namespace net
