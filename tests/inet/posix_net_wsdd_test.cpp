// Discovery over the loopback, where 127.0.0.2 is another host, and between two hosts, which are network namespaces
// joined by a cable.
#include "support/fault.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "inet/net_wsdd.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace {

/// An owner of a handle that keeps what it hears.
struct discovery {
    explicit discovery(std::function<void(discovery&)> in_it = [](discovery&) {}) : then(std::move(in_it)) {}
    ~discovery() { net::net_wsdd_close(handle); }

    int open(const test::network_thread& on, const char* group, unsigned port) {
        return net::net_wsdd_open(handle, on, group, port, CORE_HERE);
    }

    static void on_message(net::wsdd_t* d, const char* text, sockaddr_in from) {
        auto& self = *static_cast<discovery*>(d->user);
        self.heard += std::string(text) + ' ';
        self.from = from;
        self.then(self);
        test::callback::run(&self.messages);
    }

    std::string heard;
    sockaddr_in from{};
    std::function<void(discovery&)> then;
    test::callback messages;
    net::wsdd_t handle{this, on_message, nullptr};
};

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
    /// What is sent before the kernel has seen both ends of the cable is lost.
    void wait_for_the_cable() const {
        while (!run("ip -n " + name + " link show end | grep -q 'state UP'"))
            std::this_thread::yield();
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
    sockaddr_in to{};
    for (const auto& [socket, address] : {std::pair<int, const char*>{own, "127.0.0.1"}, {other, "127.0.0.2"}}) {
        net_addr_setup(to, address, 0);
        ASSERT_TRUE(net::platform::set_exclusive(socket) && net::platform::bind_socket(socket, to));
    }
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

TEST(Discovery, CrossesTheNetworkAndDoesNotHearItself) {
    const host near("near"), far("far");
    if (!near.add() || !far.add()) GTEST_SKIP() << "network namespaces need root";
    ASSERT_TRUE(run("ip link add end netns " + near.name + " type veth peer name end netns " + far.name));
    ASSERT_TRUE(near.set_up("10.81.8.1") && far.set_up("10.81.8.2"));
    near.wait_for_the_cable();
    far.wait_for_the_cable();
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
