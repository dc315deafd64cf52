// Discovery over the loopback, where 127.0.0.2 is another host. posix_net_wsdd_test.cpp has two hosts.
#include "support/discovery.h"
#include "support/fault.h"
#include "support/sockets.h"

#include <gtest/gtest.h>

namespace {

using test::discovery;

/// A socket of a host that sends to a port of 127.0.0.1.
struct host {
    host(const char* address, unsigned short to_port) {
        net_socket_bind(socket, address, 0);
        net_addr_setup(to, "127.0.0.1", to_port);
    }
    void say(const std::string& text) { EXPECT_GE(net_udp_send_msg(socket, text.c_str(), &to), 0); }

    const test::udp_socket socket;
    sockaddr_in to{};
};

unsigned short free_udp_port() {
    const test::udp_socket probe;
    net_socket_bind(probe, "127.0.0.1", 0);
    return net_socket_get_near_port(probe);
}

TEST(Discovery, HearsOtherHostsAndAnswersFromItsPort) {
    const test::network_thread network;
    discovery owner([](discovery& self) { net::net_wsdd_send(self.handle, "match", self.from); });
    const unsigned short port = free_udp_port();
    ASSERT_EQ(owner.open(network, "127.0.0.1", 0x50000u + port), 0);
    EXPECT_EQ(owner.open(network, "127.0.0.1", port), -5);
    host other("127.0.0.2", port);
    host own("127.0.0.1", port);
    const std::string longest(65507, 'x');
    network.run([&] {  // which waits while these come
        for (const char* text : {"", "one", "two"}) {
            own.say("own");
            other.say(text);
        }
    });
    ASSERT_TRUE(owner.messages.reaches(2));
    other.say(longest);
    ASSERT_TRUE(owner.messages.reaches(3));
    EXPECT_EQ(owner.heard, "one two " + longest + ' ');

    uint8_t room[8];
    buf_t answer{room, sizeof room, 0};
    sockaddr_in from{};
    ASSERT_TRUE(test::await(other.socket, test::watch::read));
    EXPECT_EQ(net_udp_recv(other.socket, answer, &from), 5);
    EXPECT_EQ(net_addr_port(from), port);
}

TEST(Discovery, ClosesInItsCallbackAndTwice) {
    const test::network_thread network;
    discovery owner([](discovery& self) { net::net_wsdd_close(self.handle); });
    const unsigned short port = free_udp_port();
    ASSERT_EQ(owner.open(network, "127.0.0.1", port), 0);
    host other("127.0.0.2", port);
    other.say("one");
    other.say("two");
    ASSERT_TRUE(owner.messages.reaches(1));
    network.pass();
    EXPECT_EQ(owner.heard, "one ");
    net::net_wsdd_close(owner.handle);
    net::net_wsdd_send(owner.handle, "match", owner.from);
    net::net_wsdd_request(owner.handle, "probe");
}

TEST(Discovery, RefusesWhatItCannotWorkWith) {
    net::wsdd_t silent;
    EXPECT_EQ(net::net_wsdd_open(silent, test::network_thread(), nullptr, 0, CORE_HERE), -2);
    EXPECT_GT(test::fail_each_allocation([] {
                  const test::network_thread network;
                  discovery owner;
                  const int result = owner.open(network, "127.0.0.1", 0);
                  EXPECT_EQ(result == 0, owner.handle.priv != nullptr);
                  EXPECT_TRUE(result == 0 || result == -1 || !network.nt);
              }),
              5U);
}

}  // namespace
