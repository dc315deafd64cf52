// Timers, commands and calls of the network thread, and everything at once.
#include "support/log_lines.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "core/time.h"
#include "inet/net_thread.h"

#include <atomic>
#include <cassert>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace net;
using test::counter;
using test::less_than_a_wait;
using test::network_thread;

std::atomic<uint64_t> clock_us;

/// A clock that stands still until it is set.
struct test_clock {
    explicit test_clock(double seconds) {
        set(seconds);
        core_time_set_clock([] { return clock_us.load(); });
    }
    ~test_clock() { core_time_set_clock(nullptr); }
    test_clock(const test_clock&) = delete;
    test_clock& operator=(const test_clock&) = delete;
    static void set(double seconds) { clock_us = static_cast<uint64_t>(seconds * 1'000'000); }
};

/// A timer or command that counts, and does `then` in its callback.
template <class Handle>
struct task {
    static void run(void* arg, Handle* handle) {
        auto* self = static_cast<task*>(arg);
        EXPECT_EQ(handle, self->handle);
        if (self->then) self->then(*self);
        self->calls.add();
    }

    Handle* handle = nullptr;
    std::function<void(task&)> then;
    counter calls;
};
using timer_task = task<timer_ctx>;
using command_task = task<command_ctx>;

TEST(Timer, NeverFiresEarlyNorASecondLate) {
    for (const double start : {1000.0, 1000.1, 1000.5, 1000.999}) {
        const test_clock clock(start);
        network_thread nt;
        timer_task timer;
        net_nt_timer_set(nt, timer.handle, 3, &timer, timer_task::run);
        test_clock::set(start + 2.999);
        net_nt_unlock(nt);
        nt.pass();
        EXPECT_EQ(timer.calls.value(), 0) << start;
        test_clock::set(start + 4);
        net_nt_unlock(nt);
        EXPECT_TRUE(timer.calls.reaches(1)) << start;
        nt.pass();
        EXPECT_EQ(timer.calls.value(), 1) << start;
    }
}

TEST(Timer, SetToAnEarlierTimeItWakesTheWaitingLoopAndFiresByItself) {
    network_thread nt;
    timer_task timer;
    net_nt_timer_set(nt, timer.handle, 3600, &timer, timer_task::run);
    nt.pass();
    const uint64_t start = core_timer();
    net_nt_timer_set(nt, timer.handle, 1, &timer, timer_task::run);
    ASSERT_TRUE(timer.calls.reaches(1));
    const uint64_t passed = core_timer() - start;
    EXPECT_GE(passed, 1'000'000u);
    EXPECT_LT(passed, 4'500'000u) << "two seconds, and what a busy machine adds, but less than a whole wait";
    net_nt_timer_set(nt, timer.handle, 0, nullptr, nullptr);
    EXPECT_EQ(timer.handle, nullptr);
}

TEST(Timer, FiresOncePerPassUntilItHasCaughtUp) {
    const test_clock clock(50);
    network_thread nt;
    std::string order;
    timer_task a, b;
    a.then = [&](timer_task&) { order += 'a'; };
    b.then = [&](timer_task&) { order += 'b'; };
    nt.run([&] {
        net_nt_timer_set(nt, a.handle, 1, &a, timer_task::run);
        net_nt_timer_set(nt, b.handle, 2, &b, timer_task::run);
    });
    test_clock::set(54);
    net_nt_unlock(nt);
    ASSERT_TRUE(a.calls.reaches(4));
    nt.pass();
    EXPECT_EQ(order, "ababaa");
    EXPECT_EQ(a.handle->due, 55);
}

TEST(Timer, MayBeDisarmedAndSetAnewInItsOwnCallback) {
    const test_clock clock(50);
    network_thread nt;
    timer_task ending, renewed;
    ending.then = [&](timer_task& self) {
        net_nt_timer_set(nt, self.handle, 0, nullptr, nullptr);
        EXPECT_EQ(self.handle, nullptr);
    };
    renewed.then = [&](timer_task& self) { net_nt_timer_set(nt, self.handle, 3, &self, timer_task::run); };
    nt.run([&] {
        net_nt_timer_set(nt, ending.handle, 1, &ending, timer_task::run);
        net_nt_timer_set(nt, renewed.handle, 1, &renewed, timer_task::run);
    });
    test_clock::set(51);
    net_nt_unlock(nt);
    ASSERT_TRUE(renewed.calls.reaches(1));
    nt.pass();
    EXPECT_EQ(renewed.handle->due, 54);
    test_clock::set(60);
    net_nt_unlock(nt);
    ASSERT_TRUE(renewed.calls.reaches(2));
    EXPECT_EQ(ending.calls.value(), 1);
}

TEST(Command, OrdersCoalesceAndThoseOfItsOwnCallbackAreNotDelivered) {
    network_thread nt;
    command_task command;
    command.then = [](command_task& self) { net_nt_command_exec(self.handle); };
    command.handle = net_nt_command_create(nt, &command, command_task::run);
    nt.run([&] {
        for (int i = 0; i < 5; ++i)
            net_nt_command_exec(command.handle);
    });
    ASSERT_TRUE(command.calls.reaches(1));
    nt.pass();
    nt.pass();
    EXPECT_EQ(command.calls.value(), 1);
    net_nt_command_destroy(command.handle);
}

TEST(Command, CanBeChangedAndDestroyed) {
    network_thread nt;
    command_task first, second;
    command_ctx* command = nullptr;
    net_nt_command_set(nt, command, &first, command_task::run);
    first.handle = second.handle = command;
    net_nt_command_exec(command);
    ASSERT_TRUE(first.calls.reaches(1));
    net_nt_command_set(nt, command, &second, command_task::run);
    EXPECT_EQ(command, first.handle);
    second.then = [](command_task& self) { net_nt_command_destroy(self.handle); };
    net_nt_command_exec(command);
    ASSERT_TRUE(second.calls.reaches(1));
    nt.pass();
    command = net_nt_command_create(nt, &first, command_task::run);
    net_nt_command_set(nt, command, nullptr, nullptr);
    EXPECT_EQ(command, nullptr);
    EXPECT_EQ(first.calls.value(), 1);
}

TEST(Command, ComesAtItsTimeAndNotBefore) {
    const test_clock clock(50);
    network_thread nt;
    command_task command;
    command.then = [](command_task& self) {
        if (self.calls.value() == 0) net_nt_command_at(self.handle, 52'000'000);
    };
    command.handle = net_nt_command_create(nt, &command, command_task::run);
    net_nt_command_at(command.handle, 50'000'000 + 1);
    nt.pass();
    EXPECT_EQ(command.calls.value(), 0);
    // Taken back, then set anew.
    net_nt_command_at(command.handle, 0);
    test_clock::set(51);
    nt.pass();
    EXPECT_EQ(command.calls.value(), 0);
    net_nt_command_at(command.handle, 51'000'000);
    ASSERT_TRUE(command.calls.reaches(1));
    nt.pass();
    EXPECT_EQ(command.calls.value(), 1) << "the next one was set for later";
    test_clock::set(52);
    net_nt_unlock(nt);
    ASSERT_TRUE(command.calls.reaches(2));
    net_nt_command_destroy(command.handle);
}

// By the wait's own end: nobody wakes the loop, and a second is what timers would take at least.
TEST(Command, PacesTheLoopByItself) {
    network_thread nt;
    command_task command;
    const uint64_t start = core_timer();
    command.then = [start](command_task& self) {
        const auto step = static_cast<uint64_t>(self.calls.value()) + 1;
        EXPECT_GE(core_timer(), start + step * 3000);
        if (step < 10) net_nt_command_at(self.handle, start + (step + 1) * 3000);
    };
    command.handle = net_nt_command_create(nt, &command, command_task::run);
    net_nt_command_at(command.handle, start + 3000);
    ASSERT_TRUE(command.calls.reaches(10));
    EXPECT_LT(core_timer() - start, 4'000'000U);
    net_nt_command_destroy(command.handle);
}

// A command that is ordered on the loop is called just before the next wait.
TEST(Command, WhatItsCallbackOrdersIsDoneBeforeTheLoopWaits) {
    network_thread nt;
    int fds[2] = {-1, -1};
    ASSERT_EQ(net_socket_pair(2, 1, 6, fds, CORE_HERE), 0);
    const test::tcp_socket here(fds[0]), there(fds[1]);
    const auto count_event = [](void* arg, uint32_t) { counter::count(arg); };
    // Several rounds: a wake that is still under way would cover for one.
    for (int round = 0; round < 5; ++round) {
        counter called, added, signalled;
        socket_ctx *first = nullptr, *second = nullptr;
        net_nt_socket_add(nt, first, here, 0, &signalled, count_event);
        command_task command;
        command.handle = net_nt_command_create(nt, &command, command_task::run);
        command.then = [&](command_task&) {
            net_nt_sync_call(nt, nullptr, &called, counter::count);
            net_nt_command(nt, first);
            net_nt_socket_add(nt, second, there, nt_flag_write, &added, count_event);
        };
        nt.pass();
        nt.run([&] { net_nt_command_exec(command.handle); });
        EXPECT_TRUE(called.reaches(1, less_than_a_wait));
        EXPECT_TRUE(signalled.reaches(1, less_than_a_wait));
        EXPECT_TRUE(added.reaches(1, less_than_a_wait));
        net_nt_socket_rem(nt, first);
        net_nt_socket_rem(nt, second);
        net_nt_command_destroy(command.handle);
    }
}

TEST(Calls, RunInOrderAndOneThatQueuesItselfLetsTheLoopGoOn) {
    network_thread nt;
    struct chain {
        nt_ctx* nt;
        counter calls;
        static void run(void* arg) {
            auto* self = static_cast<chain*>(arg);
            self->calls.add();
            if (self->calls.value() < 100) net_nt_sync_call(self->nt, nullptr, self, run);
        }
    } chain{nt, {}};
    timer_task timer;
    net_nt_sync_call(nt, nullptr, &chain, chain::run);
    EXPECT_TRUE(chain.calls.reaches(100, less_than_a_wait)) << "without waiting in between";

    std::vector<int> order;
    struct entry {
        std::vector<int>& order;
        int number;
    };
    std::vector<entry> entries;
    entries.reserve(20);
    for (int i = 0; i < 20; ++i)
        entries.push_back({order, i});
    for (auto& one : entries) {
        net_nt_sync_call(nt, nullptr, &one, [](void* arg) {
            const auto* self = static_cast<entry*>(arg);
            self->order.push_back(self->number);
        });
    }
    nt.pass();
    EXPECT_EQ(order.size(), 20u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(Debug, ACallbackThatHoldsTheLoopIsNamed) {
    bool debug = false;
    assert((debug = true));
    if (!debug) GTEST_SKIP() << "release builds do not measure";
    const test_clock clock(50);
    network_thread nt;
    test::log_lines log("error");
    nt.run([] { test_clock::set(50.5); });
    nt.run([] { test_clock::set(51.1); });
    nt.pass();
    EXPECT_EQ(log.take(), std::vector<std::string>{"network thread: a queued callback held the loop for 600 ms"});
}

TEST(Thread, RunsWhatIsPostedOnItsOwnThreadAndMissesNothing) {
    net::Thread thread;
    thread.start();
    nt_ctx* const nt = thread.nt;
    ASSERT_NE(thread.command, nullptr);
    thread.start();
    EXPECT_EQ(thread.nt, nt);
    struct {
        net::Thread& thread;
        counter calls;
    } work{thread, {}};
    constexpr int poster_count = 4, posts = 500;
    std::thread posters[poster_count];
    for (auto& poster : posters) {
        poster = std::thread([&] {
            for (int post = 0; post < posts; ++post) {
                core_cmd_exec(
                    thread.queue,
                    [](void* owner, void* arg) {
                        auto* todo = static_cast<decltype(work)*>(arg);
                        EXPECT_EQ(owner, &todo->thread);
                        EXPECT_EQ(net_nt_need_invoke(todo->thread.nt), 0);
                        todo->calls.add();
                    },
                    &work);
                net_nt_command_exec(thread.command);
            }
        });
    }
    for (auto& poster : posters)
        poster.join();
    EXPECT_TRUE(work.calls.reaches(poster_count * posts, less_than_a_wait));
    thread.stop();
    EXPECT_TRUE(!thread.nt && !thread.command);
    thread.start();
    EXPECT_NE(thread.nt, nullptr);
}

// Every kind of record is made, changed, signalled and removed by several threads while the loop serves it.
TEST(Stress, RecordsComeAndGoWhileTheLoopRuns) {
    network_thread nt;
    std::atomic<uint64_t> commands = 0;
    const auto worker = [&](unsigned seed) {
        std::minstd_rand random(seed);
        int fds[2] = {-1, -1};
        ASSERT_EQ(net_socket_pair(2, 1, 6, fds, CORE_HERE), 0);
        const test::tcp_socket here(fds[0]), there(fds[1]);
        socket_options(here);
        socket_options(there);
        struct {
            int fd;
            counter served;
        } mine{here, {}};
        for (int round = 0; round < 200; ++round) {
            socket_ctx* socket = nullptr;
            timer_ctx* timer = nullptr;
            command_ctx* command = nullptr;
            net_nt_socket_add(nt, socket, here, nt_flag_read, &mine, [](void* arg, uint32_t) {
                auto* self = static_cast<decltype(mine)*>(arg);
                test::drain(self->fd);
                self->served.add();
            });
            for (int step = 0; step < 8; ++step) {
                switch (random() % 7) {
                    case 0:
                        net_nt_command(nt, socket);
                        break;
                    case 1:
                        net_nt_socket_set(nt, socket, 1, random() % 2 == 0);
                        break;
                    case 2:
                        net_udp_send_msg(there, "ping", nullptr);
                        break;
                    case 3:
                        net_nt_timer_set(nt, timer, static_cast<int>(random() % 3), &commands,
                                         [](void*, timer_ctx*) {});
                        break;
                    case 4:
                        net_nt_command_set(nt, command, &commands, [](void* arg, command_ctx*) {
                            ++*static_cast<std::atomic<uint64_t>*>(arg);
                        });
                        net_nt_command_exec(command);
                        break;
                    case 5:
                        net_nt_sync_call(nt, socket, nullptr, [](void*) {});
                        break;
                    default:
                        net_nt_unlock(nt);
                }
            }
            // Every other round goes on once the loop has met the record.
            const int served = mine.served.value();
            net_nt_command(nt, socket);
            EXPECT_TRUE(round % 2 || mine.served.reaches(served + 1));
            net_nt_socket_rem(nt, socket);
            net_nt_timer_set(nt, timer, 0, nullptr, nullptr);
            net_nt_command_set(nt, command, nullptr, nullptr);
        }
    };
    std::vector<std::thread> workers;
    for (unsigned seed = 1; seed <= 4; ++seed)
        workers.emplace_back(worker, seed);
    for (auto& thread : workers)
        thread.join();
    EXPECT_GT(commands, 0u);
}

}  // namespace
