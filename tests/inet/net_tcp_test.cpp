#include "inet/net_tcp.h"

#include "support/network_thread.h"
#include "support/sockets.h"

#include <gtest/gtest.h>

namespace {

using namespace net;
using test::watch;

TEST(Tcp, HandsOverEveryConnectionWithItsAddressUntilItIsClosedInTheCallback) {
    struct server_t : test::callback {
        tcp_ctx* tcp = nullptr;
        sockaddr_in peer = {};
    } server;
    const auto on_accept = [](void* arg, int fd, const sockaddr_in* peer) {
        test::drain(fd);  // it does not block
        net_socket_close(fd);
        static_cast<server_t*>(arg)->peer = *peer;
        test::callback::run(arg);
    };
    const unsigned short port = test::free_port();
    const test::network_thread nt;
    ASSERT_EQ(net_tcp_create(server.tcp, nt, CORE_HERE), 0);
    ASSERT_EQ(net_tcp_listen2(server.tcp, "127.0.0.1", port, &server, on_accept), 0);
    for (int i = 1; i <= 3; ++i) {
        if (i == 3) server.then = [&] { net_tcp_close(server.tcp); };
        const test::tcp_socket client;
        ASSERT_EQ(::net_tcp_connect(client, "127.0.0.1", port), 0);
        ASSERT_TRUE(server.reaches(i));
        EXPECT_EQ(net_addr_port(server.peer), net_socket_get_near_port(client));
    }
    const test::tcp_socket late;
    ASSERT_EQ(::net_tcp_connect(late, "127.0.0.1", port), 0);
    ASSERT_TRUE(test::await(late, watch::write));
    EXPECT_EQ(net_socket_get_error(late), socket_error_refused);
}

TEST(Tcp, CountsTheSecondsOfEachStallByThemselves) {
    const auto [ours, theirs] = test::socket_pair::open();
    const test::tcp_socket there(theirs);
    for (const int fd : {ours, theirs})
        socket_options(fd);
    const test::network_thread nt;
    nt.run([&, fd = ours] {
        Tcp* const tcp = Tcp::create(CORE_HERE);
        ASSERT_EQ(tcp->take(nt, fd, {}), 0);
        const std::string much(1 << 20, 'x');
        buf_t own;
        std::string seconds;
        for (int stall = 0; stall < 2; ++stall) {
            do {
                core_buf_read(&own, much.data(), 1 << 20);
                tcp->flush(own);
            } while (own.length == 0);
            for (int i = 0; i < 3; ++i)
                seconds += std::to_string(tcp->second());
            for (; own.length; tcp->flush(own))
                test::drain(there);
            seconds += std::to_string(tcp->second());
        }
        EXPECT_EQ(seconds, "01200120");
        core_buf_free(&own);
        Tcp::destroy(tcp);
    });
}

TEST(Tcp, IsLostWhenItFailsWhileNothingIsRead) {
    struct owner_t final : ITcp, test::callback {
        void on_tcp_received(Tcp*, buf_t*) noexcept override {}
        void on_tcp_writable(Tcp* tcp) noexcept override { tcp->offer({bytes, sizeof bytes}, {}); }
        void on_tcp_closed(Tcp*, int) noexcept override { run(static_cast<test::callback*>(this)); }
        uint8_t bytes[1000] = {};
    } owner;
    const auto [ours, theirs] = test::socket_pair::open();
    test::tcp_socket there(theirs);
    socket_options(ours);
    const test::network_thread nt;
    Tcp* tcp = Tcp::create(CORE_HERE);
    nt.run([&, fd = ours] {
        tcp->set_handler(&owner);
        tcp->set_reading(0);
        ASSERT_EQ(tcp->take(nt, fd, {}), 0);
        while (tcp->offer({owner.bytes, sizeof owner.bytes}, {}) > 0) {
        }
    });
    there.close();  // what it did not read makes it a reset
    EXPECT_TRUE(owner.reaches(1));
    Tcp::destroy(tcp);
}

}  // namespace
