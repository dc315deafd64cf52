#include "inet/net_sips.h"

#include "sip/gateway.h"
#include "sip/server.h"

namespace {

constexpr unsigned usual_port = 5060;

}  // namespace

net::SipServer* net_sipsrv_open(net::nt_ctx* nt, value_t** users, const char* file, int line) noexcept {
    return net_sipsrv_open_at(nt, users, usual_port, file, line);
}

net::SipServer* net_sipsrv_open_at(net::nt_ctx* nt, value_t** users, unsigned port, const char* file,
                                   int line) noexcept {
    if (!nt) return nullptr;
    core::owned_object<net::SipServer> made(core::create<net::SipServer>(file, line, nt, users, file, line));
    if (!made || !made->prepare()) return nullptr;
    made->listen(port);
    return made.release();
}

unsigned net_sipsrv_port(const net::SipServer* server) noexcept { return server ? server->port() : 0; }

void net_sipsrv_close(net::SipServer* server) noexcept {
    if (!server) return;
    server->close();
    core::destroy(server);
}

net::Sips* net_sips_open(const net::sips_info* info, const char* file, int line) noexcept {
    if (!info || !info->nt || !info->name || !info->server || info->server_port > 65535) return nullptr;
    if (info->transport != net::sip_udp && info->transport != net::sip_tcp) return nullptr;
    core::owned_object<net::Sips> made(core::create<net::Sips>(file, line, *info, file, line));
    return made && made->open() ? made.release() : nullptr;
}

const net::SipServer* net_sips_server(const net::Sips* sips) noexcept { return sips ? sips->server() : nullptr; }

void net_sips_close(net::Sips* sips) noexcept { core::destroy(sips); }
