// Asks for a stream, from OPTIONS to PLAY, and keeps it (RFC 2326, 10).
#include "rtsp/client.h"

#include "scan.h"

#include "common/digest.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_http_auth.h"
#include "inet/net_sdp.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace rtsp3 {

using net::http::header_s;

namespace {

constexpr uint32_t default_timeout = 60;  // seconds (RFC 2326, 12.37)
constexpr uint64_t us_per_second = 1000000;

/// A part of the user-info, decoded; '+' stands for itself there.
core::owned_text decode_user_info(std::string_view text, const char* file, int line) noexcept {
    core::owned_text out(static_cast<char*>(core_malloc(text.size() + 1, file, line)));
    if (!out) return out;
    char* to = out.get();
    for (size_t i = 0; i < text.size(); ++i) {
        const int high = i + 2 < text.size() ? scan::hex_digit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? scan::hex_digit(text[i + 2]) : -1;
        const bool coded = text[i] == '%' && high >= 0 && low >= 0;
        *to++ = coded ? static_cast<char>(high * 16 + low) : text[i];
        if (coded) i += 2;
    }
    *to = 0;
    return out;
}

/// The Digest challenge of a field, which may hold others in front of it; null for none.
const char* digest_of(const char* value) noexcept {
    if (core_strncasecmp(value, "Digest", 6) == 0) return value;
    const char* const behind = std::strstr(value, ", Digest ");
    return behind ? behind + 2 : nullptr;
}

/// Of the challenges the one that tells a listener least: Digest with MD5 before Basic. Null when none can be answered.
const char* choose_challenge(const header_s* header) noexcept {
    const char* basic = nullptr;
    for (value_t* const* field = header->fields; field && *field; ++field) {
        const char* value = (*field)->value;
        if (core_strcasecmp((*field)->key, "WWW-Authenticate") != 0 || !value || !is_printable(value)) continue;
        const char* const digest = digest_of(value);
        if (digest && !std::strstr(digest, "SHA-")) return digest;
        if (core_strncasecmp(value, "Basic", 5) == 0 && !basic) basic = value;
    }
    return basic;
}

}  // namespace

const Rtsp::asked_t Rtsp::asked_t::options{"OPTIONS", &Rtsp::ask_options, &Rtsp::take_options};
const Rtsp::asked_t Rtsp::asked_t::describe{"DESCRIBE", &Rtsp::ask_describe, &Rtsp::take_describe};
const Rtsp::asked_t Rtsp::asked_t::setup{"SETUP", &Rtsp::ask_setup, &Rtsp::take_setup};
const Rtsp::asked_t Rtsp::asked_t::play{"PLAY", &Rtsp::ask_play, &Rtsp::take_play};
const Rtsp::asked_t Rtsp::asked_t::pause{"PAUSE", &Rtsp::ask_pause, &Rtsp::take_pause};
const Rtsp::asked_t Rtsp::asked_t::get_parameter{"GET_PARAMETER", &Rtsp::ask_get_parameter, nullptr};
const Rtsp::asked_t Rtsp::asked_t::set_parameter{"SET_PARAMETER", &Rtsp::ask_set_parameter, nullptr};
const Rtsp::asked_t Rtsp::asked_t::teardown{"TEARDOWN", &Rtsp::ask_teardown, &Rtsp::take_teardown};
const Rtsp::asked_t Rtsp::asked_t::get{"GET", &Rtsp::ask_get, &Rtsp::take_get};

int Rtsp::open(const char* uri) noexcept {
    if (closed_ || running_ || !take_uri(uri)) return 0;
    forget_conversation();
    role_ = role_t::client;
    gate_ = false;
    if (tunnel_ == tunnel_t::none) return ask_options(nullptr);
    cookie_.reset(common_srand(22, file_, line_));
    return cookie_ ? ask_get(nullptr) : 0;
}

// The next connection begins with nothing of the last: no half of a message, no unsent request, no credentials.
void Rtsp::forget_conversation() noexcept {
    clear_traks();
    leave_tunnel();
    if (held_) http_header_free(held_);
    receive_.length = send_.length = decoded_.length = 0;
    used_ = replies_ = 0;
    std::fill(std::begin(pending_), std::end(pending_), pending_t{});
    response_to_ = {};
    challenge_.reset();
    base_.reset();
    *session_ = 0;
    step_ = step_t::none;
    timeout_ = next_cseq_ = named_cseq_ = senseless_ = 0;
    has_get_parameter_ = names_requests_ = false;
    const bool tunnelled = tunnel_ == tunnel_t::get_client || tunnel_ == tunnel_t::post_client;
    tunnel_ = tunnelled ? tunnel_t::get_client : tunnel_t::none;
}

// Splits off the user-info: up to the last '@' of the authority, as passwords are often written as they are.
bool Rtsp::take_uri(const char* uri) noexcept {
    const std::string_view text = scan::text(uri);
    const size_t scheme = text.find("://");
    if (scheme == std::string_view::npos || !is_request_uri(text)) return false;
    const size_t start = scheme + 3;
    const std::string_view authority = text.substr(start, text.find_first_of("/?", start) - start);
    const size_t at = authority.rfind('@');
    const std::string_view info = authority.substr(0, at == std::string_view::npos ? 0 : at);
    const std::string_view host = authority.substr(at == std::string_view::npos ? 0 : at + 1);
    if (host.empty()) return false;

    const core::owned_text bare(core_sprintf(file_, line_, "%.*s%s", static_cast<int>(start), uri, host.data()));
    const scan::pair parts = scan::split(info, ':');
    core::owned_text user = decode_user_info(parts.key, file_, line_);
    core::owned_text password = decode_user_info(parts.value, file_, line_);
    // Decoded, a user could break the line that it stands in.
    if (!bare || !user || !password || !is_printable(user.get()) || !set_uri(bare.get())) return false;
    if (info.empty()) user.reset();
    user_ = std::move(user);
    password_ = std::move(password);
    return true;
}

// Asking makes a session that serves nothing a client.
bool Rtsp::may_ask() noexcept {
    if (closed_ || packing_ || !uri_) return false;
    if (role_ == role_t::server && (trak_count_ || *session_)) return false;
    role_ = role_t::client;
    if (is_unread()) fail("requests are not read");
    return !closed_;
}

void Rtsp::add_credentials(request& request, const char* method, const char* uri) const noexcept {
    if (!challenge_) return;
    const core::owned_text value(
        net_http_authenticate(user_.get(), password_.get(), method, uri, challenge_.get(), file_, line_));
    request.put("Authorization", value.get());
}

int Rtsp::ask(const asked_t& method, const char* uri, trak_t* trak, const char* name, const char* value) noexcept {
    if (!may_ask()) return 0;
    request request(method.name, nullptr, "RTSP/1.0", ++next_cseq_);
    request.put("Session", session_);
    if (name) request.put(name, value);
    add_credentials(request, method.name, uri);
    return send_pending(method, request, uri, trak);
}

int Rtsp::send_pending(const asked_t& method, request& request, const char* uri, trak_t* trak) noexcept {
    pending_t& pending = pending_[next_cseq_ % std::size(pending_)];
    pending = {next_cseq_, &method, trak, repeating_};
    if (request.header() && send_header(request.header(), uri)) return 1;
    pending = {};
    failed(method.name, 0, "no memory");
    return 0;
}

int Rtsp::ask_options(trak_t*) noexcept {
    if (step_ < step_t::options) step_ = step_t::options;
    return ask(asked_t::options, uri_.get(), nullptr, nullptr, nullptr);
}

int Rtsp::ask_describe(trak_t*) noexcept {
    step_ = step_t::describe;
    return ask(asked_t::describe, uri_.get(), nullptr, "Accept", "application/sdp");
}

int Rtsp::ask_setup(trak_t* trak) noexcept {
    if (!trak) return 0;
    char transport[80];
    switch (trak->protocol) {
        case protocol_t::rtp_tcp:
            std::snprintf(transport, sizeof transport, "RTP/AVP/TCP;unicast;interleaved=%u-%u", unsigned{trak->channel},
                          trak->channel + 1U);
            break;
        case protocol_t::rtp_udp:
            std::snprintf(transport, sizeof transport, "RTP/AVP/UDP;unicast;client_port=%u-%u",
                          unsigned{trak->client_port}, trak->client_port + 1U);
            break;
        case protocol_t::rtp_multicast:
            std::snprintf(transport, sizeof transport, "RTP/AVP/UDP;multicast");
            break;
    }
    return ask(asked_t::setup, trak->uri.get(), trak, "Transport", transport);
}

int Rtsp::ask_setup_from(trak_t* trak, unsigned port) noexcept {
    if (step_ != step_t::setup || gathering_ || answered_) return 0;
    if (trak->protocol == protocol_t::rtp_udp) {
        if (port == 0 || port > max_port) return 0;
        trak->client_port = static_cast<uint16_t>(port);
    }
    answered_ = true;
    return ask_setup(trak);
}

int Rtsp::ask_play(trak_t*) noexcept {
    if (!may_ask()) return 0;
    step_ = step_t::play;
    play_time_ = time_now();
    for (uint32_t i = 0; i < trak_count_; ++i) {
        if (traks_[i]->rtp) traks_[i]->gathered->before_play = traks_[i]->rtp->received;
    }
    return ask(asked_t::play, aggregate_uri(), nullptr, nullptr, nullptr);
}

int Rtsp::ask_pause(trak_t*) noexcept { return ask(asked_t::pause, aggregate_uri(), nullptr, nullptr, nullptr); }

int Rtsp::ask_get_parameter(trak_t*) noexcept {
    return ask(asked_t::get_parameter, aggregate_uri(), nullptr, nullptr, nullptr);
}

int Rtsp::ask_set_parameter(trak_t*) noexcept {
    return ask(asked_t::set_parameter, aggregate_uri(), nullptr, nullptr, nullptr);
}

int Rtsp::ask_teardown(trak_t*) noexcept { return ask(asked_t::teardown, aggregate_uri(), nullptr, nullptr, nullptr); }

uint64_t Rtsp::keep_alive_interval() const noexcept {
    return (timeout_ ? timeout_ : default_timeout) * us_per_second / 2;
}

int Rtsp::send_keep_alive() noexcept {
    if (!*session_ || role_ != role_t::client) return 0;
    return has_get_parameter_ ? ask_get_parameter(nullptr) : ask_options(nullptr);
}

// Responses name their request by CSeq; one without, or with another, answers the last (RFC 2326, 12.17). Only from a
// server that has named two of them right, an earlier number is a repetition, which answers nothing.
bool Rtsp::take_pending(const header_s* header, pending_t* out) noexcept {
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

void Rtsp::serve_response(header_s* header) noexcept {
    constexpr uint32_t unauthorized = 401;
    constexpr uint32_t no_session = 454;
    if (header->status < 200) return;  // the answer is still to come
    if (!take_pending(header, &response_to_)) {
        core_log_print(log_, "rtsp protocol dectect bad header");
        core_con_printf(0, "rtsp protocol dectect bad header");
        return count_senseless();
    }
    senseless_ = 0;
    const asked_t& method = *response_to_.method;
    if (header->status == unauthorized && process_authorization(header)) {
        core_log_print(log_, "%d: %s again with credentials", id_, method.name);
    } else if (header->status != 200) {
        if (&method == &asked_t::get_parameter && header->status != no_session) has_get_parameter_ = false;
        failed(method.name, header->status, "the server refused");
    } else if (method.take) {
        (this->*method.take)(header);
    }
    response_to_ = {};
}

int Rtsp::repeat_with_credentials(const header_s* header) noexcept {
    const pending_t refused = response_to_;
    const char* challenge = choose_challenge(header);
    if (!refused.method || refused.repeated || !user_ || !challenge) return 0;
    // A Basic challenge in the same field would be answered first, with the password.
    const std::string_view text(challenge);
    const size_t size = std::min(text.find(", Basic "), text.size());
    core::owned_text copy(core_strndup(challenge, size, file_, line_));
    if (!copy) return 0;
    challenge_ = std::move(copy);
    repeating_ = true;
    (this->*refused.method->ask)(refused.trak);
    repeating_ = false;
    return 1;
}

void Rtsp::failed(const char* method, unsigned status, const char* why) noexcept {
    if (closed_) return;
    core_log_print(log_, "%d: %s failed: %u: %s", id_, method, status, why);
    method_ = method;
    status_ = status;
    failure_ = why;
    raise(event_t::rtsp_error);
}

void Rtsp::take_options(header_s* header) noexcept {
    if (!header) {
        ask_options(nullptr);
        return;
    }
    if (step_ != step_t::options) return;
    const char* methods = field(header, "Public");
    has_get_parameter_ = methods && std::strstr(methods, "GET_PARAMETER");
    ask_describe(nullptr);
}

void Rtsp::take_describe(header_s* header) noexcept {
    if (!header) {
        ask_describe(nullptr);
        return;
    }
    if (step_ != step_t::describe) return;
    clear_traks();
    const core::owned_text text(core_strndup(reinterpret_cast<const char*>(body_.data), body_.size, file_, line_));
    core_log_print(log_, "%u: sdp:\n%s", static_cast<unsigned>(id_), text ? text.get() : "");
    if (!take_content_base(header) || (body_.size && !text) || !take_description(text.get())) {
        failed("DESCRIBE", 0, "no memory");
        return;
    }
    if (trak_count_) raise(event_t::open_client);
    if (step_ == step_t::describe && !closed_) set_up_next();
}

int Rtsp::select_trak(uint32_t index, bool wanted) noexcept {
    if (index >= trak_count_ || role_ != role_t::client || !traks_[index]->rtp) return 0;
    traks_[index]->wanted = wanted;
    return 1;
}

void Rtsp::set_up_next() noexcept {
    if (trak_count_ == 0) {
        core_log_print(log_, "%u: setup failed, no _sdp", static_cast<unsigned>(id_));
        failed("SETUP", 0, "no description of a stream");
        return;
    }
    step_ = step_t::setup;
    const auto waits = [](const trak_t* trak) { return trak->wanted && !trak->gathered->tried; };
    while (!closed_) {
        trak_t** const next = std::find_if(traks_, traks_ + trak_count_, waits);
        if (next == traks_ + trak_count_) return set_up_done();
        trak_t* const trak = *next;
        trak->gathered->tried = true;
        trak->protocol = tunnel_ == tunnel_t::none ? protocol_ : protocol_t::rtp_tcp;
        answered_ = false;
        trak_ = trak;
        raise(event_t::rtsp_setup);
        const bool gone = trak_ != trak;
        trak_ = nullptr;
        if (gone || answered_ || closed_) return;
        if (trak->protocol != protocol_t::rtp_udp) {
            ask_setup(trak);
            return;
        }
        core_log_print(log_, "%d: no port for %s", id_, trak->uri.get());
    }
}

void Rtsp::set_up_done() noexcept {
    if (!is_set_up()) {
        failed("SETUP", 0, "no track is set up");
        return;
    }
    raise(event_t::rtsp_ready);
    if (step_ == step_t::setup && !closed_) ask_play(nullptr);
}

void Rtsp::take_setup(header_s* header) noexcept {
    trak_t* trak = response_to_.trak;
    if (header && !trak) return;
    if (header) {
        if (!take_session(header) || !take_transport(trak, field(header, "Transport"))) {
            failed("SETUP", 0, "an answer that cannot be used");
            return;
        }
        trak->set_up = 1;
        trak->gathered->torn = trak->protocol == protocol_t::rtp_multicast;  // joined in the middle of a picture
    }
    set_up_next();
}

bool Rtsp::take_session(const header_s* header) noexcept {
    std::string_view rest = scan::skip(scan::text(field(header, "Session")), " \t");
    if (rest.empty()) return true;
    std::string_view id = scan::take(rest, ';');
    rest = scan::skip(rest, " \t");
    id = id.substr(0, id.find_first_of(" \t"));
    if (id.empty() || id.size() >= sizeof session_ || !is_printable(id)) return false;
    std::copy(id.begin(), id.end(), session_);
    session_[id.size()] = 0;
    scan::for_each_element(rest, ';', [&](std::string_view parameter) {
        const scan::pair pair = scan::split(parameter, '=');
        if (pair.key == "timeout") timeout_ = scan::decimal(pair.value);
    });
    return true;
}

// What the server leaves out stays as it was asked for.
bool Rtsp::take_transport(trak_t* trak, const char* value) noexcept {
    if (!value) return true;
    const owned_transport read(sdp_parse_transport(value, file_, line_));
    if (!read) return false;
    trak->server_ssrc = read->ssrc;
    if (trak->protocol == protocol_t::rtp_tcp) {
        const bool has_channel = std::strstr(value, "interleaved=");
        if (has_channel && read->client_port <= max_channel) trak->channel = static_cast<uint8_t>(read->client_port);
        return has_channel || read->tcp;
    }
    if (read->server_port && read->server_port <= max_port)
        trak->server_port = static_cast<uint16_t>(read->server_port);
    trak->source.reset(std::exchange(read->source, nullptr));
    if (read->destination) trak->destination.reset(std::exchange(read->destination, nullptr));
    if (trak->protocol == protocol_t::rtp_multicast) return trak->destination && trak->server_port;
    return !read->tcp;
}

void Rtsp::take_play(header_s* header) noexcept {
    if (!header) {
        ask_play(nullptr);
        return;
    }
    step_ = step_t::playing;
    playing_ = true;
    take_rtp_info(field(header, "RTP-Info"));
    raise(event_t::rtsp_play);
}

void Rtsp::take_pause(header_s* header) noexcept {
    if (!header) {
        ask_pause(nullptr);
        return;
    }
    playing_ = false;
    flush();
    raise(event_t::rtsp_pause);
}

void Rtsp::take_teardown(header_s* header) noexcept {
    if (!header) {
        ask_teardown(nullptr);
        return;
    }
    flush();
    playing_ = false;
    for (uint32_t i = 0; i < trak_count_; ++i)
        traks_[i]->set_up = 0;
    *session_ = 0;
    raise(event_t::rtsp_stop);
}

}  // namespace rtsp3
