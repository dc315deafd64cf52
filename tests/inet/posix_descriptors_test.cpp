// The bounds of a process's descriptors, which only POSIX systems have.
#include "support/network_thread.h"
#include "support/sockets.h"

#include "inet/net_tcp.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace net;
using test::counter;

/// Another bound for descriptors while it lives.
class descriptor_bound {
public:
    explicit descriptor_bound(rlim_t count) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        const rlimit changed = {.rlim_cur = std::min(before_.rlim_max, count), .rlim_max = before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &changed), 0);
    }
    ~descriptor_bound() { setrlimit(RLIMIT_NOFILE, &before_); }
    descriptor_bound(const descriptor_bound&) = delete;
    descriptor_bound& operator=(const descriptor_bound&) = delete;

private:
    rlimit before_ = {};
};

void count_event(void* arg, uint32_t) { counter::count(arg); }

TEST(Descriptors, Above1023AreWatched) {
    const descriptor_bound raised(4096);
    int fds[2] = {-1, -1};
    ASSERT_EQ(net_socket_pair(2, 1, 6, fds, CORE_HERE), 0);
    const test::tcp_socket here(fds[0]), there(fds[1]);
    const test::network_thread nt;
    counter called;
    const int high = dup2(here, 1100);
    ASSERT_EQ(high, 1100);
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, high, nt_flag_read, &called, count_event);
    EXPECT_EQ(net_udp_send_msg(there, "x", nullptr), 1);
    EXPECT_TRUE(called.reaches(1));
    net_nt_socket_rem(nt, socket);
    close(high);
}

TEST(Descriptors, WhenTheyRunOutConnectionsAreTurnedAway) {
    test::network_thread nt;
    nt.pass();  // it has opened its own descriptors: the client's is the highest
    struct {
        counter calls;
        std::vector<int> fds;
    } accepted;
    tcp_ctx* server = nullptr;
    ASSERT_EQ(net_tcp_create(server, nt, CORE_HERE), 0);
    const auto port = test::free_port();
    ASSERT_EQ(net_tcp_listen2(server, nullptr, port, &accepted,
                              [](void* arg, int fd, const sockaddr_in*) {
                                  auto* self = static_cast<decltype(accepted)*>(arg);
                                  self->fds.push_back(fd);
                                  self->calls.add();
                              }),
              0);
    const test::tcp_socket client;
    {
        const descriptor_bound none_left(static_cast<rlim_t>(client) + 1);
        EXPECT_EQ(::net_tcp_connect(client, "127.0.0.1", port), 0);
        EXPECT_TRUE(test::await(client, test::watch::read));
    }
    EXPECT_EQ(accepted.calls.value(), 0);

    const test::tcp_socket next;
    ASSERT_EQ(::net_tcp_connect(next, "127.0.0.1", port), 0);
    EXPECT_TRUE(accepted.calls.reaches(1)) << "it goes on when there are descriptors again";
    net_tcp_close(server);
    for (const int fd : accepted.fds)
        net_socket_close(fd);
}

}  // namespace
