// The relay with phones on it: agents of ours, and sipp.
#include "support/program.h"

#include "core/time.h"
#include "inet/net_sips.h"
#include "inet/posix_sip_peers.h"

#include <chrono>
#include <deque>

namespace {

struct exchange {
    exchange() {
        for (const char* name : {"anna", "boris", "clara b"})
            users = core_value_put(users, name, nullptr, CORE_HERE);
        server = net_sipsrv_open_at(nt, users, test::free_port(), CORE_HERE);
    }
    ~exchange() {
        net_sipsrv_close(server);
        core_value_free(users);
    }
    const test::network_thread nt;
    value_t** users = nullptr;
    net::SipServer* server = nullptr;
};

TEST(SipServerPeers, AgentsCallEachOther) {
    const exchange between;
    const unsigned port = net_sipsrv_port(between.server);
    test::sip_phone anna("anna", net::sip_tcp, port), boris("boris", net::sip_tcp, port);
    ASSERT_TRUE(anna.waits("account0") && boris.waits("account0"));
    anna.subscribe("boris");
    EXPECT_TRUE(anna.waits("account2"));
    boris.answers = true;
    anna.invite("boris");
    ASSERT_TRUE(anna.waits("call0") && boris.waits("call1"));
    test::pass_clip(anna, boris);
    boris.bye();
    EXPECT_TRUE(boris.waits("call2") && anna.waits("call2"));
}

TEST(SipServerPeers, SippCalls) {
    const exchange between;
    const std::string port = std::to_string(net_sipsrv_port(between.server));
    test::sip_phone boris("boris", net::sip_tcp, net_sipsrv_port(between.server));
    ASSERT_TRUE(boris.waits("account0"));
    boris.answers = true;
    const test::scratch folder;
    test::run("cd " + folder / "" +
              " && timeout 60 sipp -sf " INET_TEST_SIP "/relay.xml -nostdin -trace_err -t t1 -m 5" +
              " -i 127.0.0.1 127.0.0.1:" + port + " >sipp.out 2>&1 || { cat *_errors.log >&2; false; }");
    EXPECT_TRUE(boris.waits("call2"));
}

TEST(SipServerPeers, NewConnectionsTakeThePlaceOfThoseWithoutAUser) {
    const exchange between;
    const auto port = static_cast<uint16_t>(net_sipsrv_port(between.server));
    const std::string alive = "\r\n\r\n";
    const test::player anna(port);
    EXPECT_TRUE(anna.ask("REGISTER x SIP/2.0\r\nf: sip:anna@h\r\n\r\n").starts_with("SIP/2.0 200"));
    std::deque<test::player> idle;
    for (int i = 0; i < 101; ++i)
        idle.emplace_back(port);
    EXPECT_EQ(idle.back().ask(alive), "\r\n");
    EXPECT_EQ(idle.front().ask(), "closed");
    for (const test::player* each : {&anna, &std::as_const(idle)[1]})
        EXPECT_EQ(each->ask(alive), "\r\n");
}

struct gateway_events : test::callback {
    static void on_event(void* user, uint32_t event, const char*) {
        if (event == net::sips_registered) run(user);
    }
};

/// The next message of that method.
std::string next(const test::player& of, const char* method) {
    std::string held;
    while (!held.ends_with("closed")) {
        held += of.ask();
        for (sip::piece_t piece; (piece = sip::cut(held, false)).used > 0; held.erase(0, piece.used))
            if (held.starts_with(method)) return held.substr(0, piece.used);
    }
    return held;
}

std::atomic<uint64_t> later = 0;
uint64_t later_clock() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) + later;
}

TEST(SipGateway, JoinsCallsBothWays) {
    core_time_set_clock(later_clock);
    const exchange names;
    test::sip_switch outside(net::sip_udp);
    const unsigned port = test::free_port();
    gateway_events registered;
    const net::sips_info info{names.nt,
                              names.users,
                              port,
                              "camera",
                              nullptr,
                              "127.0.0.1",
                              outside.port,
                              net::sip_udp,
                              "world",
                              &registered,
                              gateway_events::on_event};
    net::Sips* const gateway = net_sips_open(&info, CORE_HERE);
    ASSERT_TRUE(registered.reaches(2));
    {
        test::sip_phone world("world", net::sip_udp, outside.port), anna("anna", net::sip_tcp, port),
            boris("boris", net::sip_tcp, port);
        ASSERT_TRUE(world.waits("account0") && anna.waits("account0") && boris.waits("account0"));
        anna.answers = true, world.answers = true;
        world.invite("camera");  // rings both
        ASSERT_TRUE(world.waits("call0") && boris.waits("call1") && boris.waits("call2"));
        test::pass_clip(world, anna);
        world.bye();
        EXPECT_TRUE(anna.waits("call2"));

        // A phone that gives itself no tag is hung up, too.
        const test::player clara(static_cast<uint16_t>(port));
        EXPECT_TRUE(clara.ask("REGISTER x SIP/2.0\r\nf: sip:clara%20b@h\r\n\r\n").starts_with("SIP/2.0 200"));
        anna.answers = false;
        boris.forget(), world.forget();
        world.invite("camera");
        const std::string call = next(clara, "INVITE");
        clara.say("SIP/2.0 200 OK" + call.substr(call.find("\r\n")));
        EXPECT_TRUE(world.waits("call0") && boris.waits("call2"));
        world.bye();
        EXPECT_TRUE(next(clara, "BYE").starts_with("BYE sip:clara%20b@"));

        boris.forget(), world.forget();
        boris.invite("camera");
        ASSERT_TRUE(boris.waits("call0") && world.waits("call1"));
        later += 181'000'000;  // of silence
        EXPECT_TRUE(world.waits("call2") && boris.waits("call2"));

        boris.forget(), world.forget();
        boris.invite("camera");
        ASSERT_TRUE(boris.waits("call0") && world.waits("call1"));
        net_sips_close(gateway);
        EXPECT_TRUE(world.waits("call2") && boris.waits("call2"));
    }
    core_time_set_clock(nullptr);
}

}  // namespace
