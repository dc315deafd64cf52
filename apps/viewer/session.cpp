#include "session.h"

#include "program.h"

#include "core/memory.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <string_view>

namespace viewer {
namespace {

constexpr uint64_t second = 1'000'000;
/// How long nothing may come over UDP before TCP is tried.
constexpr uint64_t udp_patience = 3 * second;
/// How long the server may take to answer TEARDOWN.
constexpr uint64_t longest_leave = second;
/// After such a pause a frame whose packets end with a marker is not going to be continued.
constexpr uint64_t pause = second;
/// Sound and picture may end so much later than a track that has come to its end.
constexpr int64_t longest_overrun = second;

/// Why there is no connection, where people can do something about it.
const char* describe(int error) {
    switch (error) {
        case socket_error_refused:
            return ": refused";
        case socket_error_timed_out:
            return ": no answer";
        case socket_error_network_unreachable:
        case socket_error_host_unreachable:
            return ": unreachable";
        default:
            return "";
    }
}

ending refusal(const std::string& request, unsigned status) {
    const std::string why = request + " was answered with " + std::to_string(status);
    if (status == 401 || status == 403) return {outcome::refused, why + ": user or password is not let in"};
    if (status == 404) return {outcome::not_found, why + ": no such stream"};
    if (status == 454) return {outcome::connection_lost, why + ": the server has ended the session"};
    return {outcome::protocol_error, why};
}

}  // namespace

session::session(net::nt_ctx* nt, const options& settings, const order& wanted, recording& files)
    : nt_(nt), settings_(settings), wanted_(wanted), files_(files), rtsp_(rtsp3::Rtsp::create(CORE_HERE)) {}

session::~session() {
    for (auto& each : udp_)
        each.reset();
    post_.reset();
    main_.reset();
    rtsp3::Rtsp::destroy(rtsp_);
}

void session::start() {
    deadline_ = core_timer() + settings_.timeout * second;
    if (!rtsp_) return end({outcome::failed, "no memory"});
    rtsp_->set_handler(this);
    rtsp_->set_parameter_sets(rtsp3::parameter_sets_t::keys);
    rtsp_->set_tunnel(wanted_.way == transport::http);
    if (wanted_.way == transport::udp) rtsp_->set_protocol(rtsp3::protocol_t::rtp_udp);
    if (wanted_.way == transport::multicast) rtsp_->set_protocol(rtsp3::protocol_t::rtp_multicast);
    lookup_.emplace(settings_.host);
    connect();
}

/// As soon as the address of the host is known.
void session::connect() {
    if (lookup_->now() == host_lookup::state::running) return;
    if (lookup_->now() == host_lookup::state::failed) {
        return end({outcome::no_connection, "no such host: " + settings_.host});
    }
    main_ = std::make_unique<connection>(nt_, *this);
    if (!main_->open(lookup_->address(), settings_.port)) end(no_connection(*main_));
}

ending session::no_connection(const connection& missed) const {
    return {outcome::no_connection,
            "cannot connect to " + settings_.host + ":" + std::to_string(settings_.port) + describe(missed.error())};
}

void session::tick(uint64_t now) {
    for (const auto& each : udp_) {
        if (each) each->expire(now);
    }
    if (stage_ == stage::connecting && !main_) connect();
    if (stage_ == stage::playing) {
        watch_media(now);
    } else if (stage_ != stage::ended && now >= deadline_) {
        if (stage_ == stage::leaving) return end(result_);
        const bool connecting = stage_ == stage::connecting;
        end({connecting ? outcome::no_connection : outcome::protocol_error,
             settings_.host + (connecting ? " cannot be reached" : " does not answer")});
    }
}

session::pulse session::feel() const {
    pulse felt;
    for (const auto& each : tracks_) {
        if (!each) continue;
        felt.packets += each->packets();
        felt.at_rest &= each->is_at_rest();
        felt.media |= each->is_media();
        felt.over &= each->is_over() || !each->is_media();
    }
    return felt;
}

void session::watch_media(uint64_t now) {
    const pulse felt = feel();
    if (felt.packets != packets_) {
        packets_ = felt.packets;
        last_packet_ = now;
        flushed_ = false;
    }
    keep_alive(now);
    const uint64_t silent = now - last_packet_;
    const uint64_t timeout = settings_.timeout * second;
    if (!packets_ && wanted_.way == transport::udp && silent >= std::min(udp_patience, timeout)) {
        fall_back("nothing arrives over UDP");
    } else if (!packets_ && silent >= timeout) {
        leave({outcome::nothing_received, "no media comes"});
    } else if (felt.media && silent >= timeout) {
        leave({outcome::connection_lost, "no media comes any more"});
    } else if (packets_ && felt.at_rest && silent >= pause && !flushed_) {
        flushed_ = true;
        rtsp_->flush();
    } else if (felt.media && felt.over && silent >= pause) {
        rtsp_->flush();
        leave({outcome::connection_lost, "the server has ended the stream"});
    }
}

void session::keep_alive(uint64_t now) {
    if (now - kept_alive_ < rtsp_->keep_alive_interval()) return;
    kept_alive_ = now;
    rtsp_->send_keep_alive();
    send();
}

void session::fall_back(const std::string& why) {
    apps::complain(name, why + ", trying tcp");
    wants_tcp_ = true;
    leave({outcome::nothing_received, why});
}

void session::leave(const ending& result) {
    if (stage_ >= stage::leaving) return;
    const bool said = stage_ >= stage::asking && *rtsp_->session();
    if (!said) return end(result);
    stage_ = stage::leaving;
    result_ = result;
    deadline_ = core_timer() + longest_leave;
    rtsp_->process_teardown(nullptr);
    send();
}

void session::end(const ending& result) {
    if (stage_ == stage::ended) return;
    if (stage_ != stage::leaving) result_ = result;
    last_reports_ = reports();
    stage_ = stage::ended;
    for (const auto& each : udp_) {
        if (each) each->stop();
    }
}

void session::on_connected(connection& from) {
    if (&from == main_.get() && stage_ == stage::connecting) {
        stage_ = stage::asking;
        if (!rtsp_->open(settings_.uri.c_str())) return end({outcome::failed, "the URI cannot be asked for"});
    }
    send();
}

void session::on_received(connection& from, buf_t& received) {
    if (&from == main_.get() && stage_ != stage::ended) {
        rtsp_->process(&received);
        send();
    } else {
        received.length = 0;
    }
}

void session::on_writable(connection&) { send(); }

void session::on_closed(connection& from) {
    if (stage_ == stage::connecting || from.error()) {
        end(no_connection(from));
    } else {
        end({outcome::connection_lost, settings_.host + " closed the connection"});
    }
}

/// What is said to the server goes over the second connection of a tunnel once there is one.
void session::send() {
    if (stage_ != stage::ended) (post_ ? *post_ : *main_).send(*rtsp_->send_buffer());
}

void session::open_post() {
    post_ = std::make_unique<connection>(nt_, *this);
    if (!post_->open(lookup_->address(), settings_.port)) end(no_connection(*post_));
}

void session::on_rtsp_event(rtsp3::Rtsp*, rtsp3::event_t::enum_t event) noexcept {
    using e = rtsp3::event_t;
    switch (event) {
        case e::rtsp_setup:
            set_up();
            break;
        case e::rtsp_ready:
            make_ready();
            break;
        case e::rtsp_play:
            play();
            break;
        case e::rtsp_frame:
            take_frame();
            break;
        case e::rtsp_rtcp:
            if (const auto& udp = udp_[index_of(rtsp_->trak())]) udp->send_report(rtsp_->rtp()->packet);
            break;
        case e::rtsp_error:
            take_error();
            break;
        case e::rtsp_stop:
            end(result_);
            break;
        case e::rtsp_close:
            end({outcome::protocol_error, settings_.host + " broke the protocol"});
            break;
        case e::tunnel_post:
            open_post();
            break;
        default:
            break;  // rtsp_send: send() follows each input
    }
}

size_t session::index_of(const rtsp3::trak_t* source) const {
    size_t i = 0;
    while (i + 1 < rtsp3::max_traks && rtsp_->trak(static_cast<uint32_t>(i)) != source)
        ++i;
    return i;
}

udp_track& session::make_udp(const rtsp3::trak_t& source) {
    auto& udp = udp_[index_of(&source)];
    udp = std::make_unique<udp_track>(nt_, *rtsp_, source, main_->peer());
    return *udp;
}

void session::set_up() {
    if (wanted_.way != transport::udp) return;
    udp_track& udp = make_udp(*rtsp_->trak());
    if (udp.open()) {
        rtsp_->send_setup(nullptr, udp.port());
    } else {
        end({outcome::failed, "no UDP port"});
    }
}

void session::make_ready() {
    note_tracks();
    if (!refused_track_.why.empty()) apps::complain(name, refused_track_.why + ", going on without that track");
    if (wanted_.way != transport::multicast) return;
    for (uint32_t i = 0; i < rtsp_->trak_count(); ++i) {
        const rtsp3::trak_t& source = *rtsp_->trak(i);
        if (source.set_up && !make_udp(source).join(main_->local_address())) {
            return end({outcome::protocol_error, "the group that the server names cannot be joined"});
        }
    }
}

/// The files get the first track of each format.
void session::note_tracks() {
    std::vector<uint32_t> formats;
    for (uint32_t i = 0; i < rtsp_->trak_count(); ++i) {
        const rtsp3::trak_t& source = *rtsp_->trak(i);
        if (!source.set_up) continue;
        const bool first = std::find(formats.begin(), formats.end(), source.fcc) == formats.end();
        formats.push_back(source.fcc);
        tracks_[i] = std::make_unique<track>(source, wanted_.duration, first);
    }
    play_time_ = time_now();
}

void session::play() {
    if (stage_ != stage::asking) return;
    stage_ = stage::playing;
    last_packet_ = kept_alive_ = core_timer();
}

void session::take_frame() {
    const rtsp3::trak_t& source = *rtsp_->trak();
    const auto& of = tracks_[index_of(&source)];
    if (!of || stage_ > stage::playing) return;
    if (of->take(*rtsp_->frame()) && of->is_recorded()) {
        av::frame_t frame = *rtsp_->frame();
        // Exact, where the time of the frame advances by whole milliseconds.
        frame.time = play_time_ + static_cast<uint64_t>(source.media_time);
        if (!files_.take(frame)) return leave({outcome::cannot_write, "cannot write " + files_.failed()});
    }
    if (is_complete()) leave({});
}

/// Sound and picture have come to the end that was wanted.
bool session::is_complete() const {
    if (!wanted_.duration) return false;
    bool any = false;
    bool all = true;
    bool overrun = false;
    for (const auto& each : tracks_) {
        if (!each) continue;
        const bool media = each->is_media();
        any |= each->is_done();
        all &= each->is_done() || !media;
        overrun |= each->length() >= static_cast<int64_t>(wanted_.duration) + longest_overrun;
    }
    return any && (all || overrun);
}

void session::take_error() {
    const std::string method = rtsp_->method();
    const unsigned status = rtsp_->status();
    if (stage_ == stage::leaving) return end(result_);
    if (stage_ == stage::playing && status != 454) return;  // a keep-alive; the stream goes on
    constexpr unsigned unsupported_transport = 461;
    if (method == "SETUP" && status == unsupported_transport && wanted_.way == transport::udp) {
        return fall_back("the server does not send over UDP");
    }
    const ending failure =
        status ? refusal(method, status) : ending{outcome::protocol_error, method + ": " + rtsp_->failure()};
    if (method != "SETUP") return end(failure);
    // The other tracks may do; when none does, the first one tells why.
    if (refused_track_.why.empty()) refused_track_ = failure;
    if (!status) return end(refused_track_);
    rtsp_->process_setup(nullptr);
}

std::vector<track_report> session::reports() const {
    if (stage_ == stage::ended) return last_reports_;
    std::vector<track_report> result;
    for (const auto& each : tracks_) {
        if (each) result.push_back(each->report());
    }
    return result;
}

}  // namespace viewer
