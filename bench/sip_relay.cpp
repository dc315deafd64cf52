// The SIP server alone, on one network thread, with users u0, u1 and so on (Linux). Prints its port, and "ready".
//
//   sip_relay PORT [USERS]
#include "core/memory.h"
#include "core/value.h"
#include "inet/inet.h"
#include "inet/net_sips.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: sip_relay PORT [USERS]\n");
        return 2;
    }
    net_init();
    const auto port = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
    const auto count = static_cast<unsigned>(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 500);
    value_t** users = nullptr;
    for (unsigned i = 0; i < count; ++i)
        users = core_value_put_at(users, i, ("u" + std::to_string(i)).c_str(), "", CORE_HERE);
    net::nt_ctx* nt = nullptr;
    net::net_nt_start(nt, CORE_HERE);
    net::SipServer* const server = net_sipsrv_open_at(nt, users, port, CORE_HERE);
    core_value_free(users);
    if (net_sipsrv_port(server) == 0) return 1;
    std::printf("%u\nready\n", net_sipsrv_port(server));
    std::fflush(stdout);
    for (;;)
        pause();
}
