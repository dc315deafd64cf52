// The bounds of a process's descriptors, which only POSIX systems have.
#include "support/network_thread.h"
#include "support/sockets.h"

#include "inet/net_tcp.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace net;
using test::callback;

/// Another bound for descriptors while it lives.
class descriptor_bound {
public:
    explicit descriptor_bound(rlim_t count) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        const rlimit changed = {.rlim_cur = std::min(before_.rlim_max, count), .rlim_max = before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &changed), 0);
    }
    ~descriptor_bound() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_ = {};
};

TEST(Descriptors, Above1023AreWatched) {
    const descriptor_bound raised(4096);
    const test::socket_pair pair;
    callback called;
    const test::network_thread nt;
    const int high = dup2(pair.here, 1100);
    ASSERT_EQ(high, 1100);
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, high, nt_flag_read, &called, callback::run);
    pair.poke();
    EXPECT_TRUE(called.reaches(1));
    net_nt_socket_rem(nt, socket);
    close(high);
}

TEST(Descriptors, WhenTheyRunOutConnectionsAreTurnedAway) {
    const test::network_thread nt;
    nt.pass();  // it has opened its own descriptors: the client's is the highest
    callback called;
    tcp_ctx* server = nullptr;
    ASSERT_EQ(net_tcp_create(server, nt, CORE_HERE), 0);
    const auto port = test::free_port();
    const auto on_accept = [](void* arg, int fd, const sockaddr_in*) {
        net_socket_close(fd);
        callback::run(arg);
    };
    ASSERT_EQ(net_tcp_listen2(server, nullptr, port, &called, on_accept), 0);
    const test::tcp_socket client, next;
    {
        const descriptor_bound none_left(static_cast<rlim_t>(next) + 1);
        EXPECT_EQ(::net_tcp_connect(client, "127.0.0.1", port), 0);
        EXPECT_TRUE(test::await(client, test::watch::read));
    }
    EXPECT_EQ(called.runs(), 0);
    EXPECT_EQ(::net_tcp_connect(next, "127.0.0.1", port), 0);
    EXPECT_TRUE(called.reaches(1)) << "it goes on when there are descriptors again";
    net_tcp_close(server);
}

}  // namespace
