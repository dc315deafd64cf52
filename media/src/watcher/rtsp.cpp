// The conversation: from the look-up of the host to TEARDOWN, and when the source is given up. What comes of the tracks
// is in rtsp_tracks.cpp.
#include "watcher/rtsp.h"

#include "watcher/address.h"

#include "core/text.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <string_view>

namespace media::fetch {

namespace {

constexpr uint64_t second = 1'000'000;
/// How long nothing may come over UDP before TCP is tried.
constexpr uint64_t udp_patience = 3 * second;
/// How long the source may take to answer TEARDOWN.
constexpr uint64_t longest_leave = second;
/// After such a pause a frame whose packets end with a marker is not going to be continued.
constexpr uint64_t pause = second;
constexpr uint64_t tick_time = second / 10;

/// Why there is no connection, where people can do something about it.
const char* describe(int error) noexcept {
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

constexpr unsigned unsupported_transport = 461;

const char* name_of(transport_t way) noexcept {
    constexpr const char* names[] = {"tcp", "udp", "multicast", "http"};
    return names[static_cast<size_t>(way)];
}

ending_t refusal(const char* request, unsigned status, transport_t way) noexcept {
    constexpr const char* answered = "%s was answered with %u%s";
    switch (status) {
        case 401:
        case 403:
            return {outcome_t::refused, answered, request, status, ": user or password is not let in"};
        case 404:
            return {outcome_t::not_found, answered, request, status, ": no such stream"};
        case 454:
            return {outcome_t::connection_lost, answered, request, status, ": the server has ended the session"};
        case unsupported_transport:
            return {outcome_t::no_transport, "%s was answered with 461: the server does not send over %s", request,
                    name_of(way)};
        default:
            return {outcome_t::protocol_error, answered, request, status, ""};
    }
}

}  // namespace

rtsp_attempt::rtsp_attempt(const order_t& wanted, attempt_owner& owner) noexcept
    : wanted_(wanted), owner_(owner), rtsp_(rtsp3::Rtsp::create(CORE_HERE)) {}

// The connections first: nothing may come for a session that is gone.
rtsp_attempt::~rtsp_attempt() {
    for (track_t& each : tracks_)
        each.port.reset();
    post_.reset();
    main_.reset();
}

void rtsp_attempt::start() noexcept {
    deadline_ = core_timer() + wanted_.timeout;
    if (!rtsp_) return end({outcome_t::failed, "no memory"});
    rtsp_->set_handler(this);
    rtsp_->set_parameter_sets(wanted_.sets_in_slices ? rtsp3::parameter_sets_t::slices : rtsp3::parameter_sets_t::keys);
    rtsp_->set_prompt(true);
    rtsp_->set_all_formats(true);
    rtsp_->set_tunnel(wanted_.transport == transport_t::http);
    if (wanted_.transport == transport_t::udp) rtsp_->set_protocol(rtsp3::protocol_t::rtp_udp);
    if (wanted_.transport == transport_t::multicast) rtsp_->set_protocol(rtsp3::protocol_t::rtp_multicast);
    wanted_.lookup.begin(wanted_.address.host);
    connect();
}

/// As soon as the address of the host is known.
void rtsp_attempt::connect() noexcept {
    switch (wanted_.lookup.state()) {
        case name_lookup::state_t::running:
            return;
        case name_lookup::state_t::found:
            if (!open(main_)) end(no_connection(main_ ? main_->error() : 0));
            return;
        default:
            return end({outcome_t::no_connection, "no such host: %s", wanted_.address.host});
    }
}

bool rtsp_attempt::open(held<net::Tcp>& tcp) noexcept {
    tcp.reset(net::Tcp::create(CORE_HERE));
    if (!tcp) return false;
    tcp->set_handler(this);
    return tcp->connect(wanted_.nt, wanted_.lookup.address(), wanted_.address.port) == 0;
}

ending_t rtsp_attempt::no_connection(int error) const noexcept {
    return {outcome_t::no_connection, "cannot connect to %s:%u%s", wanted_.address.host, unsigned{wanted_.address.port},
            describe(error)};
}

uint64_t rtsp_attempt::tick(uint64_t now) noexcept {
    for (const track_t& each : tracks_) {
        if (each.port) each.port->expire(now);
    }
    if (stage_ == stage_t::connecting && !main_) connect();
    if (stage_ == stage_t::playing) {
        watch_media(now);
    } else if (stage_ != stage_t::ended && now >= deadline_) {
        if (stage_ == stage_t::connecting) {
            end({outcome_t::no_connection, "%s cannot be reached", wanted_.address.host});
        } else if (stage_ == stage_t::asking) {
            end({outcome_t::protocol_error, "%s does not answer", wanted_.address.host});
        } else {
            end(result_);
        }
    }
    return now + tick_time;
}

rtsp_attempt::pulse_t rtsp_attempt::feel() const noexcept {
    pulse_t felt;
    for (const track_t& each : tracks_) {
        if (!each.source) continue;
        const rtp::trak_t& rtp = *each.source->rtp;
        const bool media = each.received.is_media();
        felt.packets += rtp.received;
        felt.at_rest = felt.at_rest && rtp.marker;
        felt.media = felt.media || media;
        felt.over = felt.over && (rtp.bye || !media);
    }
    return felt;
}

void rtsp_attempt::watch_media(uint64_t now) noexcept {
    const pulse_t felt = feel();
    if (felt.packets != packets_) {
        packets_ = felt.packets;
        last_packet_ = now;
        flushed_ = false;
    }
    keep_alive(now);
    const uint64_t silent = now - last_packet_;
    if (!packets_ && wanted_.transport == transport_t::udp && silent >= std::min(udp_patience, wanted_.timeout)) {
        fall_back("nothing arrives over UDP");
    } else if (!packets_ && silent >= wanted_.timeout) {
        leave({outcome_t::nothing_received, "no media comes"});
    } else if (felt.media && silent >= wanted_.timeout) {
        leave({outcome_t::connection_lost, "no media comes any more"});
    } else if (packets_ && felt.at_rest && silent >= pause && !flushed_) {
        flushed_ = true;
        rtsp_->flush();
    } else if (felt.media && felt.over && silent >= pause) {
        rtsp_->flush();
        leave({outcome_t::connection_lost, "the server has ended the stream"});
    }
}

void rtsp_attempt::keep_alive(uint64_t now) noexcept {
    if (now - kept_alive_ < rtsp_->keep_alive_interval()) return;
    kept_alive_ = now;
    rtsp_->send_keep_alive();
    send();
}

void rtsp_attempt::fall_back(const char* why) noexcept {
    owner_.tell({.what = watch_event_t::falls_back, .outcome = outcome_t::nothing_received, .text = why});
    wants_tcp_ = true;
    leave({outcome_t::nothing_received, "%s", why});
}

void rtsp_attempt::leave(const ending_t& result) noexcept {
    if (stage_ >= stage_t::leaving) return;
    const bool said = stage_ >= stage_t::asking && *rtsp_->session();
    if (!said) return end(result);
    stage_ = stage_t::leaving;
    result_ = result;
    deadline_ = core_timer() + longest_leave;
    rtsp_->process_teardown(nullptr);
    send();
}

void rtsp_attempt::end(const ending_t& result) noexcept {
    if (stage_ == stage_t::ended) return;
    if (stage_ != stage_t::leaving) result_ = result;
    last_count_ = counts(last_counts_);
    stage_ = stage_t::ended;
    for (const track_t& each : tracks_) {
        if (each.port) each.port->stop();
    }
    owner_.ended();
}

void rtsp_attempt::on_tcp_connected(net::Tcp* tcp) noexcept {
    if (tcp == main_.get() && stage_ == stage_t::connecting) {
        stage_ = stage_t::asking;
        if (!rtsp_->open(wanted_.address.uri.get())) return end({outcome_t::failed, "the URI cannot be asked for"});
    }
    send();
}

/// What comes on the second connection of a tunnel is of no interest.
void rtsp_attempt::on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept {
    if (tcp == main_.get() && stage_ != stage_t::ended) {
        rtsp_->process(received);
        send();
    } else {
        received->length = 0;
    }
}

void rtsp_attempt::on_tcp_writable(net::Tcp*) noexcept { send(); }

void rtsp_attempt::on_tcp_closed(net::Tcp* tcp, int error) noexcept {
    const bool never_made = stage_ == stage_t::connecting || (tcp == post_.get() && tcp->sent() == 0);
    if (never_made) {
        end(no_connection(error));
    } else {
        end({outcome_t::connection_lost, "%s closed the connection", wanted_.address.host});
    }
}

/// What is said to the source goes over the second connection of a tunnel once there is one.
void rtsp_attempt::send() noexcept {
    if (stage_ != stage_t::ended) (post_ ? *post_ : *main_).flush(*rtsp_->send_buffer());
}

void rtsp_attempt::on_rtsp_event(rtsp3::Rtsp*, rtsp3::event_t::enum_t event) noexcept {
    using e = rtsp3::event_t;
    switch (event) {
        case e::open_client:
            return select_tracks();
        case e::rtsp_setup:
            return set_up();
        case e::rtsp_ready:
            return make_ready();
        case e::rtsp_play:
            return play();
        case e::rtsp_frame:
            return take_frame();
        case e::rtsp_rtcp:
            return send_report();
        case e::rtsp_error:
            return take_error();
        case e::rtsp_stop:
            return end(result_);
        case e::rtsp_close:
            return end({outcome_t::protocol_error, "%s broke the protocol", wanted_.address.host});
        case e::tunnel_post:
            if (!open(post_)) end(no_connection(post_ ? post_->error() : 0));
            return;
        default:
            return;  // rtsp_send: send() follows each input
    }
}

void rtsp_attempt::play() noexcept {
    if (stage_ != stage_t::asking) return;
    stage_ = stage_t::playing;
    played_ = last_packet_ = kept_alive_ = core_timer();
    owner_.tell({.what = watch_event_t::playing});
}

void rtsp_attempt::take_error() noexcept {
    const char* const method = rtsp_->method();
    const unsigned status = rtsp_->status();
    if (stage_ == stage_t::leaving) return end(result_);
    if (stage_ == stage_t::playing && status != 454) return;  // a keep-alive; the stream goes on
    const bool is_setup = std::string_view(method) == "SETUP";
    if (rtsp_->moved_to()) {
        moved_to_.reset(core_strdup(rtsp_->moved_to(), CORE_HERE));
        return end(refusal(method, status, wanted_.transport));
    }
    // Some refuse it, others answer with another transport.
    if (is_setup && (status == unsupported_transport || !status) && wanted_.transport == transport_t::udp) {
        return fall_back("the server does not send over UDP");
    }
    // Some serve the others without knowing this one.
    if (std::string_view(method) == "OPTIONS" && status && status != 401 && status != 403) {
        rtsp_->process_describe(nullptr);
        return;
    }
    const ending_t failure = status ? refusal(method, status, wanted_.transport)
                                    : ending_t{outcome_t::protocol_error, "%s: %s", method, rtsp_->failure()};
    if (!is_setup) return end(failure);
    // The other tracks may do; when none does, the first one tells why.
    if (!*refused_track_.text) refused_track_ = failure;
    if (!status) return end(refused_track_);
    rtsp_->process_setup(nullptr);
}

}  // namespace media::fetch
