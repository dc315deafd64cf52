#include "recorder/g711.h"
#include "sip/call.h"

#include "core/time.h"

#include <algorithm>
#include <array>
#include <new>
#include <string_view>

namespace media::sip {

namespace {

constexpr uint64_t second_us = 1'000'000;
constexpr uint64_t another_try = second_us / 2;
constexpr uint64_t longest_answer = 10 * second_us;  // to the first registration
constexpr uint64_t registered_for = 65 * second_us;  // without a further one
constexpr ptrdiff_t most_waiting = 64;
constexpr int dtmf_relay = 1;
constexpr uint32_t rate = 8000;

/// The nearest code of the other law.
constexpr uint8_t mulaw_of_alaw(uint8_t code) noexcept {
    const int wanted = record::alaw_decode(code);
    unsigned best = 0;
    int least = 1 << 16;
    for (unsigned each = 0; each < 256; ++each) {
        const int off = record::mulaw_decode(static_cast<uint8_t>(each)) - wanted;
        const int distance = off < 0 ? -off : off;
        if (distance >= least) continue;
        least = distance;
        best = each;
    }
    return static_cast<uint8_t>(best);
}

const std::array<uint8_t, 256>& mulaw_table() noexcept {
    static const auto table = [] {
        std::array<uint8_t, 256> all{};
        for (unsigned i = 0; i < all.size(); ++i)
            all[i] = mulaw_of_alaw(static_cast<uint8_t>(i));
        return all;
    }();
    return table;
}

}  // namespace

bool part_t::open() noexcept {
    const net::sip_info info{thread_.nt(), this, on_call, on_account, on_dtmf};
    agent_ = net_sip_open(&info, CORE_HERE);
    if (!agent_) return false;
    net_sip_set_dtmf(agent_, dtmf_relay);
    heard_ = core_timer();
    service_.work_on(&thread_);
    // Not now: the look-up of the server's name would hold up whoever starts the station.
    return net_sip_post(
               agent_, [](void*, void* self) { static_cast<part_t*>(self)->register_account(); }, this) != 0;
}

part_t::~part_t() {
    service_.work_on(nullptr);
    if (follows_) thread_.unfollow(*settings().sends, *this);
    net_sip_close(agent_);
}

void part_t::register_account() noexcept {
    const sip_settings_t& s = settings();
    account_ = net_sip_register_over(agent_, s.tcp ? net::sip_tcp : net::sip_udp, s.user, s.password, s.server, s.port,
                                     CORE_HERE);
    heard_ = core_timer();
}

void part_t::tell(const sip_event_t& event) const noexcept {
    if (settings().on_event) settings().on_event(settings().arg, event);
}

// What a call does may end it; it stays in the list until it is deleted, from outside of all callbacks.
template <class Do>
void part_t::each_waiting(Do run) noexcept {
    for (size_t i = 0; i < calls_.size(); ++i)
        if (calls_[i]->waits()) run(*calls_[i]);
}

void part_t::set_registered() noexcept {
    heard_ = core_timer();
    refused_ = 0;
    if (state_ != state_t::registered) {
        state_ = state_t::registered;
        tell({.what = sip_event_t::registered});
    }
    each_waiting([](call_t& each) { each.invite(); });
}

void part_t::set_lost(sip_reason_t why) noexcept {
    if (state_ != state_t::lost || lost_why_ != why) {
        state_ = state_t::lost;
        lost_why_ = why;
        tell({.what = sip_event_t::unregistered, .reason = why});
    }
    if (why == sip_reason_t::refused) each_waiting([](call_t& each) { each.end(sip_reason_t::refused); });
}

void part_t::second() noexcept {
    const uint64_t longest = state_ == state_t::registered ? registered_for : longest_answer;
    const uint64_t now = core_timer();
    if (state_ != state_t::lost && now - heard_ > longest) set_lost(sip_reason_t::no_server);
    if (refused_ && now - refused_ > another_try) {
        refused_ = 0;
        set_lost(sip_reason_t::refused);
    }
    const bool any = std::ranges::any_of(calls_, [](const call_t* each) { return each->watching(); });
    if (!follows_ || any) return;
    thread_.unfollow(*settings().sends, *this);
    follows_ = false;
}

bool part_t::enter(call_t& one) noexcept {
    try {
        calls_.push_back(&one);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void part_t::exit(const call_t& one) noexcept { std::erase(calls_, &one); }

call_t* part_t::find(uint32_t number) noexcept {
    const auto found =
        std::ranges::find_if(calls_, [&](const call_t* each) { return !each->finished() && each->number() == number; });
    return found == calls_.end() ? nullptr : *found;
}

call_t* part_t::find(const net::sip_user* party) noexcept {
    const auto found = std::ranges::find_if(calls_, [&](const call_t* each) { return each->party() == party; });
    return found == calls_.end() ? nullptr : *found;
}

/// A call that the thread serves. @return null when there is no place or memory for it
call_t* part_t::add_call(uint32_t number) noexcept {
    core::owned_object<call_t> made(core::create<call_t>(CORE_HERE, *this, number));
    return made && enter(*made) && thread_.add(made.get()) ? made.release() : nullptr;
}

void part_t::place(uint32_t number, const char* callee) noexcept {
    const bool full = std::ranges::count_if(calls_, [](const call_t* each) { return each->waits(); }) >= most_waiting;
    call_t* const made = full ? nullptr : add_call(number);
    if (!made) {
        return tell({.what = sip_event_t::ended, .reason = sip_reason_t::no_place, .call = number, .peer = callee});
    }
    if (!made->set_callee(callee)) return made->end(sip_reason_t::no_place);
    if (state_ == state_t::registered) made->invite();
    if (state_ == state_t::lost && lost_why_ == sip_reason_t::refused) made->end(sip_reason_t::refused);
}

void part_t::take_call(net::sip_user& party) noexcept {
    call_t* const made = settings().answers ? add_call(service_.next_number()) : nullptr;
    if (!made || !made->set_callee(net_sip_user_name(&party))) {
        if (made) made->end(sip_reason_t::no_place);
        return net_sip_decline(&party);
    }
    made->accept(party);
}

void part_t::on_call(void* arg, net::sip_user* party, uint32_t event) noexcept {
    auto& self = *static_cast<part_t*>(arg);
    if (party) {
        if (event == net::sip_call_incoming) return self.take_call(*party);
        if (call_t* const one = self.find(party)) one->take_event(event);
        return;
    }
    // Of the account, or of a call that is over. The agent may ask in another way at once.
    const bool refused = event == net::sip_call_unauthorized || event == net::sip_call_failed;
    if (refused && self.state_ != state_t::registered && !self.refused_) self.refused_ = core_timer();
}

void part_t::on_account(void* arg, void*, uint32_t event, const char*) noexcept {
    auto& self = *static_cast<part_t*>(arg);
    if (event == net::sip_account_registered) self.set_registered();
    if (event == net::sip_account_closed) self.set_lost(sip_reason_t::no_server);
}

void part_t::on_dtmf(void* arg, net::sip_user* party, int code) noexcept {
    constexpr std::string_view digits = "0123456789*#ABCD";
    const call_t* const one = static_cast<part_t*>(arg)->find(party);
    if (!one || code < 0 || static_cast<size_t>(code) >= digits.size()) return;
    one->tell(sip_event_t::pressed, sip_reason_t::none, digits[static_cast<size_t>(code)]);
}

bool part_t::feeds(const call_t& one) noexcept {
    if (!feeding_) feeding_ = &one;
    return feeding_ == &one;
}

void part_t::end_feed(const call_t& one) noexcept {
    if (feeding_ != &one) return;
    feeding_ = nullptr;
    settings().takes->gap();
}

bool part_t::follow() noexcept {
    if (!follows_) follows_ = thread_.follow(*settings().sends, *this) != 0;
    return follows_;
}

/// The sound of an entry as calls are sent it; null for none. @param room  of a frame that is made
const av::frame_t* part_t::sound_of(const entry_t& entry, av::frame_t& room) noexcept {
    const av::frame_t& frame = entry.frame;
    const bool fits = (frame.rate == 0 || frame.rate == rate) && frame.channels <= 1;
    if (entry.kind != kind_t::audio || !fits) return nullptr;
    if (frame.fcc == av::fcc_pcmu) return &frame;
    if (frame.fcc != av::fcc_pcma) return nullptr;
    try {
        if (sound_.size() < frame.size) sound_.resize(frame.size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    const auto& table = mulaw_table();
    std::transform(frame.data, frame.data + frame.size, sound_.begin(), [&](uint8_t code) { return table[code]; });
    room = frame;
    room.fcc = av::fcc_pcmu;
    room.data = sound_.data();
    room.payload = nullptr;
    return &room;
}

void part_t::on_entry(read_t what, const entry_t& entry) noexcept {
    if (live_.empty()) return;
    av::frame_t room{};
    const av::frame_t* const sound = what == read_t::frame ? sound_of(entry, room) : nullptr;
    live_.pass([&](size_t i) {
        const place_t place = live_[i];
        if (!place.one) return;
        if (what == read_t::ended) place.one->finish();
        if (what == read_t::lost) place.one->leave_out();
        if (what != read_t::frame || entry.number < place.from) return;
        if (sound)
            place.one->deliver_sound(*sound);
        else
            place.one->deliver(entry);
    });
}

}  // namespace media::sip
