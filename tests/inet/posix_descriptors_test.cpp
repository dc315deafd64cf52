// The bounds of a process's descriptors, which only POSIX systems have.
#include "net_thread/loop.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "core/time.h"
#include "inet/net_tcp.h"

#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace net;

rlim_t bound_descriptors(rlim_t count) {
    rlimit bound = {};
    getrlimit(RLIMIT_NOFILE, &bound);
    std::swap(bound.rlim_cur, count);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &bound), 0);
    return count;
}

TEST(Descriptors, AreNotInheritedAndThoseAbove1023AreWatched) {
    const test::socket_pair pair;
    EXPECT_TRUE(fcntl(pair.here, F_GETFD) == FD_CLOEXEC && fcntl(pair.there, F_GETFD) == FD_CLOEXEC);
    const rlim_t before = bound_descriptors(1101);
    test::callback called;
    const test::network_thread nt;
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, dup2(pair.here, 1100), nt_flag_read, &called, test::callback::run);
    pair.poke();
    EXPECT_TRUE(called.reaches(1));
    net_nt_socket_rem(nt, socket);
    EXPECT_EQ(close(1100), 0);
    bound_descriptors(before);
}

TEST(Descriptors, AWakePairThatCannotBeMadeIsTriedAgainAfterASecond) {
    static std::atomic<uint64_t> now = 7'000'000;
    core_time_set_clock([] { return now.load(); });
    const rlim_t before = bound_descriptors(3);
    const test::network_thread nt;
    nt.pass();
    bound_descriptors(before);
    nt.pass();
    EXPECT_EQ(nt.nt->wake_rd, -1);
    now += 1'000'000;
    nt.pass();
    EXPECT_GE(nt.nt->wake_rd, 0);
    core_time_set_clock(nullptr);
}

// A duplicate keeps the file behind a number that was given up, and the number is another file's at once.
TEST(Descriptors, AreWatchedByTheirNumbersWhateverFilesAreBehindThem) {
    constexpr int number = 900;
    const test::socket_pair first, second;
    const test::network_thread nt;
    test::callback called;
    socket_ctx* socket = nullptr;
    const auto watch = [&](int fd) {
        net_nt_socket_rem(nt, socket);
        net_nt_socket_add(nt, socket, dup2(fd, number), nt_flag_read, &called, test::callback::run);
    };
    nt.run([&] { watch(first.here); });
    nt.pass();
    nt.run([&] { socket->fd = -1, socket = nullptr; });  // given up, but not out of the system's set
    first.poke();
    nt.pass();
    nt.run([&] { watch(second.here); });
    nt.pass();
    EXPECT_EQ(called.runs(), 0);
    second.poke();
    EXPECT_TRUE(called.reaches(1));
    const int always_ready = open("/dev/null", O_RDONLY | O_CLOEXEC);
    nt.run([&] { watch(always_ready), called.events.clear(); });
    EXPECT_TRUE(called.reaches(called.runs() + 3)) << "no file that one can wait for";
    nt.run([&] { net_nt_socket_rem(nt, socket); });
    EXPECT_EQ(close(always_ready) + close(number), 0);
}

TEST(Descriptors, WhenTheyRunOutConnectionsAreTurnedAway) {
    const test::network_thread nt;
    nt.pass();  // it has opened its own descriptors: the client's is the highest
    tcp_ctx* server = nullptr;
    const auto port = test::free_port();
    ASSERT_EQ(net_tcp_create(server, nt, CORE_HERE), 0);
    ASSERT_EQ(net_tcp_listen2(server, nullptr, port, nullptr, nullptr), 0);
    const test::tcp_socket client, next;
    const rlim_t before = bound_descriptors(static_cast<rlim_t>(next) + 1);
    for (const int fd : {int{client}, int{next}}) {
        EXPECT_EQ(::net_tcp_connect(fd, "127.0.0.1", port), 0);
        EXPECT_TRUE(test::await(fd, test::watch::read)) << "it is closed, also when there are descriptors again";
        bound_descriptors(before);
    }
    net_tcp_close(server);
}

}  // namespace
