// The door of the RTMP client: the session, its connection, and whose calls run.
#include "net/rtmp_session.h"

#include "inet/net_rtmp.h"
#include "inet/net_tcp.h"

#include <cstring>

namespace net {

using rtmp::session;

void IRtmp::on_rtmp_send(ProtocolRtmp*) noexcept {}
void IRtmp::on_rtmp_playing(ProtocolRtmp*) noexcept {}
void IRtmp::on_rtmp_metadata(ProtocolRtmp*, const Variant&) noexcept {}
void IRtmp::on_rtmp_track(ProtocolRtmp*, const rtmp_track_t&) noexcept {}

struct ProtocolRtmp::inside final : session, ITcp {
    inside(const char* caller_file, int caller_line) noexcept : session(&own, caller_file, caller_line) {}
    ~inside() override { Tcp::destroy(tcp); }

    /// A call from outside. The outermost one sends what has come together, and releases a session that was destroyed
    /// in the meantime.
    class call {
    public:
        explicit call(inside& of) noexcept : of_(of) { ++of_.calls; }
        ~call() {
            if (of_.calls == 1) of_.deliver();
            if (--of_.calls == 0 && !of_.face) core::destroy(&of_);
        }
        call(const call&) = delete;
        call& operator=(const call&) = delete;

    private:
        inside& of_;
    };

    void deliver() noexcept;
    void take(buf_t* bytes) noexcept;
    bool set_path(std::string_view path) noexcept;
    int connect(nt_ctx* nt, const char* address) noexcept;

    void on_tcp_connected(Tcp*) noexcept override;
    void on_tcp_received(Tcp*, buf_t* bytes) noexcept override;
    void on_tcp_writable(Tcp*) noexcept override;
    void on_tcp_closed(Tcp*, int error) noexcept override;

    ProtocolRtmp own{this};
    Tcp* tcp = nullptr;
    int failure = 0;
    bool taking = false;
};

// The handler may ask for more to be sent. An ended session has no use for its connection.
void ProtocolRtmp::inside::deliver() noexcept {
    while (news && !tcp && !ended() && handler) {
        news = false;
        handler->on_rtmp_send(face);
    }
    if (!tcp) return;
    if (ended()) {
        Tcp::destroy(tcp);
        tcp = nullptr;
    } else if (tcp->is_connected()) {
        tcp->flush(output);
    }
}

void ProtocolRtmp::inside::take(buf_t* bytes) noexcept {
    if (taking) return;
    taking = true;
    session::process({bytes->data, bytes->length});
    taking = false;
    bytes->length = 0;
}

bool ProtocolRtmp::inside::set_path(std::string_view path) noexcept {
    const rtmp::place_t place = rtmp::split_path(path);
    core::owned_text application = rtmp::joined(place.application, {}, file, line);
    core::owned_text play_path = rtmp::joined(place.prefix, place.play_path, file, line);
    if (!application || !play_path) return false;
    target.application = std::move(application);
    target.play_path = std::move(play_path);
    return true;
}

int ProtocolRtmp::inside::connect(nt_ctx* nt, const char* address) noexcept {
    constexpr unsigned short usual_port = 1935;
    if (step != step_t::idle) return -5;
    if (!nt || target.protocol != 0 || !*target.host) return -2;
    tcp = Tcp::create(file, line);
    if (!tcp) return -1;
    tcp->set_handler(this);
    step = step_t::connecting;
    const int result = tcp->connect(nt, address ? address : target.host, target.port ? target.port : usual_port);
    if (result == 0) return 0;
    failure = tcp->error();
    step = step_t::idle;
    Tcp::destroy(tcp);
    tcp = nullptr;
    return result;
}

void ProtocolRtmp::inside::on_tcp_connected(Tcp*) noexcept {
    const call running(*this);
    if (!session::handshake()) end(rtmp_end_t::failed, "no memory");
}

void ProtocolRtmp::inside::on_tcp_received(Tcp*, buf_t* bytes) noexcept {
    const call running(*this);
    take(bytes);
}

void ProtocolRtmp::inside::on_tcp_writable(Tcp*) noexcept { const call running(*this); }

void ProtocolRtmp::inside::on_tcp_closed(Tcp*, int error) noexcept {
    const call running(*this);
    failure = error;
    if (step == step_t::connecting) {
        end(rtmp_end_t::no_connection, "%s cannot be reached", target.host);
    } else {
        const bool agreed = step == step_t::playing;
        end(rtmp_end_t::lost, "%s closed the connection%s", target.host, agreed ? "" : " instead of playing");
    }
}

ProtocolRtmp* ProtocolRtmp::create(const char* file, int line) noexcept {
    inside* const made = core::create<inside>(file, line, file, line);
    return made ? made->face : nullptr;
}

// From inside a call of the handler, what runs below it on the stack is left alive until it returns.
void ProtocolRtmp::destroy(ProtocolRtmp* rtmp) noexcept {
    if (!rtmp) return;
    inside& in = *rtmp->inside_;
    const inside::call running(in);
    in.handler = nullptr;
    in.face = nullptr;
    in.step = session::step_t::ended;
}

void ProtocolRtmp::init(IRtmp* handler) noexcept { inside_->handler = handler; }

int ProtocolRtmp::set(const rtmp_settings_t& settings) noexcept {
    return inside_->settings.set(settings, inside_->file, inside_->line);
}

int ProtocolRtmp::parse_url(const char* url) noexcept {
    rtmp::target_t& to = inside_->target;
    rtmp::url_t read;
    to = {};
    if (!url || !rtmp::read_url(url, read)) return 0;
    if (!inside_->set_path(read.path)) return 0;
    to.protocol = read.protocol;
    to.port = read.port;
    to.host[read.host.copy(to.host, rtmp::longest_host)] = '\0';
    return 1;
}

int ProtocolRtmp::parse_playpath(const char* path) noexcept { return path && inside_->set_path(path); }

int ProtocolRtmp::protocol() const noexcept { return inside_->target.protocol; }
const char* ProtocolRtmp::host() const noexcept { return inside_->target.host; }
unsigned short ProtocolRtmp::port() const noexcept { return inside_->target.port; }
const char* ProtocolRtmp::application() const noexcept { return inside_->application().data(); }
const char* ProtocolRtmp::play_path() const noexcept { return inside_->play_path().data(); }

int ProtocolRtmp::connect(nt_ctx* nt, const char* address) noexcept { return inside_->connect(nt, address); }

int ProtocolRtmp::handshake() noexcept {
    const inside::call running(*inside_);
    return inside_->step == session::step_t::idle && inside_->session::handshake();
}

void ProtocolRtmp::process(buf_t* received) noexcept {
    const inside::call running(*inside_);
    if (received) inside_->take(received);
}

void ProtocolRtmp::close() noexcept {
    const inside::call running(*inside_);
    inside_->end(rtmp_end_t::lost, "the connection was closed");
}

void ProtocolRtmp::flush() noexcept {
    const inside::call running(*inside_);
    inside_->session::flush();
}

buf_t* ProtocolRtmp::send_buffer() noexcept { return &inside_->output; }

int ProtocolRtmp::send_connect_packet() noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_connect_packet();
}

int ProtocolRtmp::send_create_stream() noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_create_stream();
}

int ProtocolRtmp::send_play() noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_play();
}

int ProtocolRtmp::send_ctrl(uint16_t event, uint32_t value, uint32_t time) noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_ctrl(event, value, time);
}

int ProtocolRtmp::send_pong(uint32_t value) noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_pong(value);
}

int ProtocolRtmp::send_checkbw() noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_checkbw();
}

int ProtocolRtmp::send_checkbw_result(double id) noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_checkbw_result(id);
}

int ProtocolRtmp::send_serverbw() noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_serverbw();
}

int ProtocolRtmp::send_packet(uint32_t channel, uint8_t type, uint32_t stream, buffer_t body) noexcept {
    const inside::call running(*inside_);
    return inside_->session::send_packet(channel, type, stream, {body.data, body.size});
}

bool ProtocolRtmp::playing() const noexcept { return inside_->step == session::step_t::playing; }
bool ProtocolRtmp::ended() const noexcept { return inside_->ended(); }
uint32_t ProtocolRtmp::stream() const noexcept { return inside_->stream; }
uint64_t ProtocolRtmp::received() const noexcept { return inside_->received; }
uint64_t ProtocolRtmp::play_time() const noexcept { return inside_->play_time; }
int ProtocolRtmp::error() const noexcept { return inside_->failure; }

}  // namespace net
