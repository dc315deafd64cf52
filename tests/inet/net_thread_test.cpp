#include "inet/net_thread.h"

#include "net_thread/loop.h"
#include "support/fault.h"
#include "support/log_lines.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "core/time.h"

#include <atomic>
#include <cassert>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace net;
using namespace std::chrono_literals;
using test::counter;
using test::drain;
using test::less_than_a_wait;
using test::network_thread;

struct socket_pair {
    socket_pair() {
        net_socket_pair(2, 1, 6, fds, CORE_HERE);
        socket_options(fds[0]);
        socket_options(fds[1]);
    }
    ~socket_pair() {
        for (const int fd : fds) {
            if (fd >= 0) net_socket_close(fd);
        }
    }
    socket_pair(const socket_pair&) = delete;
    socket_pair& operator=(const socket_pair&) = delete;
    void poke() const { EXPECT_EQ(net_udp_send_msg(fds[1], "x", nullptr), 1); }

    int fds[2] = {-1, -1};
};

/// A registration that notes its events, and does `then` in its callback.
struct listener {
    listener(nt_ctx* on, int fd, int flags, std::function<void(listener&)> in_callback = {})
        : nt(on), then(std::move(in_callback)) {
        net_nt_socket_add(nt, socket, fd, flags, this, on_event);
    }
    ~listener() { net_nt_socket_rem(nt, socket); }
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    static void on_event(void* arg, uint32_t events) {
        auto* self = static_cast<listener*>(arg);
        EXPECT_EQ(net_nt_need_invoke(self->nt), 0);
        self->seen |= events;
        self->last = events;
        if (self->then) self->then(*self);
        self->calls.add();
    }

    nt_ctx* nt;
    socket_ctx* socket = nullptr;
    std::function<void(listener&)> then;
    std::atomic<uint32_t> seen = 0, last = 0;
    counter calls;
};

TEST(Socket, EachKindOfReadinessHasItsEvent) {
    const network_thread nt;
    const socket_pair pair;
    listener reader(nt, pair.fds[0], nt_flag_read, [&](listener&) { drain(pair.fds[0]); });
    pair.poke();
    ASSERT_TRUE(reader.calls.reaches(1));
    EXPECT_EQ(reader.last, nt_event_read);

    const test::tcp_socket accepting;
    ASSERT_EQ(net_tcp_listen(accepting, "127.0.0.1", 0), 0);
    listener acceptor(nt, accepting, nt_flag_listening,
                      [&](listener&) { net_socket_close(net_socket_accept(accepting, nullptr, CORE_HERE)); });
    const test::tcp_socket client;
    ASSERT_EQ(net_tcp_connect(client, "127.0.0.1", net_socket_get_near_port(accepting)), 0);
    ASSERT_TRUE(acceptor.calls.reaches(1));
    EXPECT_EQ(acceptor.seen, nt_event_accept);
}

TEST(Socket, ConnectedIsReportedOnceThenWritable) {
    const network_thread nt;
    const socket_pair pair;
    std::vector<uint32_t> events;
    listener writer(nt, pair.fds[0], nt_flag_connecting | nt_flag_write, [&](listener& self) {
        events.push_back(self.last);
        if (events.size() == 3) net_nt_socket_set(self.nt, self.socket, 0, 0);
    });
    ASSERT_TRUE(writer.calls.reaches(3));
    EXPECT_EQ(events, (std::vector<uint32_t>{nt_event_connected, nt_event_write, nt_event_write}));
    EXPECT_EQ(writer.socket->flags, 0u);
}

TEST(Socket, AFailedConnectIsReportedAsConnectedWithItsErrorPending) {
    const network_thread nt;
    const test::tcp_socket client;
    ASSERT_EQ(net_tcp_connect(client, "127.0.0.1", test::free_port()), 0);
    listener connecting(nt, client, nt_flag_connecting);
    ASSERT_TRUE(connecting.calls.reaches(1));
    EXPECT_EQ(connecting.seen, nt_event_connected);
    EXPECT_EQ(net_socket_get_error(client), socket_error_refused);
    const int again = net_socket_get_error(client);
    EXPECT_TRUE(again == 0 || again == socket_error_refused) << "it is told once, but by Wine";
}

TEST(Socket, AHangUpAndAResetAreReadable) {
    const network_thread nt;
    socket_pair ended, reset;
    const auto unwatch = [](listener& self) { net_nt_socket_set(self.nt, self.socket, 0, 0); };
    listener first(nt, ended.fds[0], nt_flag_read, unwatch), second(nt, reset.fds[0], nt_flag_read, unwatch);
    net_socket_close(std::exchange(ended.fds[1], -1));
    test::close_with_reset(std::exchange(reset.fds[1], -1));
    EXPECT_TRUE(first.calls.reaches(1));
    EXPECT_TRUE(second.calls.reaches(1));
    EXPECT_EQ(first.seen | second.seen, nt_event_read);
}

TEST(Socket, RemovedInItsOwnCallbackItIsNotCalledAgainAndReleasedByTheSamePass) {
    network_thread nt;
    const socket_pair pair;
    { listener warm_up(nt, pair.fds[0], nt_flag_read); }
    const auto held_blocks = [&nt] {
        size_t blocks = 0;
        nt.pass();
        nt.run([&blocks] { blocks = core_mem_blocks(); });
        return blocks;
    };
    const size_t held = held_blocks();
    listener reader(nt, pair.fds[0], nt_flag_read, [](listener& self) { net_nt_socket_rem(self.nt, self.socket); });
    pair.poke();
    ASSERT_TRUE(reader.calls.reaches(1));
    EXPECT_EQ(reader.socket, nullptr);
    EXPECT_EQ(held_blocks(), held);
    EXPECT_EQ(reader.calls.value(), 1);
}

TEST(Socket, RemovalWaitsForTheRunningCallback) {
    const network_thread nt;
    const socket_pair pair;
    counter entered, leave;
    std::atomic<bool> left = false;
    listener reader(nt, pair.fds[0], nt_flag_read, [&](listener&) {
        drain(pair.fds[0]);
        entered.add();
        leave.reaches(1);
        left = true;
    });
    pair.poke();
    ASSERT_TRUE(entered.reaches(1));
    std::thread remover([&] {
        net_nt_socket_rem(nt, reader.socket);
        EXPECT_TRUE(left);
    });
    EXPECT_EQ(reader.socket->flags, nt_flag_read);
    leave.add();
    remover.join();
    EXPECT_EQ(reader.calls.value(), 1);
}

TEST(Socket, SettingWhatIsWatchedDoesNotWakeTheLoopAndUnlockDoes) {
    bool woken = true;
    // On a machine that stalls the loop may not have come to its wait when the change is made.
    for (int attempt = 0; woken && attempt < 5; ++attempt) {
        network_thread nt;
        const socket_pair pair;
        listener reader(nt, pair.fds[0], 0, [&](listener&) { drain(pair.fds[0]); });
        pair.poke();
        nt.pass();
        net_nt_unlock(nt);  // after the pass that this brings the loop waits
        std::this_thread::sleep_for(20ms);
        net_nt_socket_set(nt, reader.socket, 1, 0);
        woken = reader.calls.reaches(1, 50ms);
        net_nt_unlock(nt);
        EXPECT_TRUE(reader.calls.reaches(1, less_than_a_wait));
    }
    EXPECT_FALSE(woken);
}

TEST(Socket, NothingOrderedWhileTheLoopStartsWaits) {
    const socket_pair pair;
    pair.poke();
    for (int round = 0; round < 100; ++round) {
        const network_thread nt;
        counter called;
        listener reader(nt, pair.fds[0], 0);
        net_nt_command(nt, reader.socket);
        command_ctx* command = net_nt_command_create(nt, &called, [](void* arg, command_ctx*) { counter::count(arg); });
        net_nt_command_exec(command);
        ASSERT_TRUE(reader.calls.reaches(1, less_than_a_wait));
        ASSERT_TRUE(called.reaches(1, less_than_a_wait));
        EXPECT_EQ(reader.seen, nt_event_signal);
    }
}

TEST(Socket, SignalsCoalesceAndCombineWithReadiness) {
    network_thread nt;
    const socket_pair pair;
    listener reader(nt, pair.fds[0], nt_flag_read, [&](listener&) { drain(pair.fds[0]); });
    nt.run([&] {
        for (int i = 0; i < 5; ++i)
            net_nt_command(nt, reader.socket);
        pair.poke();
        EXPECT_TRUE(test::await(pair.fds[0], test::watch::read));
    });
    ASSERT_TRUE(reader.calls.reaches(1));
    nt.pass();
    EXPECT_EQ(reader.seen, nt_event_read | nt_event_signal);
    EXPECT_EQ(reader.socket->signals, 0u);
}

TEST(Socket, ASignalFromACallbackReachesWhoWasServedBefore) {
    const network_thread nt;
    const socket_pair pair;
    listener first(nt, pair.fds[0], 0);
    listener second(nt, pair.fds[1], 0, [&](listener&) { net_nt_command(nt, first.socket); });
    net_nt_command(nt, second.socket);
    EXPECT_TRUE(first.calls.reaches(1, less_than_a_wait));
}

TEST(Socket, ADescriptorClosedTooEarlyDoesNotSpinTheLoop) {
    network_thread nt;
    socket_pair pair;
    listener reader(nt, pair.fds[0], nt_flag_read);
    nt.pass();
    test::log_lines log("error");
    const std::string fd = std::to_string(pair.fds[0]);
    net_socket_close(std::exchange(pair.fds[0], -1));
    nt.pass();
    nt.pass();
    const double before = test::processor_time();
    std::this_thread::sleep_for(100ms);
    EXPECT_LT(test::processor_time() - before, 0.05);
    EXPECT_EQ(log.take(),
              std::vector<std::string>{"network thread: socket " + fd + " was closed before it was removed"});
    EXPECT_LE(reader.calls.value(), 1) << "by Wine, whose wait ends with the socket's closing as if there were data";
}

TEST(Socket, MoreReadersThanFitTakeTurns) {
    constexpr int count = 600;
    std::vector<std::unique_ptr<test::udp_socket>> sockets;
    const network_thread nt;
    counter called;
    std::vector<std::unique_ptr<listener>> readers;
    for (int i = 0; i < count; ++i) {
        const int fd = *sockets.emplace_back(std::make_unique<test::udp_socket>());
        ASSERT_EQ(net_udp_listen(fd, "127.0.0.1", 0), 0);
        sockaddr_in to_itself = net_socket_near(fd);
        ASSERT_EQ(net_udp_send_msg(fd, "x", &to_itself), 1);
        readers.push_back(std::make_unique<listener>(nt, fd, nt_flag_read, [&](listener& self) {
            net_nt_socket_set(self.nt, self.socket, 0, 0);
            called.add();
        }));
    }
    EXPECT_TRUE(called.reaches(count, less_than_a_wait));
}

TEST(WatchSets, HoldAtMost512OfEachAndTheLaterCallDecides) {
    watch_sets sets;
    const socket_pair pair;
    const int readable = pair.fds[0];
    pair.poke();
    ASSERT_TRUE(test::await(readable, test::watch::read));
    const struct {
        const char* rule;
        std::vector<std::pair<bool, bool>> calls;
        uint8_t found;
    } cases[] = {
        {"reader", {{true, false}}, platform::watch_t::read},
        {"both", {{true, true}}, platform::watch_t::read | platform::watch_t::write},
        {"taken out", {{true, true}, {false, false}}, 0},
        {"one of two", {{true, false}, {false, true}}, platform::watch_t::write},
        {"never in", {{false, false}}, 0},
    };
    for (const auto& [rule, calls, found] : cases) {
        sets.clear();
        for (const auto& [read, write] : calls)
            sets.set(readable, read, write);
        EXPECT_EQ(sets.wait(0), found != 0) << rule;
        EXPECT_EQ(sets.found(readable), found) << rule;
    }

    // Descriptors that do not exist are found closed, which shows who is in.
    sets.clear();
    constexpr int none = 1 << 20;
    for (int i = 0; i < 600; ++i)
        sets.set(none + i, true, false);
    for (int i = 0; i < 600; ++i)
        sets.set(none + 1000 + i, false, true);
    sets.set(none + 511, false, false);
    sets.set(none + 1000, true, true);
    EXPECT_EQ(sets.wait(0), 1023);
    EXPECT_EQ(sets.found(none + 510), platform::watch_t::closed);
    EXPECT_EQ(sets.found(none + 511), 0);
    EXPECT_EQ(sets.found(none + 512), 0);
    EXPECT_EQ(sets.found(none + 1511), platform::watch_t::closed);
    EXPECT_EQ(sets.found(none + 1512), 0);
}

TEST(Stop, ReleasesEveryRecordDropsQueuedCallsAndLeavesSocketsOpen) {
    const socket_pair pair;
    network_thread nt;
    counter entered, leave, called;
    struct {
        counter &entered, &leave;
    } hold{entered, leave};
    net_nt_sync_call(nt, nullptr, &hold, [](void* arg) {
        auto* held = static_cast<decltype(hold)*>(arg);
        held->entered.add();
        held->leave.reaches(1);
    });
    ASSERT_TRUE(entered.reaches(1));
    socket_ctx* socket = nullptr;
    timer_ctx* timer = nullptr;
    net_nt_socket_add(nt, socket, pair.fds[0], nt_flag_read, nullptr, [](void*, uint32_t) {});
    net_nt_timer_set(nt, timer, 1, nullptr, [](void*, timer_ctx*) {});
    EXPECT_NE(net_nt_command_create(nt, nullptr, [](void*, command_ctx*) {}), nullptr);
    std::thread stopper([&] { net_nt_stop(nt.nt); });
    // What is queued after the stop began is not run; the call that holds the loop ends afterwards.
    while (!core_thread_iscancel(nt.nt->thread))
        std::this_thread::yield();
    net_nt_sync_call(nt, nullptr, &called, counter::count);
    leave.add();
    stopper.join();
    EXPECT_EQ(nt.nt, nullptr);
    EXPECT_EQ(called.value(), 0);
    EXPECT_TRUE(test::is_open(pair.fds[0]));
}

TEST(Stop, InACallbackDoesNotWaitForItself) {
    const socket_pair pair;
    const size_t held = core_mem_blocks();
    nt_ctx* nt = nullptr;
    net_nt_start(nt, CORE_HERE);
    counter stopped;
    struct {
        nt_ctx*& nt;
        counter& stopped;
    } call{nt, stopped};
    // Set off by a byte: a call that orders the stop would still be using the context when the loop releases it.
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, pair.fds[0], nt_flag_read, &call, [](void* arg, uint32_t) {
        auto* todo = static_cast<decltype(call)*>(arg);
        net_nt_stop(todo->nt);
        EXPECT_EQ(todo->nt, nullptr);
        todo->stopped.add();
    });
    pair.poke();
    ASSERT_TRUE(stopped.reaches(1));
    const auto patience = std::chrono::steady_clock::now() + 5s;
    while (core_mem_blocks() != held && std::chrono::steady_clock::now() < patience)
        std::this_thread::yield();
    EXPECT_EQ(core_mem_blocks(), held);
}

TEST(Arguments, NullsAreIgnored) {
    nt_ctx* none = nullptr;
    socket_ctx* socket = nullptr;
    timer_ctx* timer = nullptr;
    command_ctx* command = nullptr;
    net_nt_stop(none);
    net_nt_set_name(none, "%s", "x");
    net_nt_socket_add(none, socket, 3, 1, nullptr, [](void*, uint32_t) {});
    net_nt_timer_set(none, timer, 1, nullptr, [](void*, timer_ctx*) {});
    net_nt_command_set(none, command, nullptr, [](void*, command_ctx*) {});
    const network_thread nt;
    nt_ctx* same = nt;
    net_nt_start(same, CORE_HERE);
    EXPECT_EQ(same, nt.nt);
    net_nt_set_name(nt, nullptr);
    net_nt_socket_add(nt, socket, -1, 1, nullptr, [](void*, uint32_t) {});
    net_nt_socket_rem(nt, socket);
    net_nt_socket_set(nt, socket, 1, 1);
    net_nt_command(nt, socket);
    net_nt_timer_set(nt, timer, 0, nullptr, nullptr);
    net_nt_timer_set(nt, timer, 1, nullptr, nullptr);
    net_nt_command_set(nt, command, nullptr, nullptr);
    net_nt_command_destroy(command);
    net_nt_command_exec(command);
    net_nt_unlock(none);
    EXPECT_EQ(net_nt_command_create(nt, nullptr, nullptr), nullptr);
    EXPECT_EQ(net_nt_sync_call(nt, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(net_nt_need_invoke(none), 0);
    EXPECT_EQ(net_nt_need_invoke(nt), 1);
    EXPECT_TRUE(!socket && !timer && !command);
}

TEST(Memory, WhenItIsOutNothingIsRegisteredAndNothingHeld) {
    const socket_pair pair;
    pair.poke();
    const auto open_before = test::open_sockets();
    const size_t failed = test::fail_each_allocation([&] {
        const network_thread nt;
        if (!nt) return;
        counter read, called;
        socket_ctx* socket = nullptr;
        timer_ctx* timer = nullptr;
        net_nt_timer_set(nt, timer, 3600, nullptr, [](void*, timer_ctx*) {});
        command_ctx* command = net_nt_command_create(nt, nullptr, [](void*, command_ctx*) {});
        net_nt_command_exec(command);
        const bool queued = net_nt_sync_call(nt, nullptr, &called, counter::count);
        EXPECT_TRUE(!queued || called.reaches(1));
        net_nt_socket_add(nt, socket, pair.fds[0], nt_flag_read, &read,
                          [](void* arg, uint32_t) { counter::count(arg); });
        EXPECT_TRUE(!socket || read.reaches(1, less_than_a_wait))
            << "what the loop has no memory for is not left for a whole wait";
        net_nt_socket_rem(nt, socket);
    });
    EXPECT_GE(failed, 12u);
    EXPECT_EQ(test::open_sockets(), open_before);
}

}  // namespace
