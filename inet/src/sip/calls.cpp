// Calls as the owner makes, takes and ends them, their digits and frames.
#include "sip/agent.h"

#include "avc/fcc.h"
#include "common/digest.h"
#include "core/time.h"

#include <algorithm>

namespace net {

namespace {

constexpr char sdp_type[] = "application/sdp";

}  // namespace

// The records stay until the next call into the agent: the channel that hands the frame over is one of them.
void sip_user::on_frame(av::frame_t& frame) noexcept {
    if (!frame_to || agent->closing) return;
    ++agent->running;
    frame_to(frame_arg, this, &frame);
    --agent->running;
}

void sip_user::on_digit(int code) noexcept {
    if (!agent->info.on_dtmf || agent->closing) return;
    ++agent->running;
    agent->info.on_dtmf(agent->info.user, this, code);
    --agent->running;
}

sip_user* Sip::invite(sip_account& account, sip_session* session, const char* callee, void* arg,
                      sip_frame_callback callback) {
    if (!account.connected || calls() >= sip::most_calls) return nullptr;
    if (!session) {
        const core::owned_text random(common_srand(16, file, line));
        if (!random) throw std::bad_alloc();
        session = &add_session(account, own_call_id(random.get()));
    }
    sip_user& user = add_user(*session, callee, {});
    user.frame_to = callback;
    user.frame_arg = arg;
    try {
        user.own = media_address(account);
        if (!user.media.open(info.nt, log, user)) {
            drop(user);
            return nullptr;
        }
        sip_request& request =
            ask(account, *session, &user, "INVITE", sip::join({"Content-Type: ", sdp_type, "\r\n"}),
                sip::print_offer(sip::dotted(user.own), user.media.audio_port(), user.media.video_port()));
        user.invite = &request;
        send(request);
    } catch (const std::bad_alloc&) {
        if (user.invite) end(*user.invite);
        drop(user);
        return nullptr;
    }
    return &user;
}

/// Starts the media of an offer, or none yet without one. @return the description that answers it
sip::text Sip::answer_media(sip_user& user, std::string_view offer) {
    const sip::described_t described = sip::read_description(offer);
    const in_addr audio = described.audio.rtp.sin_addr;
    user.own = media_address(*user.account, audio.s_addr ? audio : described.video.rtp.sin_addr);
    if (!offer.empty()) user.media.start(described, user.own);
    return sip::print_answer_sdp(user.account->user, user.own, user.media.audio_port(), user.media.video_port(), offer);
}

void Sip::accept(sip_user& user) {
    sip_request* const request = user.invite;
    if (user.over || !request || !request->incoming || request->answered) return;
    const bool room = user.media.is_open() || calls() < sip::most_calls;
    if (!room || !user.media.open(info.nt, log, user)) {
        request->user = nullptr;
        guarded([&] { answer(*request, 486); });
        return finish(user, sip_call_failed);
    }
    answer(*request, 200, sdp_type, answer_media(user, request->offer));
    establish(user);
}

void Sip::establish(sip_user& user) {
    user.established = true;
    user.asked_at = core_timer();
}

// Who vanishes without a BYE would hold its places forever.
void Sip::ask_whether_there(sip_user& user) {
    user.asked_at = core_timer();
    send(ask(*user.account, *user.session, &user, "OPTIONS", {}, {}));
}

void Sip::decline(sip_user& user) {
    sip_request* const request = user.invite;
    if (user.over || !request || !request->incoming || request->answered) return;
    request->user = nullptr;
    guarded([&] { answer(*request, 486); });
    drop(user);
}

void Sip::say_bye(sip_user& user) {
    sip_request* const waits = user.invite;
    if (waits && waits->incoming && !waits->answered) {
        waits->user = nullptr;
        answer(*waits, 486);
    } else if (waits && !waits->incoming && user.remote_tag.empty()) {
        // Before the first answer CANCEL might overtake the INVITE (RFC 3261, 9.1): it follows that answer.
        if (waits->provisional) cancel(*waits);
    } else {
        if (waits && !waits->incoming) waits->ends_at = core_timer() + sip::bye_time;
        send(ask(*user.account, *user.session, &user, "BYE", {}, {}));
    }
}

void Sip::bye(sip_user& user) {
    if (!user.session) {
        core_log_print(log, "sip: no session in send_bye");
        return;
    }
    if (user.over || user.subscription) return;
    // The user goes also when there is no memory to say so.
    guarded([&] { say_bye(user); });
    finish(user, sip_call_ended);
}

void Sip::dtmf(std::span<sip_user* const> to, unsigned code) {
    constexpr std::string_view digits = "0123456789*#ABCD";
    const bool plain = dtmf_mode == 0;
    if (!plain && dtmf_mode != 1) return;
    const std::string_view digit = digits.substr(std::min<size_t>(code, digits.size() - 1), 1);
    for (sip_user* each : to) {
        if (!each->established) continue;
        sip::text body = plain ? sip::number_text(code) : sip::join({"Signal=", digit, "\r\nDuration=250"});
        const std::string_view type = plain ? "application/dtmf" : "application/dtmf-relay";
        send(ask(*each->account, *each->session, each, "INFO", sip::join({"Content-Type: ", type, "\r\n"}),
                 std::move(body)));
    }
}

void Sip::put_frame(std::span<sip_user* const> to, const av::frame_t& frame) noexcept {
    if (frame.fcc == av::fcc_h264 && packets.cut(&frame) == 0) return;
    for (sip_user* each : to) {
        if (!each->established) continue;
        if (frame.fcc == av::fcc_h264) each->media.send_pictures(packets);
        if (frame.fcc == av::fcc_pcmu) each->media.send_sound(frame);
    }
}

}  // namespace net
