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

struct host {
    explicit host(const char* called) : name("inet-wsdd-" + std::string(called) + std::to_string(getpid())) {}
    ~host() { run("ip netns del " + name); }
    host(const host&) = delete;
    host& operator=(const host&) = delete;

    bool add() const { return run("ip netns add " + name); }
    bool set_up(const std::string& address) const {
        const std::string ip = "ip -n " + name;
        return run(ip + " link set lo up && " + ip + " link set end up && " + ip + " address add " + address +
                   "/24 dev end && " + ip + " route add 224.0.0.0/4 dev end");
    }

    /// Sockets that are made in it are this host's for good.
    template <class Function>
    void on(Function function) const {
        std::thread([&] {
            const int place = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
            EXPECT_EQ(setns(place, CLONE_NEWNET), 0);
            close(place);
            function();
        }).join();
    }

    const std::string name;
};

TEST(Discovery, CrossesTheNetworkAndDoesNotHearItself) {
    const host near("near"), far("far");
    if (!near.add() || !far.add()) GTEST_SKIP() << "network namespaces need root";
    ASSERT_TRUE(run("ip link add end netns " + near.name + " type veth peer name end netns " + far.name));
    ASSERT_TRUE(near.set_up("10.81.8.1") && far.set_up("10.81.8.2"));
    const test::network_thread network;
    discovery client, neighbour, device([](discovery&self) {
        net::net_wsdd_send(self.handle, "match", self.from);
        net::net_wsdd_request(self.handle, "hello");
    });
    far.on([&] { EXPECT_EQ(device.open(network, nullptr, 0), 0); });
    near.on([&] {
        EXPECT_EQ(client.open(network, "239.81.8.9", 4000), 0);
        EXPECT_EQ(neighbour.open(network, nullptr, 0), 0);
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
