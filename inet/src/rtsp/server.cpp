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

namespace rtsp3 {

using net::http::header_s;

namespace {

constexpr uint32_t max_replies_waiting = 64 * 1024;

std::atomic<uint32_t> next_session{0};

const char* field(const header_s* header, const char* name) noexcept { return value_geti(header->fields, name); }

bool is_printable(std::string_view text) noexcept {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

bool ends_with_segment(std::string_view path, std::string_view segment) noexcept {
    while (path.ends_with('/'))
        path.remove_suffix(1);
    if (!path.ends_with(segment)) return false;
    path.remove_suffix(segment.size());
    return path.empty() || path.ends_with('/');
}

/// Whether a SETUP URI, absolute or relative, names a track by its control value. Players put a query of the session's
/// URI before the control or behind it.
bool names_control(std::string_view uri, std::string_view control) noexcept {
    return ends_with_segment(uri, control) || ends_with_segment(uri.substr(0, uri.find('?')), control);
}

}  // namespace

struct Rtsp::method_t {
    std::string_view name;
    void (Rtsp::*serve)(header_s*) noexcept;
    bool needs_admission;
    bool in_session;  ///< a Session field must be that of this conversation
};

void Rtsp::remember_cseq(const header_s* header) noexcept {
    const char* value = field(header, "CSeq");
    const bool usable = value && core_strlen(value) < sizeof cseq_ && is_printable(value);
    std::snprintf(cseq_, sizeof cseq_, "%s", usable ? value : "");
}

void Rtsp::serve_request(header_s* header) noexcept {
    static constexpr method_t methods[] = {
        {"OPTIONS", &Rtsp::process_options, false, false},
        {"DESCRIBE", &Rtsp::process_describe, true, false},
        {"SETUP", &Rtsp::process_setup, true, true},
        {"PLAY", &Rtsp::process_play, true, true},
        {"PAUSE", &Rtsp::process_pause, true, true},
        {"GET_PARAMETER", &Rtsp::process_get_parameter, true, true},
        {"SET_PARAMETER", &Rtsp::process_set_parameter, true, true},
        {"TEARDOWN", &Rtsp::process_teardown, true, true},
    };
    if (send_.length == 0) replies_ = 0;
    if (replies_ > max_replies_waiting) return fail("replies are not read");
    remember_cseq(header);
    const auto method = std::find_if(std::begin(methods), std::end(methods),
                                     [&](const method_t& known) { return known.name == header->method; });
    if (method == std::end(methods)) {
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
    if (!header) return;
    reply ok(200, "OK", cseq_);
    ok.put("Public", "OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE");
    ok.put_date();
    send_header(ok.header(), nullptr);
}

void Rtsp::process_describe(header_s* header) noexcept {
    if (!header) return;
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
    if (!header) return;
    transport_choice choice;
    const unsigned refusal = choose_transport(field(header, "Transport"), file_, line_, &choice);
    if (refusal == 400) {
        send_error(400);
        return;
    }
    trak_t* trak = find_trak(header->uri);
    if (!trak || refusal) {
        send_error(trak ? refusal : 404);
        return;
    }
    // Refused, or not answered, the track is not set up, whatever it was before.
    trak->set_up = 0;
    trak->rtp->active = 0;
    trak->protocol = protocol_ = choice.protocol;
    trak->client_port = choice.client_port;
    trak->channel = choice.has_channel ? choice.channel : default_channel(trak);
    trak_ = trak;
    raise(event_t::rtsp_setup);
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

int Rtsp::send_setup(const char*, unsigned port) noexcept {
    trak_t* trak = trak_;
    if (!trak || closed_ || packing_) return 0;
    if (!*session_) std::snprintf(session_, sizeof session_, "%u", ++next_session);
    char transport[96];
    if (trak->protocol == protocol_t::rtp_tcp) {
        std::snprintf(transport, sizeof transport, "RTP/AVP/TCP;unicast;interleaved=%u-%u", unsigned{trak->channel},
                      trak->channel + 1U);
    } else {
        std::snprintf(transport, sizeof transport, "RTP/AVP/UDP;unicast;client_port=%u-%u;server_port=%u-%u;",
                      unsigned{trak->client_port}, trak->client_port + 1U, port, port + 1);
    }
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
    if (!header) return;
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
        if (i == 0) {
            info.reset(core_sprintf(file_, line_, "url=%s%s;seq=%hu", base, trak->media, trak->rtp->seq));
        } else {
            info.reset(core_sprintf(file_, line_, "%s,url=%s%s;seq=%hu;rtptime=%u", info.get(), base, trak->media,
                                    trak->rtp->seq, rtp::timestamp(time_us, trak->rtp->clock_rate)));
        }
        if (!info) return nullptr;
    }
    return info;
}

void Rtsp::process_pause(header_s* header) noexcept {
    if (!header) return;
    if (!is_set_up()) {
        send_error(455);
        return;
    }
    playing_ = false;
    send_ok();
    raise(event_t::rtsp_pause);
}

void Rtsp::process_get_parameter(header_s* header) noexcept { process_set_parameter(header); }

void Rtsp::process_set_parameter(header_s* header) noexcept {
    if (header) send_ok();
}

void Rtsp::process_teardown(header_s* header) noexcept {
    if (!header) return;
    send_ok();
    playing_ = false;
    for (uint32_t i = 0; i < trak_count_; ++i)
        traks_[i]->set_up = traks_[i]->rtp->active = 0;
    *session_ = 0;
    raise(event_t::rtsp_stop);
}

}  // namespace rtsp3
