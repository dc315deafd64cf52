#include "sip/call.h"

#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace media::sip {

namespace {

constexpr uint64_t second_us = 1'000'000;
constexpr uint64_t longest_wait = 32 * second_us;    // for the registration
constexpr uint64_t longest_hold = 3600 * second_us;  // without a sign that the other end is there
constexpr uint64_t least_step = 1000;                // between two pictures: equal times would make one of them
constexpr const char* digits_known = "0123456789*#ABCD";

}  // namespace

call_t::call_t(part_t& owner, uint32_t number) noexcept : owner_(owner), number_(number), since_(core_timer()) {}

bool call_t::set_callee(const char* name) noexcept {
    callee_.reset(core_strdup(name, CORE_HERE));
    return callee_ != nullptr;
}

void call_t::tell(sip_event_t::what_t what, sip_reason_t why, char digit) const noexcept {
    const char* const peer = callee_ ? callee_.get() : "";
    owner_.tell({.what = what, .reason = why, .call = number_, .peer = peer, .digit = digit});
}

void call_t::invite() noexcept {
    party_ = net_sip_invite(owner_.account(), nullptr, callee_.get(), this, on_frame);
    if (!party_) end(sip_reason_t::no_place);
}

void call_t::accept(net::sip_user& party) noexcept {
    party_ = &party;
    tell(sip_event_t::calling);
    if (!finished_) net_sip_accept(&party, this, on_frame);
    if (!finished_) take_event(net::sip_call_answered);
}

// An answered call fails when the other end does not know it any more.
void call_t::take_event(uint32_t event) noexcept {
    if (event == net::sip_call_ringing) return tell(sip_event_t::ringing);
    if (event == net::sip_call_ended) return end(sip_reason_t::hung_up);
    if (is_answered_) return hang_up(sip_reason_t::silent);
    if (event == net::sip_call_answered) return begin();
    if (event == net::sip_call_busy) return end(sip_reason_t::busy);
    if (event == net::sip_call_unauthorized) return end(sip_reason_t::refused);
    end(sip_reason_t::unreachable);
}

void call_t::begin() noexcept {
    is_answered_ = true;
    since_ = core_timer();
    pictures_.begin();
    tell(sip_event_t::answered);
    if (finished_ || !settings().sends) return;
    starts_ = true;
    owner_.on().wake(*this);
}

/// Whether the other end has read our answer: before, it may take nothing. Nor is it known that who called is there.
bool call_t::is_awaited() const noexcept { return net_sip_user_confirmed(party_) || net_sip_user_heard(party_); }

bool call_t::start(uint64_t now) noexcept {
    starts_ = false;
    if (owner_.follow() && approach_.begin(*settings().sends, settings().at_key, now)) return true;
    hang_up(sip_reason_t::no_place);
    return false;
}

void call_t::press(const char* digits) noexcept {
    if (!is_answered_ || finished_) return;
    for (; *digits; ++digits) {
        const char* const known = std::strchr(digits_known, *digits);
        if (known) net_sip_dtmf_to(party_, static_cast<unsigned>(known - digits_known));
    }
}

/// The agent tells of this end, too: then it is known.
void call_t::hang_up(sip_reason_t why) noexcept {
    net::sip_user* const party = std::exchange(party_, nullptr);
    end(why);
    net_sip_bye(party);
}

void call_t::end(sip_reason_t why) noexcept {
    party_ = nullptr;
    if (std::exchange(finished_, true)) return;
    approach_.end();
    owner_.remove_live(*this);
    owner_.end_feed(*this);
    tell(sip_event_t::ended, why);
    owner_.on().sweep();
}

void call_t::second() noexcept {
    if (finished_) return;
    const uint64_t now = core_timer();
    if (waits() && now - since_ > longest_wait) return end(sip_reason_t::no_server);
    if (!is_answered_ || settings().silence == 0) return;
    const uint64_t heard = std::max(since_, net_sip_user_heard(party_));
    const uint64_t least = net_sip_user_holds(party_) ? longest_hold : 0;
    if (now > heard && now - heard > std::max(settings().silence * second_us, least)) hang_up(sip_reason_t::silent);
}

uint64_t call_t::serve(uint64_t now) noexcept {
    if (starts_ && !finished_) {
        if (!is_awaited()) return now + approach::soon;
        if (!start(now)) return 0;
    }
    return approach_.serve(*this, owner_.on(), now);
}

void call_t::deliver(const entry_t& entry) noexcept { send(entry, entry.frame.time); }

void call_t::deliver_sound(const av::frame_t& frame) noexcept { net_sip_put_frame_to(party_, &frame); }

void call_t::send(const entry_t& entry, uint64_t time) noexcept {
    if (entry.frame.fcc != av::fcc_h264) return;
    const bool sent = pictures_.pass(entry, [&] {
        av::frame_t frame = entry.frame;
        frame.time = last_time_ = std::max(time, last_time_ + least_step);
        net_sip_put_frame_to(party_, &frame);
        return true;
    });
    counters_t& count = owner_.on().count();
    ++(sent ? count.frames : count.dropped);
    if (sent) count.bytes += entry.frame.size;
}

void call_t::on_frame(void* arg, net::sip_user*, av::frame_t* frame) noexcept {
    static_cast<call_t*>(arg)->take(*frame);
}

void call_t::take(const av::frame_t& frame) noexcept {
    fetch::receipt& taken = frame.fcc == av::fcc_h264 ? pictures_taken_ : sound_taken_;
    if (finished_ || !taken.take(frame, 0)) return;
    if (settings().takes && owner_.feeds(*this)) settings().takes->push(frame);
    if (settings().on_frame) settings().on_frame(settings().arg, number_, frame);
}

}  // namespace media::sip
