// Discovery over the loopback, where 127.0.0.2 is another host. posix_net_wsdd_test.cpp has two hosts.
#include "support/discovery.h"
#include "support/fault.h"
#include "support/sockets.h"

#include <gtest/gtest.h>

namespace {

using test::discovery;

TEST(Discovery, HearsOtherHostsAndClosesInItsCallback) {
    const test::network_thread network;
    discovery owner([](discovery& self) {
        if (self.messages.runs() == 0) return;
        net::net_wsdd_close(self.handle);
        net::net_wsdd_send(self.handle, "match", self.from);
        net::net_wsdd_request(self.handle, "probe");
    });
    const unsigned short port = test::free_port();
    ASSERT_EQ(owner.open(network, "127.0.0.1", 0x50000u + port), 0);
    EXPECT_EQ(owner.open(network, "127.0.0.1", port), -5);
    const test::udp_socket own, other;
    net_socket_bind(own, "127.0.0.1", 0);
    net_socket_bind(other, "127.0.0.2", 0);
    sockaddr_in to{};
    net_addr_setup(to, "127.0.0.1", port);
    const std::string longest(65507, 'x');
    network.run([&] {  // which waits while these come
        for (const std::string& text : {std::string(), std::string("probe"), longest, std::string("late")}) {
            EXPECT_GE(net_udp_send_msg(own, "own", &to), 0);
            EXPECT_GE(net_udp_send_msg(other, text.c_str(), &to), 0);
        }
    });
    ASSERT_TRUE(owner.messages.reaches(2));
    network.pass();
    EXPECT_EQ(owner.heard, "probe " + longest + ' ');
}

TEST(Discovery, RefusesWhatItCannotWorkWith) {
    net::wsdd_t silent;
    EXPECT_EQ(net::net_wsdd_open(silent, test::network_thread(), nullptr, 0, CORE_HERE), -2);
    EXPECT_GT(test::fail_each_allocation([] {
                  const test::network_thread network;
                  discovery owner;
                  const int result = owner.open(network, "127.0.0.1", 0);
                  EXPECT_EQ(result, owner.handle.priv ? 0 : network.nt ? -1 : -2);
              }),
              5U);
}

}  // namespace
