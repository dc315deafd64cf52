#include "rtsp/client.h"

#include "rtsp/transport.h"
#include "scan.h"
#include "uri/reference.h"

#include "core/text.h"
#include "core/time.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace rtsp3 {

namespace {

constexpr uint32_t default_timeout = 60;  // seconds (RFC 2326, 12.37)
constexpr uint64_t us_per_second = 1000000;

/// The part of an absolute URI that an HTTP request names.
const char* path_of(const char* uri) noexcept {
    const char* authority = std::strstr(uri, "://");
    const char* path = authority ? authority + 3 + std::strcspn(authority + 3, "/?") : uri;
    return *path ? path : "/";
}

}  // namespace

const client::asked_t client::options{"OPTIONS", &client::ask_options, &client::take_options};
const client::asked_t client::describe{"DESCRIBE", &client::ask_describe, &client::take_describe};
const client::asked_t client::setup{"SETUP", &client::ask_setup, &client::take_setup};
const client::asked_t client::play{"PLAY", &client::ask_play, &client::take_play};
const client::asked_t client::pause{"PAUSE", &client::ask_pause, &client::take_pause};
const client::asked_t client::get_parameter{"GET_PARAMETER", &client::ask_get_parameter, nullptr};
const client::asked_t client::set_parameter{"SET_PARAMETER", &client::ask_set_parameter, nullptr};
const client::asked_t client::teardown{"TEARDOWN", &client::ask_teardown, &client::take_teardown};
const client::asked_t client::get{"GET", &client::ask_get, &client::take_get};

client::client(conversation& of, outbox& out, tunnel& by, const client_settings& settings) noexcept
    : talk_(of), out_(out), tunnel_(by), settings_(settings), stream_(of), frames_(of, out, settings) {
    talk_.rtp.set_handler(&frames_);
    talk_.rtp.skip_extensions(true);
}

// Splits off the user-info: up to the last '@' of the authority, as passwords are often written as they are.
bool client::read_uri(conversation& talk, const char* uri, login_t* login) noexcept {
    const std::string_view text = scan::text(uri);
    const size_t scheme = text.find("://");
    if (scheme == std::string_view::npos || !is_request_uri(text)) return false;
    const size_t start = scheme + 3;
    const std::string_view authority = text.substr(start, text.find_first_of("/?", start) - start);
    const size_t at = authority.rfind('@');
    const std::string_view info = authority.substr(0, at == std::string_view::npos ? 0 : at);
    const std::string_view host = authority.substr(at == std::string_view::npos ? 0 : at + 1);
    if (host.empty()) return false;

    const core::owned_text bare(
        core_sprintf(talk.file, talk.line, "%.*s%s", static_cast<int>(start), uri, host.data()));
    const scan::pair parts = scan::split(info, ':');
    const auto decode = [&](std::string_view part) {
        const char* const begin = part.data() ? part.data() : "";
        return core::owned_text(uri_decode_part(begin, begin + part.size(), talk.file, talk.line));
    };
    core::owned_text user = decode(parts.key);
    core::owned_text password = decode(parts.value);
    // Decoded, a user could break the line that it stands in.
    if (!bare || !user || !password || !is_printable(user.get()) || !talk.set_location(bare.get())) return false;
    if (info.empty()) user.reset();
    login->user = std::move(user);
    login->password = std::move(password);
    return true;
}

int client::open(login_t login) noexcept {
    login_ = std::move(login);
    if (!settings_.tunnelled) return ask_options(nullptr);
    return tunnel_.draw_cookie() ? ask_get(nullptr) : 0;
}

void client::forget_tracks() noexcept {
    response_to_.track = asking_for_ = nullptr;
    for (pending_t& pending : pending_)
        pending.track = nullptr;
}

bool client::may_ask() noexcept {
    if (talk_.ended || !talk_.location) return false;
    if (out_.has_unread_bytes()) talk_.fail("requests are not read");
    return !talk_.ended;
}

void client::add_credentials(request& request, const char* method, const char* uri) noexcept {
    if (!challenge_.is_taken() || !login_.user) return;
    const core::owned_text value = challenge_.answer(login_.user.get(), scan::text(login_.password.get()), method, uri);
    request.put("Authorization", value.get());
}

int client::ask(const asked_t& method, const char* uri, track_t* track, const char* name, const char* value) noexcept {
    if (!may_ask()) return 0;
    request request(method.name, nullptr, "RTSP/1.0", ++next_cseq_);
    request.put("Session", talk_.identifier);
    if (name) request.put(name, value);
    add_credentials(request, method.name, uri);
    return send_pending(method, request, uri, track);
}

int client::send_pending(const asked_t& method, request& request, const char* uri, track_t* track) noexcept {
    pending_t& pending = pending_[next_cseq_ % std::size(pending_)];
    pending = {next_cseq_, &method, track, repeating_};
    if (out_.send(request.header(), uri)) return 1;
    pending = {};
    failed(method.name, 0, "no memory");
    return 0;
}

int client::ask_options(track_t*) noexcept {
    if (step_ < step_t::options) step_ = step_t::options;
    return ask(options, talk_.location.get());
}

int client::ask_describe(track_t*) noexcept {
    step_ = step_t::describe;
    return ask(describe, talk_.location.get(), nullptr, "Accept", "application/sdp");
}

int client::ask_setup(track_t* track) noexcept {
    if (!track) return 0;
    char transport[80];
    print_asked(*track, transport);
    return ask(setup, track->uri.get(), track, "Transport", transport);
}

int client::send_setup(unsigned port) noexcept {
    track_t* const track = asking_for_;
    if (!track || step_ != step_t::setup || talk_.at_work || answered_) return 0;
    if (track->protocol == protocol_t::rtp_udp) {
        if (port == 0 || port > max_port) return 0;
        track->client_port = static_cast<uint16_t>(port);
    }
    answered_ = true;
    return ask_setup(track);
}

int client::ask_play(track_t*) noexcept {
    if (!may_ask()) return 0;
    step_ = step_t::play;
    frames_.begin(time_now());
    return ask(play, stream_.aggregate_uri());
}

int client::ask_pause(track_t*) noexcept { return ask(pause, stream_.aggregate_uri()); }

int client::ask_get_parameter(track_t*) noexcept { return ask(get_parameter, stream_.aggregate_uri()); }

int client::ask_set_parameter(track_t*) noexcept { return ask(set_parameter, stream_.aggregate_uri()); }

int client::ask_teardown(track_t*) noexcept { return ask(teardown, stream_.aggregate_uri()); }

uint64_t client::keep_alive_interval() const noexcept {
    return (timeout_ ? timeout_ : default_timeout) * us_per_second / 2;
}

int client::send_keep_alive() noexcept {
    if (!*talk_.identifier) return 0;
    return has_get_parameter_ ? ask_get_parameter(nullptr) : ask_options(nullptr);
}

// Responses name their request by CSeq; one without, or with another, answers the last (RFC 2326, 12.17). Only from a
// server that has named two of them right, an earlier number is a repetition, which answers nothing.
bool client::take_pending(const header_s* header, pending_t* out) noexcept {
    const uint32_t cseq = value_geti_uint32(header->fields, "CSeq");
    pending_t* pending = &pending_[cseq % std::size(pending_)];
    if (pending->method && pending->cseq == cseq) {
        names_requests_ = names_requests_ || (named_cseq_ && named_cseq_ != cseq);
        named_cseq_ = cseq;
    } else {
        if (names_requests_ && cseq && cseq < next_cseq_) return false;
        pending = &pending_[next_cseq_ % std::size(pending_)];
    }
    *out = *pending;
    *pending = {};
    return out->method != nullptr;
}

bool client::take_response(header_s* header) noexcept {
    constexpr uint32_t unauthorized = 401;
    constexpr uint32_t not_found = 404;
    constexpr uint32_t no_session = 454;
    if (!take_pending(header, &response_to_)) return false;
    const asked_t& method = *response_to_.method;
    if (header->status == unauthorized && repeat_with_credentials(header)) {
        core_log_print(talk_.log, "%d: %s again with credentials", talk_.number, method.name);
    } else if (header->status == not_found && &method == &setup && response_to_.track &&
               stream_.try_next_uri(*response_to_.track)) {
        ask_setup(response_to_.track);
    } else if (header->status != 200) {
        const bool keeps_alive = &method == &get_parameter || &method == &options;
        if (keeps_alive && header->status != no_session) has_get_parameter_ = &method == &options;
        moved_to_ = find_moved(header);
        failed(method.name, header->status, "the server refused");
        moved_to_ = nullptr;
    } else if (method.take) {
        (this->*method.take)(header);
    }
    response_to_ = {};
    return true;
}

const char* client::find_moved(const header_s* header) noexcept {
    constexpr uint32_t statuses[] = {301, 302, 303, 307};
    const char* const uri = field(header, "Location");
    const bool moved = std::ranges::find(statuses, header->status) != std::end(statuses);
    return moved && uri && net::uri::is_absolute(uri) && is_request_uri(uri) ? uri : nullptr;
}

// Other requests of servers are not served.
bool client::serve(header_s* header) noexcept {
    const std::string_view name(header->method);
    const bool asks_methods = name == "OPTIONS";
    if (!asks_methods && name != "GET_PARAMETER" && name != "SET_PARAMETER") {
        out_.refuse_method(header);
        return false;
    }
    if (!header->uri || !is_printable(header->uri)) {
        out_.send_error(400);
    } else if (asks_methods) {
        out_.send_methods();
    } else if (!talk_.is_named(header)) {
        out_.send_error(454);
    } else {
        out_.send_ok();
    }
    return true;
}

// A request is refused once for want of credentials. A nonce that is too old says nothing of the password.
bool client::repeat_with_credentials(const header_s* header) noexcept {
    constexpr uint32_t most_repeated = 3;
    const pending_t refused = response_to_;
    if (!refused.method || !login_.user || refused.repeated == most_repeated || !challenge_.take(header)) return false;
    if (refused.repeated && !challenge_.is_stale()) return false;
    repeating_ = refused.repeated + 1;
    (this->*refused.method->ask)(refused.track);
    repeating_ = 0;
    return true;
}

void client::failed(const char* method, unsigned status, const char* why) noexcept {
    if (talk_.ended) return;
    core_log_print(talk_.log, "%d: %s failed: %u: %s", talk_.number, method, status, why);
    method_ = method;
    status_ = status;
    failure_ = why;
    talk_.raise(event_t::rtsp_error);
}

void client::take_options(header_s* header) noexcept {
    if (step_ != step_t::options) return;
    has_get_parameter_ = false;
    for (value_t* const* each = header->fields; each && *each; ++each) {
        const bool lists = core_strcasecmp((*each)->key, "Public") == 0 && (*each)->value;
        has_get_parameter_ = has_get_parameter_ || (lists && std::strstr((*each)->value, "GET_PARAMETER"));
    }
    ask_describe(nullptr);
}

void client::take_describe(header_s* header) noexcept {
    if (step_ != step_t::describe) return;
    if (talk_.drop_tracks()) forget_tracks();
    if (!stream_.take(header)) {
        failed("DESCRIBE", 0, "no memory");
        return;
    }
    if (talk_.trak_total) talk_.raise(event_t::open_client);
    if (step_ == step_t::describe && !talk_.ended) set_up_next();
}

bool client::select(uint32_t index, bool wanted) noexcept {
    if (index >= talk_.trak_total || !talk_.traks[index]->rtp) return false;
    talk_.traks[index]->wanted = wanted;
    return true;
}

void client::set_up_next() noexcept {
    if (talk_.trak_total == 0) {
        core_log_print(talk_.log, "%u: setup failed, no _sdp", static_cast<unsigned>(talk_.number));
        failed("SETUP", 0, "no description of a stream");
        return;
    }
    step_ = step_t::setup;
    const auto waits = [](const track_t* each) { return each->wanted && !each->gathered->tried; };
    while (!talk_.ended) {
        const auto all = talk_.tracks();
        const auto next = std::ranges::find_if(all, waits);
        if (next == all.end()) return set_up_done();
        track_t* const track = *next;
        track->gathered->tried = true;
        track->protocol = settings_.tunnelled ? protocol_t::rtp_tcp : talk_.transport;
        answered_ = false;
        talk_.event_trak = asking_for_ = track;
        talk_.raise(event_t::rtsp_setup);
        const bool gone = asking_for_ != track;
        talk_.event_trak = asking_for_ = nullptr;
        if (gone || answered_ || talk_.ended) return;
        if (track->protocol != protocol_t::rtp_udp) {
            ask_setup(track);
            return;
        }
        core_log_print(talk_.log, "%d: no port for %s", talk_.number, track->uri.get());
    }
}

void client::set_up_done() noexcept {
    if (!talk_.is_set_up()) {
        failed("SETUP", 0, "no track is set up");
        return;
    }
    talk_.raise(event_t::rtsp_ready);
    if (step_ == step_t::setup && !talk_.ended) ask_play(nullptr);
}

void client::take_setup(header_s* header) noexcept {
    track_t* const track = response_to_.track;
    if (!track) return;
    if (!take_session(header) || !take_granted(*track, field(header, "Transport"), talk_.file, talk_.line)) {
        failed("SETUP", 0, "an answer that cannot be used");
        return;
    }
    track->set_up = 1;
    track->gathered->torn = track->protocol == protocol_t::rtp_multicast;  // joined in the middle of a picture
    set_up_next();
}

bool client::take_session(const header_s* header) noexcept {
    std::string_view rest = scan::skip(scan::text(field(header, "Session")), " \t");
    if (rest.empty()) return true;
    std::string_view id = scan::take(rest, ';');
    rest = scan::skip(rest, " \t");
    id = id.substr(0, id.find_first_of(" \t"));
    if (id.empty() || id.size() >= sizeof talk_.identifier || !is_printable(id)) return false;
    std::copy(id.begin(), id.end(), talk_.identifier);
    talk_.identifier[id.size()] = 0;
    scan::for_each_element(rest, ';', [&](std::string_view parameter) {
        const scan::pair pair = scan::split(parameter, '=');
        constexpr std::string_view timeout = "timeout";
        if (core_strncasecmp(pair.key.data(), timeout.data(), timeout.size()) == 0)
            timeout_ = scan::decimal(scan::skip(pair.value, " \t\""));
    });
    return true;
}

void client::take_play(header_s* header) noexcept {
    step_ = step_t::playing;
    talk_.playing = true;
    stream_.take_start(field(header, "RTP-Info"), frames_.play_time());
    talk_.raise(event_t::rtsp_play);
}

void client::take_pause(header_s*) noexcept {
    talk_.playing = false;
    frames_.flush();
    frames_.pause();
    talk_.raise(event_t::rtsp_pause);
}

void client::take_teardown(header_s*) noexcept {
    frames_.flush();
    talk_.playing = false;
    for (track_t* each : talk_.tracks())
        each->set_up = 0;
    *talk_.identifier = 0;
    talk_.raise(event_t::rtsp_stop);
}

// The two requests of a tunnel

int client::ask_get(track_t*) noexcept {
    if (!may_ask()) return 0;
    step_ = step_t::tunnel;
    const char* path = path_of(talk_.location.get());
    request opening("GET", path, "HTTP/1.0", ++next_cseq_);
    tunnel_.put_get(opening);
    add_credentials(opening, "GET", path);
    if (!repeating_) talk_.raise(event_t::tunnel_get);
    return send_pending(get, opening, nullptr, nullptr);
}

void client::take_get(header_s*) noexcept {
    if (step_ != step_t::tunnel) return;
    step_ = step_t::none;
    out_.bytes().length = 0;
    talk_.raise(event_t::tunnel_post);
    ask_post();
    if (talk_.ended) return;
    out_.set_base64(true);
    ask_options(nullptr);
}

void client::ask_post() noexcept {
    if (!may_ask()) return;
    const char* path = path_of(talk_.location.get());
    request post("POST", path, "HTTP/1.0", ++next_cseq_);
    tunnel_.put_post(post);
    add_credentials(post, "POST", path);
    if (!out_.send(post.header(), nullptr)) failed("POST", 0, "no memory");
}

}  // namespace rtsp3
