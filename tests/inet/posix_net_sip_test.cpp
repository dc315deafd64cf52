// The SIP agent on sockets: two agents that call each other through a switch, and sipp as the other end.
#include "support/program.h"

#include "inet/posix_sip_peers.h"

#include <cstdlib>

namespace {

struct way {
    int transport;
    bool loses;
};

class NetSipCalls : public testing::TestWithParam<way> {};

TEST_P(NetSipCalls, PassOnEveryPictureAndSound) {
    const auto [transport, loses] = GetParam();
    test::sip_switch between(transport, loses);
    test::sip_phone alice("alice", transport, between.port), bob("bob", transport, between.port);
    ASSERT_TRUE(alice.waits("account0") && bob.waits("account0"));
    bob.answers = true;
    alice.invite("bob");
    ASSERT_TRUE(alice.waits("call0") && bob.waits("call1"));

    test::pass_clip(alice, bob);
    bob.put(av::fcc_pcmu, std::string(400, '\x55'), 1'600'000'000'000'000);
    EXPECT_TRUE(alice.has_sound(320));

    alice.digit(11);
    EXPECT_TRUE(bob.waits("digit11"));
    bob.bye();
    EXPECT_TRUE(bob.waits("call2") && alice.waits("call2"));
}

INSTANTIATE_TEST_SUITE_P(Transports, NetSipCalls,
                         testing::Values(way{net::sip_udp, false}, way{net::sip_udp, true}, way{net::sip_tcp, false}));

/// Runs a scenario of sipp; the test fails when the other end does not keep to it.
void play(const std::string& scenario, const std::string& arguments, const std::string& refusal = "") {
    const test::scratch folder;
    test::run("cd " + folder / "" + " && sed 's/REFUSAL/" + refusal + "/' " INET_TEST_SIP "/" + scenario +
              ".xml >scenario.xml && timeout 60 sipp -sf scenario.xml -nostdin -trace_err -i 127.0.0.1 " + arguments +
              " >sipp.out 2>&1 || { cat *_errors.log >&2; false; }");
}

std::string transport_of(int transport) { return transport == net::sip_tcp ? "-t t1 " : ""; }

struct caller_row {
    const char* scenario;
    bool answers, declines;
    const char* event;
    int transport = net::sip_udp;
    bool full = false;  ///< no descriptors are left for the call
};

TEST(NetSipPeers, AreAnswered) {
    const caller_row rows[] = {{"caller", true, false, "call2"},
                               {"caller_cancels", false, false, "call2"},
                               {"caller_declined", false, true, "call1"},
                               {"caller_asks", false, false, ""},
                               {"caller_declined", true, false, "call4", net::sip_udp, true},
                               {"caller_cancels", false, false, "call2", net::sip_tcp},
                               {"caller_declined", false, true, "call1", net::sip_tcp},
                               {"caller_asks", false, false, "", net::sip_tcp}};
    for (const caller_row& each : rows) {
        SCOPED_TRACE(each.scenario);
        test::sip_switch registrar(each.transport);
        test::sip_phone phone("bob", each.transport, registrar.port);
        ASSERT_TRUE(phone.waits("account0"));
        phone.answers = each.answers;
        phone.declines = each.declines;
        if (each.full) phone.fill(true);
        // The switch hands what the peer says to the phone.
        play(each.scenario, transport_of(each.transport) + "-m 1 127.0.0.1:" + std::to_string(registrar.port));
        EXPECT_TRUE(phone.waits(each.event));
        if (each.full) phone.fill(false);
    }
}

struct callee_row {
    const char* scenario;
    int transport;
    const char* event;
    const char* refusal = "";
};

/// One that nobody has, over either transport.
unsigned port_of_both() {
    const unsigned port = test::free_port();
    const test::udp_socket probe;
    return net_udp_listen(probe, "127.0.0.1", static_cast<uint16_t>(port)) == 0 ? port : port_of_both();
}

TEST(NetSipPeers, AreCalled) {
    const callee_row rows[] = {{"callee", net::sip_udp, "call2"},
                               {"callee", net::sip_tcp, "call2"},
                               {"callee_refuses", net::sip_udp, "call5", "486 Busy Here"},
                               {"callee_refuses", net::sip_tcp, "call5", "486 Busy Here"},
                               {"callee_refuses", net::sip_udp, "call4", "404 Not Found"}};
    for (const callee_row& each : rows) {
        SCOPED_TRACE(each.scenario);
        const unsigned port = port_of_both();
        std::thread server([&] {
            play(each.scenario, transport_of(each.transport) + "-m 2 -p " + std::to_string(port), each.refusal);
        });
        test::sip_phone phone("bob", each.transport, 0);
        phone.calls = "alice";
        phone.open(port);  // again and again, until the server has come up
        EXPECT_TRUE(phone.waits(each.event));
        server.join();
    }
}

}  // namespace
