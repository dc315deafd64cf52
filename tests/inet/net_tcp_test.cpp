#include "inet/net_tcp.h"

#include "support/network_thread.h"
#include "support/sockets.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

using namespace net;
using test::tcp_socket;
using test::watch;

/// A listening record that keeps what it accepts.
struct server {
    explicit server(nt_ctx* nt) { EXPECT_EQ(net_tcp_create(tcp, nt, CORE_HERE), 0); }
    ~server() { net_tcp_close(tcp); }

    static void on_accept(void* arg, int fd, const sockaddr_in* peer) {
        auto* self = static_cast<server*>(arg);
        self->accepted.emplace_back(fd);
        self->peer = *peer;
        test::callback::run(&self->called);
    }
    int listen(unsigned at, accept_callback callback = on_accept) {
        return net_tcp_listen2(tcp, "127.0.0.1", at, this, callback);
    }
    /// Whether a connection is under way.
    bool reached_by(int client) const { return ::net_tcp_connect(client, "127.0.0.1", port) == 0; }

    const unsigned short port = test::free_port();
    tcp_ctx* tcp = nullptr;
    std::vector<tcp_socket> accepted;
    sockaddr_in peer = {};
    test::callback called;
};

TEST(Tcp, HandsOverEveryConnectionWithItsAddressUntilItIsClosedInTheCallback) {
    const test::network_thread nt;
    server server(nt);
    ASSERT_EQ(server.listen(server.port), 0);
    for (int i = 1; i <= 3; ++i) {
        if (i == 3) server.called.then = [&] { net_tcp_close(server.tcp); };
        const tcp_socket client;
        ASSERT_TRUE(server.reached_by(client));
        ASSERT_TRUE(server.called.reaches(i));
        EXPECT_EQ(net_addr_port(server.peer), net_socket_get_near_port(client));
        const int accepted = server.accepted.back();
        EXPECT_EQ(net_socket_peer(accepted).sin_port, server.peer.sin_port);
        EXPECT_EQ(test::value_of(accepted, test::option::no_delay), 1);
        EXPECT_FALSE(test::is_inherited(accepted));
        test::drain(accepted);  // it does not block
    }
    EXPECT_EQ(server.tcp, nullptr);
    const tcp_socket late;
    ASSERT_TRUE(server.reached_by(late));
    ASSERT_TRUE(test::await(late, watch::write));
    EXPECT_EQ(net_socket_get_error(late), socket_error_refused);
}

TEST(Tcp, WithoutACallbackConnectionsAreClosedAndTheRestIsRefused) {
    const test::network_thread nt;
    server server(nt);
    for (const unsigned port : {0, 65536})
        EXPECT_EQ(server.listen(port), -2);
    ASSERT_EQ(server.listen(server.port, nullptr), 0);
    EXPECT_EQ(server.listen(test::free_port()), -5) << "it listens already";
    EXPECT_EQ(net_tcp_create(server.tcp, nt, CORE_HERE), -5);
    const tcp_socket client;
    ASSERT_TRUE(server.reached_by(client));
    EXPECT_TRUE(test::await(client, watch::read));
}

}  // namespace
