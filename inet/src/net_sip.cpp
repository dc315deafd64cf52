#include "inet/net_sip.h"

#include "sip/agent.h"

#include "core/time.h"

namespace {

using net::Sip;
using net::sip_account;
using net::sip_user;

constexpr uint64_t pulse = 100 * sip::ms;

// What was posted while the callback ran is found by the next pulse.
void on_clock(void* arg, net::command_ctx* clock) {
    auto& sip = *static_cast<Sip*>(arg);
    {
        const Sip::work running(sip);
        core_cmd_process(sip.commands);
    }
    const uint64_t now = core_timer();
    sip.tick(now);
    net::net_nt_command_at(clock, now + pulse);
}

}  // namespace

net::Sip* net_sip_open(const net::sip_info* info, const char* file, int line) noexcept {
    if (!info) return nullptr;
    core::owned_object<Sip> made(core::create<Sip>(file, line, *info, file, line));
    if (!made || !made->commands) return nullptr;
    if (!info->nt) return made.release();
    made->clock = net::net_nt_command_create(info->nt, made.get(), on_clock);
    if (!made->clock) return nullptr;
    net::net_nt_command_at(made->clock, core_timer() + pulse);
    return made.release();
}

void net_sip_close(net::Sip* sip) noexcept { core::destroy(sip); }

int net_sip_is_ending(const net::Sip* sip) noexcept { return sip && sip->is_ending() ? 1 : 0; }

int net_sip_post(net::Sip* sip, void (*function)(void* sip, void* arg), void* arg) noexcept {
    if (!sip || !core_cmd_exec(sip->commands, function, arg)) return 0;
    net::net_nt_command_exec(sip->clock);
    return 1;
}

void net_sip_set_dtmf(net::Sip* sip, int mode) noexcept {
    if (sip) sip->dtmf_mode = mode;
}

net::sip_account* net_sip_register(net::Sip* sip, const char* user, const char* password, const char* server,
                                   unsigned port, const char* file, int line) noexcept {
    return net_sip_register_over(sip, net::sip_udp, user, password, server, port, file, line);
}

net::sip_account* net_sip_register_over(net::Sip* sip, int transport, const char* user, const char* password,
                                        const char* server, unsigned port, const char* file, int line) noexcept {
    if (!sip || !user || !server || port > 65535) return nullptr;
    if (transport != net::sip_udp && transport != net::sip_tcp) return nullptr;
    sip_account* made = nullptr;
    sip->guarded([&] { made = sip->add_account(transport, user, password, server, port, file, line); });
    return made;
}

void net_sip_unregister(net::sip_account* account) noexcept {
    if (!account || !account->connected) return;
    account->reconnect = false;
    account->agent->guarded([&] { account->agent->close_transport(*account, false); });
}

net::sip_user* net_sip_invite(net::sip_account* account, net::sip_session* session, const char* callee, void* arg,
                              net::sip_frame_callback callback) noexcept {
    if (!account || !callee) return nullptr;
    sip_user* made = nullptr;
    account->agent->guarded([&] { made = account->agent->invite(*account, session, callee, arg, callback); });
    return made;
}

void net_sip_accept(net::sip_user* party, void* arg, net::sip_frame_callback callback) noexcept {
    if (!party) return;
    party->frame_to = callback;
    party->frame_arg = arg;
    Sip& agent = *party->agent;
    agent.guarded([&] { agent.accept(*party); });
}

void net_sip_decline(net::sip_user* party) noexcept {
    if (!party) return;
    Sip& agent = *party->agent;
    agent.guarded([&] { agent.decline(*party); });
}

void net_sip_bye(net::sip_user* party) noexcept {
    if (!party) return;
    Sip& agent = *party->agent;
    agent.guarded([&] { agent.bye(*party); });
}

void net_sip_dtmf(net::sip_session* session, unsigned code) noexcept {
    if (session) session->agent->guarded([&] { session->agent->dtmf(session->users, code); });
}

void net_sip_dtmf_to(net::sip_user* party, unsigned code) noexcept {
    if (party) party->agent->guarded([&] { party->agent->dtmf({&party, 1}, code); });
}

void net_sip_put_frame(net::sip_session* session, const av::frame_t* frame) noexcept {
    if (session && frame) session->agent->put_frame(session->users, *frame);
}

void net_sip_put_frame_to(net::sip_user* party, const av::frame_t* frame) noexcept {
    if (party && frame) party->agent->put_frame({&party, 1}, *frame);
}

net::sip_user* net_sip_user(net::sip_request* request) noexcept { return request ? request->user : nullptr; }

const char* net_sip_user_name(net::sip_user* party) noexcept { return party ? party->name.c_str() : ""; }

int net_sip_user_confirmed(const net::sip_user* party) noexcept {
    return party && party->established && !party->invite ? 1 : 0;
}

uint64_t net_sip_user_heard(const net::sip_user* party) noexcept { return party ? party->media.heard() : 0; }

int net_sip_user_holds(const net::sip_user* party) noexcept { return party && party->media.is_held() ? 1 : 0; }

net::sip_session* net_sip_user_session(net::sip_user* party) noexcept { return party ? party->session : nullptr; }

net::sip_account* net_sip_user_account(net::sip_user* party) noexcept { return party ? party->account : nullptr; }

void net_sip_contacts(net::sip_account* account) noexcept {
    if (account) account->agent->guarded([&] { account->agent->contacts(*account); });
}

void net_sip_subscribe(net::sip_account* account, const char* user) noexcept {
    if (account && user) account->agent->guarded([&] { account->agent->subscribe(*account, user, true); });
}

void net_sip_unsubscribe(net::sip_account* account, const char* user) noexcept {
    if (account && user) account->agent->guarded([&] { account->agent->subscribe(*account, user, false); });
}
