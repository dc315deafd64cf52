#include "rtsp/server.h"

#include "avc/fcc.h"
#include "common/digest.h"
#include "common/h264.h"
#include "core/text.h"
#include "inet/net_http_auth.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iterator>
#include <utility>

namespace rtsp3 {

namespace {

std::atomic<uint32_t> next_session{0};

constexpr uint32_t nonce_length = 46;
constexpr uint8_t first_dynamic_pt = 96;
constexpr uint32_t max_config = 64;

}  // namespace

server::server(conversation& of, outbox& out, tunnel& by) noexcept
    : talk_(of), out_(out), tunnel_(by), frames_(of, out), next_pt_(first_dynamic_pt) {
    talk_.rtp.set_handler(&frames_);
}

bool server::set_credentials(const char* user, const char* password) noexcept {
    gate_ = user != nullptr;
    user_.reset(core_strdup(user, talk_.file, talk_.line));
    password_.reset(core_strdup(gate_ && !password ? "" : password, talk_.file, talk_.line));
    nonce_.reset(gate_ ? common_srand(nonce_length, talk_.file, talk_.line) : nullptr);
    return !gate_ || (user_ && password_ && nonce_);
}

trak_t* server::add_trak(uint32_t fcc, const char* name, const sound_t& sound, const char* file, int line) noexcept {
    const format_t* format = find_format(fcc);
    if (!format || talk_.ended || talk_.at_work || talk_.trak_total == max_traks) return nullptr;
    if (format->asked_for && !talk_.all_formats) return nullptr;
    const uint32_t rate = sound.rate ? sound.rate : format->clock_rate;
    const bool is_aac = fcc == av::fcc_mp4a;
    if (is_aac && (rate == 0 || sound.config.size == 0 || sound.config.size > max_config)) return nullptr;
    // A payload type of its own has PCMA of that clock and one channel alone (RFC 3551, 6).
    const bool usual = rate == format->clock_rate && sound.channels <= 1;
    const uint8_t pt = format->pt && (usual || !format->asked_for) ? format->pt : next_pt_;
    if (talk_.rtp.get_trak_pt(pt)) return nullptr;

    core::owned_object<track_t> track(core::create<track_t>(file, line));
    if (!track) return nullptr;
    track->fcc = fcc;
    track->media = format->media;
    track->name.reset(core_strdup(name, file, line));
    if (name && !track->name) return nullptr;
    track->rtp = talk_.rtp.add_trak(pt, fcc);
    if (!track->rtp) return nullptr;
    if (is_aac && core_buf_read(&track->config, sound.config.data, sound.config.size) != sound.config.size)
        return nullptr;
    track->rtp->clock_rate = rate;
    track->rate = sound.rate;
    track->channels = sound.channels;
    if (pt == next_pt_) ++next_pt_;
    talk_.add(std::move(track));
    return talk_.tracks().back();
}

bool server::describe_trak(const trak_t* trak, buffer_t parameter_sets) noexcept {
    constexpr uint32_t longest = 16 * 1024;
    const auto all = talk_.tracks();
    const auto found = std::ranges::find(all, trak);
    if (found == all.end() || trak->fcc != av::fcc_h264 || !parameter_sets.data || parameter_sets.size > longest)
        return false;
    std::span<const uint8_t> sps;
    std::span<const uint8_t> pps;
    h264_parse({parameter_sets.data, parameter_sets.size}, &sps, &pps, nullptr);
    buf_t& sets = (*found)->parameter_sets;
    if (sps.size() < 4 || pps.empty()) return false;
    if (sets.size < parameter_sets.size && !core_buf_resize(&sets, parameter_sets.size, talk_.file, talk_.line))
        return false;
    sets.length = 0;
    core_buf_read(&sets, parameter_sets.data, parameter_sets.size);
    return true;
}

void server::forget_tracks() noexcept {
    next_pt_ = first_dynamic_pt;
    owed_trak_ = nullptr;
}

void server::forget() noexcept {
    forget_tracks();
    owed_ = owed_t::nothing;
}

// Requests

struct server::method_t {
    std::string_view name;
    void (server::*serve)(header_s*) noexcept;
    bool needs_admission;
    bool in_session;  ///< a Session field must be that of this conversation
};

bool server::serve(header_s* header) noexcept {
    static constexpr method_t methods[] = {
        {"OPTIONS", &server::options, false, false},
        {"DESCRIBE", &server::describe_stream, true, false},
        {"SETUP", &server::set_up, true, true},
        {"PLAY", &server::play, true, true},
        {"PAUSE", &server::pause, true, true},
        {"GET_PARAMETER", &server::parameter, true, true},
        {"SET_PARAMETER", &server::parameter, true, true},
        {"GET", &server::get, false, false},
        {"POST", &server::post, false, false},
        {"TEARDOWN", &server::teardown, true, true},
    };
    owed_ = owed_t::nothing;
    const auto* const method =
        std::ranges::find_if(methods, [&](const method_t& known) { return known.name == header->method; });
    if (method == std::end(methods)) {
        out_.refuse_method(header);
        return false;
    }
    if (!header->uri || !is_printable(header->uri)) {
        out_.send_error(400);
    } else if (method->needs_admission && !admit(header)) {
        return true;
    } else if (method->in_session && !talk_.is_named(header)) {
        out_.send_error(454);
    } else {
        (this->*method->serve)(header);
    }
    return true;
}

// Reports tell that somebody is there; nothing in them changes what a server does.
void server::take_rtp(unsigned channel, buffer_t packet) noexcept {
    if (talk_.ended || talk_.at_work || !packet.data) return;
    const track_t* const track = talk_.track_of_channel(channel);
    if (track ? channel != track->channel : (channel & 1) != 0) ++talk_.received;
}

bool server::admit(const header_s* header) noexcept {
    if (!gate_ || (header && is_admitted(header))) return true;
    core_log_print(talk_.log, "%d: access denied", talk_.number);
    out_.send_error(401, nonce_.get());
    return false;
}

// Some players answer for the session's URI, with or without the slash of the base, in the requests of its tracks too.
bool server::is_admitted(const header_s* header) const noexcept {
    const char* answer = field(header, "Authorization");
    if (!answer || !nonce_) return false;
    const char* const targets[] = {header->uri, talk_.location.get(), talk_.content_base.get()};
    return std::ranges::any_of(targets, [&](const char* target) {
        return net_http_authenticate_check(answer, header->method, target, user_.get(), password_.get(), "inet",
                                           nonce_.get());
    });
}

void server::options(header_s*) noexcept { out_.send_methods(); }

void server::describe_stream(header_s* header) noexcept {
    const char* answer = field(header, "Authorization");
    core::owned_text authorization(core_strdup(answer, talk_.file, talk_.line));
    if ((answer && !authorization) || !talk_.set_location(header->uri)) {
        out_.send_error(500);
        return;
    }
    authorization_ = std::move(authorization);
    talk_.drop_tracks();
    forget_tracks();
    ask_owner(owed_t::description, event_t::open_server);
}

void server::set_up(header_s* header) noexcept {
    alternatives_.reset(core_strdup(field(header, "Transport"), talk_.file, talk_.line));
    alternative_ = alternatives_.get();
    transport_choice choice;
    unsigned refusal = choose_transport(&alternative_, talk_.file, talk_.line, &choice);
    if (!alternative_ && field(header, "Transport")) refusal = 500;
    if (refusal == 400 || refusal == 500) {
        out_.send_error(refusal);
        return;
    }
    owed_trak_ = find_track(header->uri);
    offer_setup(owed_trak_ ? refusal : 404, choice);
}

// Goes through the alternatives up to the first that the owner does not refuse.
void server::offer_setup(unsigned refusal, transport_choice choice) noexcept {
    while (refusal == 0 && !offer(choice)) {
        refusal = choose_transport(&alternative_, talk_.file, talk_.line, &choice);
        if (refusal == 400) refusal = 461;
    }
    if (refusal == 0) return;
    owed_trak_ = nullptr;
    owed_ = owed_t::nothing;
    out_.send_error(refusal);
}

// Refused, or not answered, the track is not set up, whatever it was before. False when it was refused.
bool server::offer(const transport_choice& choice) noexcept {
    track_t* const track = owed_trak_;
    track->set_up = 0;
    track->rtp->active = 0;
    track->shared = nullptr;
    track->protocol = talk_.transport = choice.protocol;
    track->client_port = choice.client_port;
    track->channel = choice.has_channel ? choice.channel : default_channel(*track);
    refused_ = false;
    ask_owner(owed_t::setup, event_t::rtsp_setup);
    const bool stands = !talk_.ended && owed_ == owed_t::setup && owed_trak_ == track;
    return !refused_ || !stands;
}

// The owner refused the alternative at hand after its event.
void server::offer_next() noexcept {
    transport_choice choice;
    const unsigned refusal = choose_transport(&alternative_, talk_.file, talk_.line, &choice);
    offer_setup(refusal == 400 ? 461 : refusal, choice);
    if (!owes_answer()) talk_.settling = true;
}

uint8_t server::default_channel(const track_t& track) const noexcept {
    return static_cast<uint8_t>(2 * (std::ranges::find(talk_.tracks(), &track) - talk_.tracks().begin()));
}

// Tracks of one medium have one control value: the first that waits for its SETUP is meant.
track_t* server::find_track(const char* uri) noexcept {
    const auto id = static_cast<unsigned>(talk_.number);
    core_log_print(talk_.log, "%u: setup try find: %s", id, uri);
    track_t* found = nullptr;
    for (track_t* each : talk_.tracks()) {
        core_log_print(talk_.log, "%u: setup try find: from %s", id, each->media);
        if (!names_control(uri, each->media)) continue;
        if (!each->set_up) return each;
        if (!found) found = each;
    }
    if (!found) core_log_print(talk_.log, "%u: setup not found: %s", id, uri);
    return found;
}

void server::play(header_s*) noexcept {
    if (!talk_.is_set_up()) {
        out_.send_error(455);
        return;
    }
    ask_owner(owed_t::playing, event_t::rtsp_play);
}

void server::pause(header_s*) noexcept {
    if (!talk_.is_set_up()) {
        out_.send_error(455);
        return;
    }
    talk_.playing = false;
    out_.send_ok();
    talk_.raise(event_t::rtsp_pause);
}

void server::parameter(header_s*) noexcept { out_.send_ok(); }

void server::teardown(header_s*) noexcept {
    out_.send_ok();
    talk_.playing = false;
    for (track_t* each : talk_.tracks())
        each->set_up = each->rtp->active = 0;
    *talk_.identifier = 0;
    talk_.raise(event_t::rtsp_stop);
}

// Answers

void server::ask_owner(owed_t what, event_t::enum_t event) noexcept {
    owed_ = talk_.handler ? what : owed_t::nothing;
    asking_ = true;
    talk_.raise(event);
    asking_ = false;
}

bool server::owes(owed_t what) const noexcept { return !talk_.ended && (owed_ == what || owed_ == owed_t::anything); }

// Sent or, for want of memory, left out as any message: requests are served again.
void server::answered() noexcept {
    if (!owes_answer()) return;
    owed_ = owed_t::nothing;
    owed_trak_ = nullptr;
    if (!asking_) talk_.settling = true;
}

int server::send_sdp(const char* s1, const char* s2, const char* s3, uint64_t start_us, uint64_t end_us) noexcept {
    if (!owes(owed_t::description)) return 0;
    answered();
    if (!s1 || !s2 || !s3) {
        core_log_print(talk_.log, "%u: sender %s not found", static_cast<unsigned>(talk_.number),
                       talk_.location ? talk_.location.get() : "");
        return out_.send_error(404);
    }
    const core::owned_text name(core_sprintf(talk_.file, talk_.line, "%s %s %s", s1, s2, s3));
    const core::owned_text sdp(name ? describe(talk_, name.get(), start_us, end_us) : nullptr);
    if (!sdp) return 0;
    const std::string_view text(sdp.get());
    reply ok(200, "OK", talk_.cseq());
    ok.put("Content-Base", talk_.content_base ? talk_.content_base.get() : "");
    ok.put("Content-Type", "application/sdp");
    ok.put_number("Content-Length", static_cast<uint32_t>(text.size()));
    core_log_print(talk_.log, "%u: sdp:\n%s", static_cast<unsigned>(talk_.number), sdp.get());
    return out_.send(ok.header(), nullptr, text);
}

int server::send_setup(const char* destination, unsigned port) noexcept {
    track_t* const track = owed_trak_;
    if (!owes(owed_t::setup) || !track) return 0;
    if (track->protocol == protocol_t::rtp_multicast && (!destination || !*destination)) {
        refused_ = true;
        if (!asking_) offer_next();
        return 0;
    }
    answered();
    if (!*talk_.identifier) std::snprintf(talk_.identifier, sizeof talk_.identifier, "%u", ++next_session);
    char transport[160];
    print_granted(*track, destination, port, transport);
    reply ok(200, "OK", talk_.cseq());
    ok.put("Session", talk_.identifier);
    ok.put("Transport", transport);
    // The stream stands before the reply goes out: its event may already bring frames, or take the track away.
    track->server_port = static_cast<uint16_t>(port);
    draw_stream(*track);
    track->set_up = track->rtp->active = 1;
    if (out_.send(ok.header(), nullptr)) return 1;
    track->set_up = track->rtp->active = 0;
    return 0;
}

void server::share_stream(const rtp::trak_t* shared) noexcept {
    if (owed_trak_ && owed_trak_->protocol == protocol_t::rtp_multicast) owed_trak_->shared = shared;
}

// A stream of its own: nothing of an earlier one goes on, and its first packets bring a report (RFC 3550, 5.1 and 6.2).
void server::draw_stream(trak_t& trak) noexcept {
    const auto taken = [&](uint32_t ssrc) {
        return ssrc == 0 || std::ranges::any_of(talk_.tracks(), [&](const track_t* other) {
                   return other != &trak && other->rtp->ssrc == ssrc;
               });
    };
    do {
        common_random(&trak.rtp->ssrc, sizeof trak.rtp->ssrc);
    } while (taken(trak.rtp->ssrc));
    common_random(&trak.rtp->seq, sizeof trak.rtp->seq);
    trak.rtp->next_rtcp = 0;
    trak.rtp->packets = trak.rtp->octets = 0;
}

int server::send_play(uint64_t time_us) noexcept {
    const bool asked = owes_answer();
    if (!owes(owed_t::playing) || (asked && !talk_.is_set_up())) return 0;
    answered();
    reply ok(200, "OK", talk_.cseq());
    ok.put("Session", talk_.identifier);
    ok.put("RTP-Info", rtp_info(time_us).get());
    ok.put_date();
    // Before the reply goes out, as its event may already bring frames.
    talk_.playing = asked && ok.header();
    if (out_.send(ok.header(), nullptr)) return 1;
    talk_.playing = false;
    return 0;
}

// The first entry has no rtptime; players take that of its first packet.
core::owned_text server::rtp_info(uint64_t time_us) const noexcept {
    core::owned_text info;
    const char* const base = talk_.content_base ? talk_.content_base.get() : "";
    for (const track_t* each : talk_.tracks()) {
        const uint16_t seq = each->shared ? each->shared->seq : each->rtp->seq;
        if (!info) {
            info.reset(core_sprintf(talk_.file, talk_.line, "url=%s%s;seq=%hu", base, each->media, seq));
        } else {
            info.reset(core_sprintf(talk_.file, talk_.line, "%s,url=%s%s;seq=%hu;rtptime=%u", info.get(), base,
                                    each->media, seq, rtp::timestamp(time_us, each->rtp->clock_rate)));
        }
        if (!info) return nullptr;
    }
    return info;
}

int server::send_error(unsigned code) noexcept {
    if (talk_.ended || owed_ == owed_t::nothing) return 0;
    if (owed_ == owed_t::playing) talk_.playing = false;
    answered();
    return out_.send_error(code, nonce_.get());
}

}  // namespace rtsp3
