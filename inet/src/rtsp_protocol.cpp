// The door of the family: each call goes to the part that it is for. One for the role that the session does not have
// goes nowhere.
#include "inet/rtsp_protocol.h"

#include "rtsp/session.h"

#include "core/memory.h"

#include <algorithm>
#include <iterator>

namespace rtsp3 {

using net::http::header_s;

const char* Enum::event_name(unsigned event) noexcept {
    static constexpr const char* names[] = {"open_client", "open_server", "rtsp_close", "rtsp_setup",  "rtsp_key",
                                            "rtsp_play",   "rtsp_pause",  "rtsp_stop",  "rtsp_error",  "rtsp_send",
                                            "send_rtp",    "rtsp_frame",  "rtsp_rtcp",  "rtsp_unknown"};
    return names[std::min<size_t>(event, std::size(names) - 1)];
}

Rtsp* Rtsp::create(const char* file, int line) noexcept {
    core::owned_object<rtsp3::session> made(core::create<rtsp3::session>(file, line, file, line));
    return made && made->talk.rtp.packet.data ? made.release() : nullptr;
}

void Rtsp::destroy(Rtsp* rtsp) noexcept { core::destroy(static_cast<rtsp3::session*>(rtsp)); }

Rtsp::~Rtsp() = default;

namespace {

/// A call while it runs: where it goes.
class inside {
public:
    explicit inside(Rtsp& rtsp) noexcept : to_(session::of(rtsp)), running_(to_.talk) {}
    session* operator->() const noexcept { return &to_; }

private:
    session& to_;
    conversation::call running_;
};

const session& of(const Rtsp& rtsp) noexcept { return session::of(rtsp); }

}  // namespace

void Rtsp::close() noexcept { session::of(*this).end(); }

void Rtsp::clear_traks() noexcept { session::of(*this).drop_tracks(); }

// Configuration

void Rtsp::set_handler(IRtsp* handler) noexcept { session::of(*this).talk.handler = handler; }

void Rtsp::set_protocol(protocol_t::enum_t protocol) noexcept { session::of(*this).talk.transport = protocol; }

void Rtsp::set_tunnel(bool on) noexcept { session::of(*this).settings.tunnelled = on; }

void Rtsp::set_frame_limit(uint32_t bytes) noexcept { session::of(*this).settings.frame_limit = bytes; }

void Rtsp::set_parameter_sets(parameter_sets_t where) noexcept { session::of(*this).settings.parameter_sets = where; }

void Rtsp::set_all_formats(bool on) noexcept {
    conversation& talk = session::of(*this).talk;
    talk.all_formats = on;
    talk.rtp.set_all_formats(on);
}

void Rtsp::set_prompt(bool on) noexcept { session::of(*this).settings.prompt = on; }

int Rtsp::open(const char* uri) noexcept { return session::of(*this).begin(uri); }

int Rtsp::set_uri(const char* uri) noexcept { return session::of(*this).talk.set_location(uri); }

void Rtsp::set_unknown_methods(bool answered) noexcept { session::of(*this).out.set_refuses_methods(answered); }

int Rtsp::set_credentials(const char* user, const char* password) noexcept {
    server* const to = session::of(*this).as_server();
    return to && to->set_credentials(user, password);
}

void Rtsp::set_send_limit(uint32_t bytes) noexcept {
    if (server* const to = session::of(*this).as_server()) to->frames().set_limit(bytes);
}

trak_t* Rtsp::add_trak(uint32_t fcc, const char* name, const sound_t& sound, const char* file, int line) noexcept {
    server* const to = session::of(*this).as_server();
    return to ? to->add_trak(fcc, name, sound, file, line) : nullptr;
}

int Rtsp::describe_trak(const trak_t* trak, buffer_t parameter_sets) noexcept {
    server* const to = session::of(*this).as_server();
    return to && to->describe_trak(trak, parameter_sets);
}

// Answers

int Rtsp::send_sdp(const char* s1, const char* s2, const char* s3, uint64_t start_us, uint64_t end_us) noexcept {
    const inside call(*this);
    server* const to = call->as_server();
    return to ? to->send_sdp(s1, s2, s3, start_us, end_us) : 0;
}

int Rtsp::send_setup(const char* destination, unsigned port) noexcept {
    const inside call(*this);
    if (client* const to = call->as_client()) return to->send_setup(port);
    return call->as_server()->send_setup(destination, port);
}

void Rtsp::share_stream(const rtp::trak_t* shared) noexcept {
    if (server* const to = session::of(*this).as_server()) to->share_stream(shared);
}

int Rtsp::send_play(uint64_t time_us) noexcept {
    const inside call(*this);
    server* const to = call->as_server();
    return to ? to->send_play(time_us) : 0;
}

int Rtsp::send_error(unsigned code) noexcept {
    const inside call(*this);
    server* const to = call->as_server();
    return to ? to->send_error(code) : 0;
}

// Client

int Rtsp::select_trak(uint32_t index, bool wanted) noexcept {
    client* const to = session::of(*this).as_client();
    return to && to->select(index, wanted);
}

uint64_t Rtsp::keep_alive_interval() const noexcept {
    constexpr uint64_t without_timeout = 30'000'000;
    const client* const to = of(*this).as_client();
    return to ? to->keep_alive_interval() : without_timeout;
}

int Rtsp::send_keep_alive() noexcept {
    const inside call(*this);
    client* const to = call->as_client();
    return to ? to->send_keep_alive() : 0;
}

void Rtsp::flush() noexcept {
    if (client* const to = session::of(*this).as_client()) to->frames().flush();
}

const av::frame_t* Rtsp::frame() const noexcept {
    const client* const to = of(*this).as_client();
    return to ? to->frames().frame() : nullptr;
}

const char* Rtsp::method() const noexcept {
    const client* const to = of(*this).as_client();
    return to ? to->method() : "";
}

unsigned Rtsp::status() const noexcept {
    const client* const to = of(*this).as_client();
    return to ? to->status() : 0;
}

const char* Rtsp::moved_to() const noexcept {
    const client* const to = of(*this).as_client();
    return to ? to->moved_to() : nullptr;
}

const char* Rtsp::failure() const noexcept {
    const client* const to = of(*this).as_client();
    return to ? to->failure() : "";
}

// Tunnel

const char* Rtsp::tunnel_cookie() const noexcept { return of(*this).pair.cookie(); }

int Rtsp::join(Rtsp* get) noexcept { return get && session::of(*this).pair.join(session::of(*get).pair); }

// Media

int Rtsp::send_frame(const av::frame_t* frame) noexcept {
    server* const to = session::of(*this).as_server();
    return to ? to->frames().send(frame) : 0;
}

int Rtsp::send_meta(const av::meta_t* meta) noexcept {
    server* const to = session::of(*this).as_server();
    return to ? to->frames().send(meta) : 0;
}

int Rtsp::send_packets(rtp::Packets& packets) noexcept {
    server* const to = session::of(*this).as_server();
    return to ? to->frames().send(packets) : 0;
}

buffer_t Rtsp::lent() const noexcept {
    const server* const to = of(*this).as_server();
    return to ? to->frames().lent() : buffer_t{};
}

void Rtsp::take_lent(uint32_t count) noexcept {
    if (server* const to = session::of(*this).as_server()) to->frames().take_lent(count);
}

// Input

void Rtsp::process(buf_t* data) noexcept { session::of(*this).take_bytes(data); }

int Rtsp::process_header(header_s* header) noexcept { return session::of(*this).in.take_header(header); }

void Rtsp::process_rtp(unsigned short channel, buffer_t packet) noexcept {
    session::of(*this).take_packet(unsigned{channel}, packet);
}

namespace {

/// Null asks, a response is taken, a request is served.
template <class Ask, class Take, class Serve>
void process(session& to, header_s* header, Ask ask, Take take, Serve serve) noexcept {
    client* const asks = header ? to.as_client() : to.asking();  // a session at work stays what it is
    const conversation::call running(to.talk);
    if (header) framing::trim(header);
    if (!header) {
        if (asks) ask(*asks);
    } else if (asks && header->status) {
        take(*asks);
    } else if (asks) {
        asks->serve(header);
    } else if (server* const serves = header->status ? nullptr : to.serving()) {
        serve(*serves);
    }
}

constexpr auto nothing = [](auto&) {};

}  // namespace

void Rtsp::process_options(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_options(nullptr); },
        [=](client& to) { to.take_options(header); }, [=](server& to) { to.options(header); });
}

void Rtsp::process_describe(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_describe(nullptr); },
        [=](client& to) { to.take_describe(header); }, [=](server& to) { to.describe_stream(header); });
}

void Rtsp::process_setup(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.set_up_next(); }, [=](client& to) { to.take_setup(header); },
        [=](server& to) { to.set_up(header); });
}

void Rtsp::process_play(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_play(nullptr); }, [=](client& to) { to.take_play(header); },
        [=](server& to) { to.play(header); });
}

void Rtsp::process_pause(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_pause(nullptr); },
        [=](client& to) { to.take_pause(header); }, [=](server& to) { to.pause(header); });
}

void Rtsp::process_get_parameter(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_get_parameter(nullptr); }, nothing,
        [=](server& to) { to.parameter(header); });
}

void Rtsp::process_set_parameter(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_set_parameter(nullptr); }, nothing,
        [=](server& to) { to.parameter(header); });
}

void Rtsp::process_teardown(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_teardown(nullptr); },
        [=](client& to) { to.take_teardown(header); }, [=](server& to) { to.teardown(header); });
}

void Rtsp::process_get(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_get(nullptr); }, [=](client& to) { to.take_get(header); },
        [=](server& to) { to.get(header); });
}

void Rtsp::process_post(header_s* header) noexcept {
    rtsp3::process(
        session::of(*this), header, [](client& to) { to.ask_post(); }, nothing, [=](server& to) { to.post(header); });
}

int Rtsp::process_authorization(header_s* header) noexcept {
    const inside call(*this);
    if (client* const to = call->as_client()) return header && header->status && to->repeat_with_credentials(header);
    return call->as_server()->admit(header);
}

// Output

int Rtsp::send_header(header_s* header, const char* uri) noexcept { return session::of(*this).out.send(header, uri); }

int Rtsp::send_content(const char* data, int size) noexcept { return session::of(*this).out.send_content(data, size); }

// State

int Rtsp::id() const noexcept { return of(*this).talk.number; }

buf_t* Rtsp::send_buffer() noexcept { return &session::of(*this).out.bytes(); }

const rtp::Rtp* Rtsp::rtp() const noexcept { return &of(*this).talk.rtp; }

const trak_t* Rtsp::trak() const noexcept {
    const rtsp3::session& in = of(*this);
    if (in.talk.event_trak) return in.talk.event_trak;
    const server* const to = in.as_server();
    return to ? to->trak() : nullptr;
}

const trak_t* Rtsp::trak(uint32_t index) const noexcept {
    const conversation& talk = of(*this).talk;
    return index < talk.trak_total ? talk.traks[index] : nullptr;
}

uint32_t Rtsp::trak_count() const noexcept { return of(*this).talk.trak_total; }

protocol_t::enum_t Rtsp::protocol() const noexcept { return of(*this).talk.transport; }

const char* Rtsp::uri() const noexcept { return of(*this).talk.location.get(); }

const char* Rtsp::authorization() const noexcept {
    const server* const to = of(*this).as_server();
    return to ? to->authorization() : nullptr;
}

uint32_t Rtsp::activity() const noexcept { return of(*this).talk.received; }

const char* Rtsp::session() const noexcept { return of(*this).talk.identifier; }

bool Rtsp::playing() const noexcept { return of(*this).talk.playing; }

bool Rtsp::closed() const noexcept { return of(*this).talk.ended; }

}  // namespace rtsp3
