#include "sip/gateway.h"

#include "scan.h"
#include "sip/agent.h"

#include "core/time.h"

#include <algorithm>
#include <utility>

namespace net {

namespace {

constexpr unsigned usual_port = 5060;
constexpr uint64_t longest_close = sip::second;
constexpr uint64_t close_step = 10 * sip::ms;
constexpr uint64_t longest_silence = 180 * sip::second;
constexpr uint64_t longest_hold = 3600 * sip::second;
constexpr uint64_t longest_unregistered = 65 * sip::second;
constexpr int clock_step = 10;  // seconds
constexpr size_t most_late = size_t{2} * sip::most_calls;

}  // namespace

Sips::Sips(const sips_info& info, const char* file, int line)
    : info_(info),
      file_(file),
      line_(line),
      ending_(info.nt, this, [](void* of, bool may_wait) { return static_cast<Sips*>(of)->shut_down(may_wait); }) {
    late_.reserve(most_late);
    name_ = info.name;
    password_ = scan::text(info.password);
    outside_server_ = info.server;
    callee_ = scan::text(info.callee);
    for (value_t* const* each = info.users; each && *each; ++each)
        if (name_ != (*each)->key && !std::ranges::count(users_, std::string_view((*each)->key)))
            users_.emplace_back((*each)->key);
}

Sips::~Sips() {
    if (agent_ || server_) ending_.run();
}

/// Hangs up, and stays until it was heard: what the users of the relay are told goes through it. A lost datagram is
/// sent again meanwhile.
uint64_t Sips::shut_down(bool may_wait) noexcept {
    const uint64_t now = core_timer();
    if (closes_at_ == 0) {
        closes_at_ = now + longest_close;
        net_nt_timer_set(info_.nt, clock_, 0, this, on_clock);
        while (!bridges_.empty())
            end(*bridges_.back(), nullptr);
    }
    if (may_wait && now < closes_at_ && awaits_answers()) return now + close_step;
    net_sip_unregister(outside_);
    net_sip_unregister(inside_);
    net_sip_close(std::exchange(agent_, nullptr));
    net_sipsrv_close(std::exchange(server_, nullptr));
    return 0;
}

/// Whether what ends calls has not been answered yet.
bool Sips::awaits_answers() const noexcept {
    if (!agent_) return false;
    return !late_.empty() || agent_->is_ending();
}

bool Sips::open() noexcept {
    if (!ending_.prepare(file_, line_)) return false;
    core::owned<value_t*, core_value_free> table;
    uint32_t count = 0;
    for (value_t* const* each = info_.users; each && *each; ++each, ++count)
        table.reset(core_value_put_at(table.release(), count, (*each)->key, (*each)->value, file_, line_));
    table.reset(core_value_put_at(table.release(), count, name_.c_str(), "", file_, line_));
    if (value_count(table.get()) != count + 1) return false;
    const sip_info agent{info_.nt, this, on_call, on_account, nullptr};
    agent_ = net_sip_open(&agent, file_, line_);
    server_ = net_sipsrv_open_at(info_.nt, table.get(), info_.port ? info_.port : usual_port, file_, line_);
    info_.users = nullptr;
    if (agent_ && server_) net_nt_timer_set(info_.nt, clock_, clock_step, this, on_clock);
    return agent_ && server_ && clock_ &&
           net_sip_post(
               agent_, [](void*, void* self) { static_cast<Sips*>(self)->register_accounts(); }, this);
}

void Sips::register_accounts() noexcept {
    const char* const name = name_.c_str();
    if (const unsigned port = net_sipsrv_port(server_))
        inside_ = net_sip_register_over(agent_, sip_tcp, name, "", "127.0.0.1", port, file_, line_);
    if (inside_) inside_->open_server = true;
    outside_ = net_sip_register_over(agent_, info_.transport, name, password_.c_str(), outside_server_.c_str(),
                                     info_.server_port, file_, line_);
    outside_heard_ = core_timer();
}

void Sips::on_call(void* arg, sip_user* party, uint32_t event) noexcept {
    auto& self = *static_cast<Sips*>(arg);
    if (!party) return;
    const bool news = event != sip_call_incoming && event != sip_call_searching;
    if (news && std::erase(self.late_, party) > 0) {
        if (event == sip_call_ringing || event == sip_call_answered) net_sip_bye(party);
        return;
    }
    if (event == sip_call_incoming) self.take_call(*party);
    if (event == sip_call_answered) self.take_answer(*party);
    if (event == sip_call_ended || event == sip_call_failed || event == sip_call_busy || event == sip_call_unauthorized)
        self.take_end(*party);
}

void Sips::on_account(void* arg, void* object, uint32_t event, const char*) noexcept {
    auto& self = *static_cast<Sips*>(arg);
    if (event == sip_account_registered) {
        const bool inside = static_cast<sip_session*>(object)->account == self.inside_;
        if (!inside) self.outside_heard_ = core_timer();
        self.tell(sips_registered, inside ? "" : self.outside_server_.c_str());
    }
    if (event == sip_account_closed && object == self.outside_) self.lose_outside();
}

void Sips::lose_outside() noexcept {
    if (std::exchange(outside_heard_, 0) != 0) tell(sips_lost, outside_server_.c_str());
}

// A refusal, and silence over UDP, are told by nobody else.
void Sips::on_clock(void* arg, timer_ctx*) noexcept {
    auto& self = *static_cast<Sips*>(arg);
    self.end_silent_calls();
    if (self.outside_heard_ + longest_unregistered <= core_timer()) self.lose_outside();
}

/// A phone behind the relay that has vanished is not noticed otherwise: the relay answers in its place when the agent
/// asks whether it is there.
void Sips::end_silent_calls() noexcept {
    const uint64_t now = core_timer();
    for (size_t i = bridges_.size(); i-- > 0;) {
        if (i >= bridges_.size()) continue;  // more than one ended
        sip::bridge& call = *bridges_[i];
        const sip_user* const inside = is_inside(*call.caller) ? call.caller : call.callee;
        const uint64_t longest = net_sip_user_holds(inside) ? longest_hold : longest_silence;
        if (call.callee && std::max(net_sip_user_heard(inside), call.joined_at) + longest <= now) end(call, nullptr);
    }
}

void Sips::on_frame(void* arg, sip_user* party, av::frame_t* frame) noexcept {
    const auto& call = *static_cast<sip::bridge*>(arg);
    sip_user* const other = party == call.caller ? call.callee : party == call.callee ? call.caller : nullptr;
    net_sip_put_frame_to(other, frame);
}

/// A bridge with all the room it will need; null when memory is out.
core::owned_object<sip::bridge> Sips::make_bridge() noexcept {
    core::owned_object<sip::bridge> made(core::create<sip::bridge>(file_, line_));
    try {
        if (made) made->rung.reserve(most_rung);
        bridges_.reserve(bridges_.size() + 1);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return made;
}

bool Sips::is_inside(const sip_user& party) const noexcept { return inside_ && party.account == inside_; }

/// Calls from the relay that nobody outside has answered.
size_t Sips::waiting_inside() const noexcept {
    return static_cast<size_t>(
        std::ranges::count_if(bridges_, [&](const auto& each) { return !each->callee && is_inside(*each->caller); }));
}

void Sips::take_call(sip_user& caller) noexcept {
    core::owned_object<sip::bridge> made = closes_at_ ? nullptr : make_bridge();
    // Its room is taken now: who answers must not be hung up for want of it.
    const bool patient = !is_inside(caller) || waiting_inside() < most_waiting;
    const bool room =
        made && patient && agent_->calls() < sip::most_calls && caller.media.open(info_.nt, agent_->log, caller);
    if (!room) return net_sip_decline(&caller);
    sip::bridge& call = *made;
    call.caller = &caller;
    bridges_.push_back(std::move(made));
    tell(sips_calling, net_sip_user_name(&caller));
    if (is_inside(caller)) {
        if (!callee_.empty()) ring(call, outside_, callee_.c_str());
    } else {
        for (const core::string& each : users_)
            ring_inside(call, each);
    }
    if (call.rung.empty()) end(call, nullptr);
}

void Sips::ring(sip::bridge& call, sip_account* account, const char* name) noexcept {
    if (call.rung.size() == most_rung) return;
    if (sip_user* const rung = net_sip_invite(account, nullptr, name, &call, on_frame)) call.rung.push_back(rung);
}

/// A phone behind the relay, which finds our media where it finds the relay.
void Sips::ring_inside(sip::bridge& call, const core::string& name) noexcept {
    const sip::relay_user* const user = server_->reached(name);
    if (!user || !inside_) return;
    const in_addr near = sip::read_dotted(user->at->local);
    inside_->near_media = sip::is_loopback(near) ? in_addr{} : near;
    ring(call, inside_, user->coded.c_str());
    inside_->near_media = {};
}

/// The agent may tell of an end from inside each of its calls: the bridge is not touched after the first.
void Sips::take_answer(sip_user& party) noexcept {
    sip::bridge* const call = find(party);
    if (!call || call->callee) return;
    call->callee = &party;
    call->joined_at = core_timer();
    const core::vector<sip_user*> others = std::exchange(call->rung, {});
    tell(sips_joined, net_sip_user_name(&party));
    net_sip_accept(call->caller, call, on_frame);
    for (sip_user* each : others)
        if (each != &party) hang_up(*each);
}

void Sips::take_end(sip_user& party) noexcept {
    sip::bridge* const call = find(party);
    if (!call) return;
    const bool was_rung = std::erase(call->rung, &party) > 0;
    if (!was_rung || call->rung.empty()) end(*call, &party);
}

/// Ends what is left of a call. @param gone  whose end it was
void Sips::end(sip::bridge& call, const sip_user* gone) noexcept {
    const auto found = std::ranges::find(bridges_, &call, [](const auto& each) { return each.get(); });
    const core::owned_object<sip::bridge> ended = std::move(*found);
    bridges_.erase(found);
    for (sip_user* each : ended->rung)
        hang_up(*each);
    for (sip_user* each : {ended->callee, ended->caller})
        if (each && each != gone) hang_up(*each);
    tell(sips_ended, "");
}

/// A call that nobody has answered ends with CANCEL, which the relay refuses; with BYE, as soon as the other end is
/// known (RFC 3261, 15).
void Sips::hang_up(sip_user& party) noexcept {
    party.frame_to = nullptr;  // its bridge goes
    const bool rings = party.invite && !party.invite->incoming;
    if (rings && is_inside(party) && party.remote_tag.empty() && late_.size() < most_late) {
        party.invite->ends_at = core_timer() + sip::t_end;  // phones that are gone hold no places
        return late_.push_back(&party);
    }
    net_sip_bye(&party);
}

sip::bridge* Sips::find(const sip_user& party) noexcept {
    for (const auto& each : bridges_)
        if (each->caller == &party || each->callee == &party || std::ranges::count(each->rung, &party) > 0)
            return each.get();
    return nullptr;
}

void Sips::tell(uint32_t event, const char* who) noexcept {
    if (info_.on_event && !closes_at_) info_.on_event(info_.user, event, who);
}

}  // namespace net
