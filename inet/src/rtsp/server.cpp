// Answers requests (RFC 2326, 10).
#include "rtsp/session.h"
#include "rtsp/transport.h"

#include "common/digest.h"
#include "core/text.h"
#include "inet/net_http_auth.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <span>

namespace rtsp3 {

using net::http::header_s;

namespace {

std::atomic<uint32_t> next_session{0};

bool ends_with_segment(std::string_view path, std::string_view segment) noexcept {
    while (path.ends_with('/'))
        path.remove_suffix(1);
    if (!path.ends_with(segment)) return false;
    path.remove_suffix(segment.size());
    return path.empty() || path.ends_with('/');
}

void print_transport(const trak_t& trak, const char* destination, unsigned port, std::span<char> out) noexcept {
    switch (trak.protocol) {
        case protocol_t::rtp_tcp:
            std::snprintf(out.data(), out.size(), "RTP/AVP/TCP;unicast;interleaved=%u-%u", unsigned{trak.channel},
                          trak.channel + 1U);
            return;
        case protocol_t::rtp_udp:
            std::snprintf(out.data(), out.size(), "RTP/AVP/UDP;unicast;client_port=%u-%u;server_port=%u-%u;",
                          unsigned{trak.client_port}, trak.client_port + 1U, port, port + 1);
            return;
        case protocol_t::rtp_multicast:
            std::snprintf(out.data(), out.size(), "RTP/AVP/UDP;multicast;destination=%s;port=%u-%u", destination, port,
                          port + 1);
            return;
    }
}

}  // namespace

bool names_control(std::string_view uri, std::string_view control) noexcept {
    return ends_with_segment(uri, control) || ends_with_segment(uri.substr(0, uri.find('?')), control);
}

struct Rtsp::method_t {
    std::string_view name;
    void (Rtsp::*serve)(header_s*) noexcept;
    bool needs_admission;
    bool in_session;  ///< a Session field must be that of this conversation
    bool by_servers;  ///< a client answers it too
};

void Rtsp::remember_cseq(const header_s* header) noexcept {
    const char* value = field(header, "CSeq");
    const bool usable = value && core_strlen(value) < sizeof cseq_ && is_printable(value);
    std::snprintf(cseq_, sizeof cseq_, "%s", usable ? value : "");
}

void Rtsp::serve_request(header_s* header) noexcept {
    static constexpr method_t methods[] = {
        {"OPTIONS", &Rtsp::process_options, false, false, true},
        {"DESCRIBE", &Rtsp::process_describe, true, false, false},
        {"SETUP", &Rtsp::process_setup, true, true, false},
        {"PLAY", &Rtsp::process_play, true, true, false},
        {"PAUSE", &Rtsp::process_pause, true, true, false},
        {"GET_PARAMETER", &Rtsp::process_get_parameter, true, true, true},
        {"SET_PARAMETER", &Rtsp::process_set_parameter, true, true, true},
        {"GET", &Rtsp::process_get, false, false, false},
        {"POST", &Rtsp::process_post, false, false, false},
        {"TEARDOWN", &Rtsp::process_teardown, true, true, false},
    };
    ++activity_;
    if (is_unread()) return fail("replies are not read");
    remember_cseq(header);
    const auto method = std::find_if(std::begin(methods), std::end(methods),
                                     [&](const method_t& known) { return known.name == header->method; });
    if (method == std::end(methods) || (role_ == role_t::client && !method->by_servers)) {
        core_log_print(log_, "%d: method is not served: %s", id_, header->method);
        return;
    }
    if (!header->uri || !is_printable(header->uri)) {
        send_error(400);
        return;
    }
    if (method->needs_admission && !process_authorization(header)) return;
    if (method->in_session && !in_session(header)) {
        send_error(454);
        return;
    }
    (this->*method->serve)(header);
}

int Rtsp::process_authorization(header_s* header) noexcept {
    if (header && header->status) return repeat_with_credentials(header);
    if (!gate_ || (header && is_admitted(header))) return 1;
    core_log_print(log_, "%d: access denied", id_);
    send_error(401);
    return 0;
}

// Some players answer for the session's URI, with or without the slash of the base, in the requests of its tracks too.
bool Rtsp::is_admitted(const header_s* header) const noexcept {
    const char* answer = field(header, "Authorization");
    if (!answer || !nonce_) return false;
    const char* const targets[] = {header->uri, uri_.get(), content_base_.get()};
    return std::any_of(std::begin(targets), std::end(targets), [&](const char* target) {
        return net_http_authenticate_check(answer, header->method, target, user_.get(), password_.get(), auth_realm,
                                           nonce_.get());
    });
}

// The conversation has one session at a time, so a request that names none means that one.
bool Rtsp::in_session(const header_s* header) const noexcept {
    const char* value = field(header, "Session");
    if (!value) return true;
    std::string_view id(value);
    id = id.substr(0, id.find_first_of("; \t"));
    return !id.empty() && id == session_;
}

void Rtsp::process_options(header_s* header) noexcept {
    if (!header || header->status) return take_options(header);
    reply ok(200, "OK", cseq_);
    ok.put("Public", "OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE");
    ok.put_date();
    send_header(ok.header(), nullptr);
}

void Rtsp::process_describe(header_s* header) noexcept {
    if (!header || header->status) return take_describe(header);
    const char* answer = field(header, "Authorization");
    core::owned_text authorization(core_strdup(answer, file_, line_));
    if ((answer && !authorization) || !set_uri(header->uri)) {
        send_error(500);
        return;
    }
    authorization_ = std::move(authorization);
    clear_traks();
    raise(event_t::open_server);
}

void Rtsp::process_setup(header_s* header) noexcept {
    if (!header || header->status) return take_setup(header);
    const char* alternatives = field(header, "Transport");
    transport_choice choice;
    unsigned refusal = choose_transport(&alternatives, file_, line_, &choice);
    if (refusal == 400) {
        send_error(400);
        return;
    }
    trak_t* trak = find_trak(header->uri);
    if (!trak) refusal = 404;
    while (refusal == 0) {
        refused_ = false;
        offer_setup(trak, choice);
        if (!refused_) return;
        refusal = choose_transport(&alternatives, file_, line_, &choice);
        if (refusal == 400) refusal = 461;
    }
    send_error(refusal);
}

// Refused, or not answered, the track is not set up, whatever it was before.
void Rtsp::offer_setup(trak_t* trak, const transport_choice& choice) noexcept {
    trak->set_up = 0;
    trak->rtp->active = 0;
    trak->shared = nullptr;
    trak->protocol = protocol_ = choice.protocol;
    trak->client_port = choice.client_port;
    trak->channel = choice.has_channel ? choice.channel : default_channel(trak);
    trak_ = trak;
    raise(event_t::rtsp_setup);
    refused_ = refused_ && trak_ == trak;  // it may be gone
    trak_ = nullptr;
}

bool Rtsp::is_set_up() const noexcept {
    return std::any_of(traks_, traks_ + trak_count_, [](const trak_t* trak) { return trak->set_up; });
}

uint8_t Rtsp::default_channel(const trak_t* trak) const noexcept {
    return static_cast<uint8_t>(2 * (std::find(traks_, traks_ + trak_count_, trak) - traks_));
}

// Tracks of one medium have one control value: the first that waits for its SETUP is meant.
trak_t* Rtsp::find_trak(const char* uri) noexcept {
    core_log_print(log_, "%u: setup try find: %s", static_cast<unsigned>(id_), uri);
    trak_t* found = nullptr;
    for (uint32_t i = 0; i < trak_count_; ++i) {
        trak_t* trak = traks_[i];
        core_log_print(log_, "%u: setup try find: from %s", static_cast<unsigned>(id_), trak->media);
        if (!names_control(uri, trak->media)) continue;
        if (!trak->set_up) return trak;
        if (!found) found = trak;
    }
    if (!found) core_log_print(log_, "%u: setup not found: %s", static_cast<unsigned>(id_), uri);
    return found;
}

int Rtsp::send_setup(const char* destination, unsigned port) noexcept {
    trak_t* trak = trak_;
    if (!trak || closed_ || packing_) return 0;
    if (role_ == role_t::client) return ask_setup_from(trak, port);
    if (trak->protocol == protocol_t::rtp_multicast && (!destination || !*destination)) {
        refused_ = !trak->set_up;
        return 0;
    }
    if (!*session_) std::snprintf(session_, sizeof session_, "%u", ++next_session);
    char transport[160];
    print_transport(*trak, destination, port, transport);
    reply ok(200, "OK", cseq_);
    ok.put("Session", session_);
    ok.put("Transport", transport);
    // The stream stands before the reply goes out: its event may already bring frames.
    trak->server_port = static_cast<uint16_t>(port);
    draw_stream(trak);
    trak->set_up = trak->rtp->active = 1;
    if (send_header(ok.header(), nullptr)) return 1;
    trak->set_up = trak->rtp->active = 0;
    return 0;
}

void Rtsp::share_stream(const rtp::trak_t* shared) noexcept {
    if (trak_ && role_ == role_t::server && trak_->protocol == protocol_t::rtp_multicast) trak_->shared = shared;
}

// A stream of its own: nothing of an earlier one goes on, and its first packets bring a report (RFC 3550, 5.1 and 6.2).
void Rtsp::draw_stream(trak_t* trak) noexcept {
    const auto taken = [&](uint32_t ssrc) {
        return ssrc == 0 || std::any_of(traks_, traks_ + trak_count_,
                                        [&](const trak_t* other) { return other != trak && other->rtp->ssrc == ssrc; });
    };
    do {
        common_random(&trak->rtp->ssrc, sizeof trak->rtp->ssrc);
    } while (taken(trak->rtp->ssrc));
    common_random(&trak->rtp->seq, sizeof trak->rtp->seq);
    trak->rtp->next_rtcp = 0;
    trak->rtp->packets = trak->rtp->octets = 0;
}

void Rtsp::process_play(header_s* header) noexcept {
    if (!header || header->status) return take_play(header);
    if (!is_set_up()) {
        send_error(455);
        return;
    }
    playing_ = true;
    answered_ = false;
    raise(event_t::rtsp_play);
    if (!answered_) playing_ = false;
}

int Rtsp::send_play(uint64_t time_us) noexcept {
    if (closed_) return 0;
    reply ok(200, "OK", cseq_);
    ok.put("Session", session_);
    ok.put("RTP-Info", rtp_info(time_us).get());
    ok.put_date();
    answered_ = true;
    if (send_header(ok.header(), nullptr)) return 1;
    answered_ = false;
    return 0;
}

// The first entry has no rtptime; players take that of its first packet.
core::owned_text Rtsp::rtp_info(uint64_t time_us) const noexcept {
    core::owned_text info;
    for (uint32_t i = 0; i < trak_count_; ++i) {
        const trak_t* trak = traks_[i];
        const char* base = content_base_ ? content_base_.get() : "";
        const uint16_t seq = trak->shared ? trak->shared->seq : trak->rtp->seq;
        if (i == 0) {
            info.reset(core_sprintf(file_, line_, "url=%s%s;seq=%hu", base, trak->media, seq));
        } else {
            info.reset(core_sprintf(file_, line_, "%s,url=%s%s;seq=%hu;rtptime=%u", info.get(), base, trak->media, seq,
                                    rtp::timestamp(time_us, trak->rtp->clock_rate)));
        }
        if (!info) return nullptr;
    }
    return info;
}

void Rtsp::process_pause(header_s* header) noexcept {
    if (!header || header->status) return take_pause(header);
    if (!is_set_up()) {
        send_error(455);
        return;
    }
    playing_ = false;
    send_ok();
    raise(event_t::rtsp_pause);
}

void Rtsp::process_get_parameter(header_s* header) noexcept {
    if (!header) ask_get_parameter(nullptr);
    if (header && !header->status) send_ok();
}

void Rtsp::process_set_parameter(header_s* header) noexcept {
    if (!header) ask_set_parameter(nullptr);
    if (header && !header->status) send_ok();
}

void Rtsp::process_teardown(header_s* header) noexcept {
    if (!header || header->status) return take_teardown(header);
    send_ok();
    playing_ = false;
    for (uint32_t i = 0; i < trak_count_; ++i)
        traks_[i]->set_up = traks_[i]->rtp->active = 0;
    *session_ = 0;
    raise(event_t::rtsp_stop);
}

}  // namespace rtsp3
