#include "inet/net_tcp.h"

#include "support/fault.h"
#include "support/log_lines.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include <gtest/gtest.h>
#include <mutex>
#include <vector>

namespace {

using namespace net;
using test::counter;

/// A listening record that keeps what it accepts.
struct server {
    explicit server(nt_ctx* nt) { EXPECT_EQ(net_tcp_create(tcp, nt, CORE_HERE), 0); }
    ~server() {
        net_tcp_close(tcp);
        for (const int fd : accepted)
            net_socket_close(fd);
    }
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    static void on_accept(void* arg, int fd, const sockaddr_in* peer) {
        auto* self = static_cast<server*>(arg);
        self->accepted.push_back(fd);
        self->peer = *peer;
        if (self->closes) net_tcp_close(self->tcp);
        self->calls.add();
    }

    tcp_ctx* tcp = nullptr;
    std::vector<int> accepted;
    sockaddr_in peer = {};
    bool closes = false;
    counter calls;
};

TEST(Tcp, HandsOverEveryConnectionWithItsAddress) {
    const test::network_thread nt;
    server server(nt);
    const unsigned port = test::free_port();
    ASSERT_EQ(net_tcp_listen2(server.tcp, "127.0.0.1", port, &server, server::on_accept), 0);
    EXPECT_EQ(net_socket_get_near_port(server.tcp->fd), port);
    for (int i = 1; i <= 3; ++i) {
        const test::tcp_socket client;
        ASSERT_EQ(::net_tcp_connect(client, "127.0.0.1", static_cast<unsigned short>(port)), 0);
        ASSERT_TRUE(server.calls.reaches(i));
        EXPECT_EQ(net_addr_port(server.peer), net_socket_get_near_port(client));
        EXPECT_EQ(net_addr_port(server.tcp->peer), net_socket_get_near_port(client));
        EXPECT_EQ(net_socket_peer(server.accepted.back()).sin_port, server.peer.sin_port);
    }
}

TEST(Tcp, ItsRecordMayBeClosedInTheCallback) {
    const test::network_thread nt;
    server server(nt);
    server.closes = true;
    const auto port = test::free_port();
    ASSERT_EQ(net_tcp_listen2(server.tcp, nullptr, port, &server, server::on_accept), 0);
    const test::tcp_socket client;
    ASSERT_EQ(::net_tcp_connect(client, "127.0.0.1", port), 0);
    ASSERT_TRUE(server.calls.reaches(1));
    EXPECT_EQ(server.tcp, nullptr);
    const test::tcp_socket late;
    ASSERT_EQ(::net_tcp_connect(late, "127.0.0.1", port), 0);
    ASSERT_TRUE(test::await(late, test::watch::write));
    EXPECT_EQ(net_socket_get_error(late), socket_error_refused);
}

TEST(Tcp, WithoutACallbackConnectionsAreClosed) {
    const test::network_thread nt;
    server server(nt);
    const auto port = test::free_port();
    ASSERT_EQ(net_tcp_listen2(server.tcp, nullptr, port, nullptr, nullptr), 0);
    const test::tcp_socket client;
    ASSERT_EQ(::net_tcp_connect(client, "127.0.0.1", port), 0);
    EXPECT_TRUE(test::await(client, test::watch::read));
}

TEST(Tcp, ResultCodes) {
    const test::network_thread nt;
    tcp_ctx* none = nullptr;
    EXPECT_EQ(net_tcp_create(none, nullptr, CORE_HERE), -2);
    EXPECT_EQ(net_tcp_listen2(none, nullptr, 5000, nullptr, nullptr), -5);
    net_tcp_close(none);
    server server(nt);
    EXPECT_EQ(net_tcp_create(server.tcp, nt, CORE_HERE), -5);
    EXPECT_EQ(net_tcp_listen2(server.tcp, nullptr, 0, nullptr, nullptr), -2);
    EXPECT_EQ(net_tcp_listen2(server.tcp, nullptr, 65536, nullptr, nullptr), -2);
    EXPECT_EQ(net_tcp_listen2(server.tcp, "no.such.host.invalid", 5000, nullptr, nullptr), -2);
    EXPECT_EQ(server.tcp->socket, nullptr);
    ASSERT_EQ(net_tcp_listen2(server.tcp, nullptr, test::free_port(), nullptr, nullptr), 0);
    EXPECT_EQ(net_tcp_listen2(server.tcp, nullptr, test::free_port(), nullptr, nullptr), -5);
}

TEST(Memory, WhenItIsOutNothingStaysOpenOrHeld) {
    const auto port = test::free_port();
    const auto open_before = test::open_sockets();
    const size_t failed = test::fail_each_allocation([port] {
        const test::network_thread nt;
        tcp_ctx* tcp = nullptr;
        if (net_tcp_create(tcp, nt, CORE_HERE) == 0) {
            const int listens = net_tcp_listen2(tcp, nullptr, port, nullptr, nullptr);
            EXPECT_EQ(listens, tcp->socket ? 0 : -1);
        }
        net_tcp_close(tcp);
        EXPECT_EQ(tcp, nullptr);
    });
    EXPECT_GE(failed, 10u);
    EXPECT_EQ(test::open_sockets(), open_before);
}

}  // namespace
