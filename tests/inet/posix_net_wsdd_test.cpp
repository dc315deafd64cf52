// Discovery between two hosts, which are network namespaces joined by a cable.
#include "support/discovery.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace {

using test::discovery;

bool run(const std::string& command) { return std::system((command + " 2>/dev/null").c_str()) == 0; }

/// A namespace with one interface; the second one made is joined to the first.
struct host {
    explicit host(const char* called) : name("inet-wsdd-" + std::string(called) + std::to_string(getpid())) {
        is_up = run("ip netns add " + name);
    }
    ~host() { run("ip netns del " + name); }
    host(const host&) = delete;
    host& operator=(const host&) = delete;

    void set_up(const char* address) {
        for (const char* what : {"link set lo up", "link set end up", "route add 224.0.0.0/4 dev end"}) {
            if (what[0] == 'r') is_up = is_up && run("ip -n " + name + " address add " + address + "/24 dev end");
            is_up = is_up && run("ip -n " + name + ' ' + what);
        }
    }

    /// Sockets that are made in it are this host's for good.
    template <class Function>
    void on(Function function) const {
        std::thread([&] {
            const int place = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
            const bool is_there = place >= 0 && setns(place, CLONE_NEWNET) == 0;
            close(place);
            ASSERT_TRUE(is_there);
            function();
        }).join();
    }

    const std::string name;
    bool is_up = false;
};

TEST(Discovery, CrossesTheNetworkAndDoesNotHearItself) {
    host near("near");
    host far("far");
    if (!near.is_up || !far.is_up) GTEST_SKIP() << "network namespaces need root";
    ASSERT_TRUE(run("ip link add end netns " + near.name + " type veth peer name end netns " + far.name));
    near.set_up("10.81.8.1");
    far.set_up("10.81.8.2");
    ASSERT_TRUE(near.is_up && far.is_up);

    const test::network_thread network;
    discovery device([](discovery& self) {
        net::net_wsdd_send(self.handle, "match", self.from);
        net::net_wsdd_request(self.handle, "hello");
    });
    discovery client;
    discovery neighbour;
    far.on([&] { ASSERT_EQ(device.open(network, nullptr, 0), 0); });
    near.on([&] {
        ASSERT_EQ(client.open(network, "239.81.8.9", 4000), 0);
        ASSERT_EQ(neighbour.open(network, nullptr, 0), 0);
    });
    net::net_wsdd_request(client.handle, "probe");
    for (discovery* each : {&device, &client, &neighbour})
        ASSERT_TRUE(each->messages.reaches(1));
    network.pass();
    EXPECT_EQ(device.heard, "probe ") << "not its own hello";
    EXPECT_EQ(client.heard, "match ") << "on the socket that asked";
    EXPECT_EQ(neighbour.heard, "hello ") << "not the probe of its own host, which came before";
    unsigned port = 0;
    EXPECT_STREQ(net_socket_straddr(&client.from, port), "10.81.8.2");
    EXPECT_EQ(port, 3702U);
}

}  // namespace
