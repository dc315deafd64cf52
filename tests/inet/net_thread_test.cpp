#include "inet/net_thread.h"

#include "net_thread/loop.h"
#include "support/network_thread.h"
#include "support/sockets.h"
#include "support/threads.h"

#include "core/time.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace net;
using test::callback;
using test::network_thread;
using test::socket_pair;

/// A clock that stands still until it is set.
struct test_clock {
    test_clock() {
        core_time_set_clock([] { return us.load(); });
    }
    ~test_clock() { core_time_set_clock(nullptr); }
    static void set(double seconds) { us = static_cast<uint64_t>(seconds * 1'000'000); }

    static inline std::atomic<uint64_t> us = 0;
};

/// A network thread at 50.5 seconds, with records that nothing but an order calls.
struct scene {
    scene() {
        test_clock::set(50.5);
        pair.poke();
        net_nt_socket_add(nt, quiet, pair.here, 0, &called, callback::run);
        net_nt_socket_add(nt, later, pair.there, 0, &giving, callback::run);
        net_nt_timer_set(nt, timer, 3600, &called, callback::run);
        command = net_nt_command_create(nt, &called, callback::run);
        giver = net_nt_command_create(nt, &giving, callback::run);
    }

    const test_clock clock;
    socket_pair pair;
    callback called, giving;
    network_thread nt;
    socket_ctx *quiet = nullptr, *later = nullptr, *added = nullptr;
    timer_ctx* timer = nullptr;
    command_ctx *command = nullptr, *giver = nullptr;
};

// A second call shows what is left when the first did nothing about it; the last removes the socket.
TEST(Socket, EachKindOfReadinessHasItsEvent) {
    const socket_pair pair;
    const test::tcp_socket accepting, client, refused;
    pair.poke();
    ASSERT_EQ(net_tcp_listen(accepting, "127.0.0.1", 0), 0);
    ASSERT_EQ(net_tcp_connect(client, "127.0.0.1", net_socket_get_near_port(accepting)), 0);
    ASSERT_EQ(net_tcp_connect(refused, "127.0.0.1", test::free_port()), 0);
    const struct {
        int fd, flags, signals;
        std::vector<uint32_t> events;
    } cases[] = {
        {pair.here, nt_flag_read, 3, {nt_event_read | nt_event_signal, nt_event_read}},
        {pair.here, nt_flag_read | nt_flag_write, 0, {nt_event_read | nt_event_write}},
        {accepting, nt_flag_listening, 0, {nt_event_accept, nt_event_accept}},
        {client, nt_flag_connecting | nt_flag_write, 0, {nt_event_connected, nt_event_write}},
        {refused, nt_flag_connecting, 0, {nt_event_connected}},
    };
    const network_thread nt;
    for (const auto& [fd, flags, signals, events] : cases) {
        socket_ctx* socket = nullptr;
        callback called;
        called.then = [&, last = events.size()] {
            if (called.events.size() == last) net_nt_socket_rem(nt, socket);
        };
        nt.run([&, fd = fd, flags = flags, signals = signals] {
            net_nt_socket_add(nt, socket, fd, flags & ~3, &called, callback::run);
            net_nt_socket_set(nt, socket, flags & nt_flag_read, flags & nt_flag_write);
            for (int i = 0; i < signals; ++i)
                net_nt_command(nt, socket);
        });
        ASSERT_TRUE(called.reaches(static_cast<int>(events.size())));
        nt.pass();
        EXPECT_EQ(called.events, events) << flags;
        nt.run([&] { EXPECT_TRUE(nt.nt->sockets.empty()); });
    }
}

TEST(Socket, WithoutAThreadNothingIsDone) {
    socket_ctx record, *handle = &record;
    net_nt_socket_add(nullptr, handle, 5, nt_flag_read, nullptr, callback::run);
    EXPECT_EQ(handle, &record);
}

TEST(Socket, RemovedByAnotherCallbackItIsNotCalledThoughItIsReady) {
    scene s;
    s.called.then = s.giving.then = [&] { net_nt_socket_rem(s.nt, s.quiet), net_nt_socket_rem(s.nt, s.later); };
    s.nt.run([&] { net_nt_socket_set(s.nt, s.quiet, 0, 1), net_nt_socket_set(s.nt, s.later, 0, 1); });
    s.nt.pass();
    EXPECT_EQ(s.called.runs() + s.giving.runs(), 1);
}

TEST(WatchSets, HoldAtMost512OfEachAndTheLaterCallDecides) {
    watch_sets sets;
    // Descriptors that do not exist are found closed, which shows who is in.
    constexpr int none = 1 << 20;
    for (int i = 0; i < 600; ++i)
        sets.set(none + i, true, false);
    sets.set(none + 511, false, false);
    sets.set(none + 512, true, false);
    for (int i = 600; i < 1200; ++i)
        sets.set(none + i, false, true);
    EXPECT_EQ(sets.wait(0), 1024);
    for (const auto& [i, in] :
         {std::pair(510, true), {511, false}, {512, true}, {513, false}, {1111, true}, {1112, false}})
        EXPECT_EQ(sets.found(none + i), in ? test::watch::closed : 0) << i;
}

TEST(Loop, LeavesNothingThatIsOrderedForAWholeWait) {
    const std::pair<const char*, void (*)(scene&)> orders[] = {
        {"call", [](scene& s) { net_nt_sync_call(s.nt, nullptr, &s.called, callback::run); }},
        {"signal", [](scene& s) { net_nt_command(s.nt, s.quiet); }},
        {"socket", [](scene& s) { net_nt_socket_add(s.nt, s.added, s.pair.there, 2, &s.called, callback::run); }},
        {"timer", [](scene& s) { net_nt_timer_set(s.nt, s.timer, 1, &s.called, callback::run), test_clock::set(99); }},
        {"command", [](scene& s) { net_nt_command_exec(s.command); }},
        {"its time", [](scene& s) { net_nt_command_at(s.command, 1); }},
        {"wake", [](scene& s) { net_nt_socket_set(s.nt, s.quiet, 1, 0), net_nt_unlock(s.nt); }},
    };
    const std::pair<const char*, void (*)(scene&)> moments[] = {
        {"while it starts", [](scene& s) { s.giving.then(); }},
        {"while it waits",
         [](scene& s) { s.nt.pass(), core_sleep(1), s.giving.then(); }},  // nothing tells that it does
        {"in a call", [](scene& s) { net_nt_sync_call(s.nt, nullptr, &s.giving, callback::run); }},
        {"when the socket was served", [](scene& s) { net_nt_command(s.nt, s.later); }},
        {"just before it waits", [](scene& s) { s.nt.pass(), s.nt.run([&] { net_nt_command_exec(s.giver); }); }},
    };
    // Several rounds: a wake that is still under way would cover for one.
    for (int round = 0; round < 10; ++round) {
        for (const auto& [what, order] : orders) {
            for (const auto& [when, begin] : moments) {
                scene s;
                s.giving.then = [&, give = order] { give(s); };
                begin(s);
                ASSERT_TRUE(s.called.reaches(1)) << what << ' ' << when;
            }
        }
    }
}

TEST(Loop, EndingARecordWaitsForItsRunningCallback) {
    const std::pair<void (*)(scene&), void (*)(scene&)> records[] = {
        {[](scene& s) { net_nt_command(s.nt, s.quiet); }, [](scene& s) { net_nt_socket_rem(s.nt, s.quiet); }},
        {[](scene& s) { net_nt_command_exec(s.command); }, [](scene& s) { net_nt_command_destroy(s.command); }},
        {[](scene& s) { test_clock::set(3700), net_nt_unlock(s.nt); },
         [](scene& s) { net_nt_timer_set(s.nt, s.timer, 0, nullptr, nullptr); }},
    };
    callback entered;
    std::atomic<bool> left = false;
    scene s;
    s.called.then = [&] {
        callback::run(&entered);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        left = true;
    };
    for (int runs = 1; const auto& [begin, end] : records) {
        begin(s);
        ASSERT_TRUE(entered.reaches(runs));
        end(s);
        EXPECT_TRUE(left.exchange(false)) << runs;
        s.nt.pass();
        EXPECT_EQ(s.called.runs(), runs++) << "it is not called again";
    }
    s.nt.run([&, nt = s.nt.nt] { EXPECT_EQ(nt->sockets.size() + nt->timers.size() + nt->commands.size(), 2U); });
}

TEST(Stop, ReleasesEveryRecordDropsQueuedCallsAndLeavesSocketsOpen) {
    scene s;
    callback entered, leave;
    s.giving.then = [&] { callback::run(&entered), leave.reaches(1); };
    net_nt_sync_call(s.nt, nullptr, &s.giving, callback::run);
    ASSERT_TRUE(entered.reaches(1));
    net_nt_socket_add(s.nt, s.added, s.pair.here, nt_flag_read, &s.called, callback::run);
    nt_ctx* const stopped = s.nt;
    {
        const std::jthread stopper([&] { net_nt_stop(s.nt.nt); });
        // What is queued after the stop began is not run; the call that holds the loop ends afterwards.
        while (!core_thread_iscancel(stopped->thread))
            std::this_thread::yield();
        net_nt_sync_call(stopped, nullptr, &s.called, callback::run);
        callback::run(&leave);
    }
    EXPECT_EQ(s.called.runs(), 0);
    EXPECT_EQ(net_udp_send_msg(s.pair.here, "x", nullptr), 1);
}

TEST(Stop, InACallbackDoesNotWaitForItself) {
    const socket_pair pair;
    const size_t held = core_mem_blocks();
    network_thread nt;
    callback stopping([&] { net_nt_stop(nt.nt); });
    // Set off by a byte: a call that orders the stop would still be using the context when the loop releases it.
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, pair.here, nt_flag_read, &stopping, callback::run);
    pair.poke();
    ASSERT_TRUE(stopping.reaches(1));
    EXPECT_EQ(nt.nt, nullptr);
    while (core_mem_blocks() != held)
        std::this_thread::yield();
}

TEST(Timer, FiresNeverEarlyAndOncePerPassUntilItHasCaughtUpUnlessItsCallbackSetsIt) {
    std::string order;
    timer_ctx *a = nullptr, *b = nullptr, *ending = nullptr, *renewed = nullptr;
    callback fire_a([&] { order += 'a'; }), fire_b([&] { order += 'b'; }), end, renew;
    scene s;
    end.then = [&] { order += 'e', net_nt_timer_set(s.nt, ending, 0, nullptr, nullptr); };
    renew.then = [&] { order += 'r', net_nt_timer_set(s.nt, renewed, 3, &renew, callback::run); };
    net_nt_timer_set(s.nt, a, 1, &fire_a, callback::run);
    net_nt_timer_set(s.nt, b, 2, &fire_b, callback::run);
    net_nt_timer_set(s.nt, ending, 1, &end, callback::run);
    net_nt_timer_set(s.nt, renewed, 1, &renew, callback::run);
    test_clock::set(51.9);
    s.nt.pass();
    EXPECT_EQ(order, "");
    test_clock::set(55);
    EXPECT_TRUE(fire_a.reaches(4));
    s.nt.pass();
    EXPECT_EQ(order, "aberabaa");
    EXPECT_TRUE(a->due == 56 && renewed->due == 58 && !ending);
}

TEST(Command, OrdersCoalesceThoseOfItsCallbackAreNotDeliveredAndItCanBeChanged) {
    scene s;
    s.called.then = [&] { net_nt_command_exec(s.command); };
    s.giving.then = [&] { net_nt_command_destroy(s.command); };
    s.nt.run([&] { net_nt_command_exec(s.command), net_nt_command_exec(s.command); });
    s.nt.pass();
    net_nt_command_set(s.nt, s.command, &s.giving, callback::run);
    net_nt_command_exec(s.command);
    EXPECT_TRUE(s.giving.reaches(1));
    EXPECT_EQ(s.called.runs(), 1);
    s.nt.pass();
    s.nt.run([&] { EXPECT_EQ(s.nt.nt->commands.size(), 1U) << "destroyed in its callback"; });
}

TEST(Command, ComesAtItsTimeAndNotBefore) {
    scene s;
    s.called.then = [&] { net_nt_command_at(s.command, s.called.runs() == 0 ? 53'000'000 : 0); };
    const struct {
        const char* why;
        double now;
        uint64_t set;
        int runs;
    } steps[] = {{"not yet", 50.5, 50'500'001, 0},         {"taken back", 51, 0, 0},  {"set anew", 51, 51'000'000, 1},
                 {"a replaced time", 51.5, 53'000'000, 1}, {"it", 53, 53'000'000, 2}, {"once", 54, 0, 2},
                 {"the farthest", 54, UINT64_MAX, 2}};
    for (const auto& [why, now, set, runs] : steps) {
        net_nt_command_at(s.command, set);
        test_clock::set(now);
        s.nt.pass();
        EXPECT_EQ(s.called.runs(), runs) << why;
    }
}

// Each call is posted as soon as the one before it has run, which is when the queue may have been looked at already.
TEST(Thread, RunsWhatIsPostedOnItsOwnThreadAndMissesNothing) {
    net::Thread thread;
    callback called([&] { EXPECT_EQ(net_nt_need_invoke(thread.nt), 0); });
    thread.start();
    const auto call = [](void*, void* arg) { callback::run(arg); };
    thread.stop();
    core_cmd_exec(thread.queue, call, &called);
    thread.start();
    ASSERT_TRUE(called.reaches(1)) << "posted while it was stopped";
    for (int posts = 2; posts <= 5000; ++posts) {
        core_cmd_exec(thread.queue, call, &called);
        net_nt_command_exec(thread.command);
        ASSERT_TRUE(called.reaches(posts));
    }
}

// Every kind of record is made, changed, signalled and removed by several threads while the loop serves it.
TEST(Stress, RecordsComeAndGoWhileTheLoopRuns) {
    std::atomic<unsigned> seeds = 0;
    callback counted;
    const network_thread nt;
    test::on_four_threads([&] {
        std::minstd_rand random(++seeds);
        const socket_pair pair;
        callback served([&] { test::drain(pair.here); });
        socket_ctx* socket = nullptr;
        timer_ctx* timer = nullptr;
        command_ctx* command = nullptr;
        const std::function<void()> steps[] = {
            [&] { pair.poke(); },
            [&] { net_nt_command(nt, socket); },
            [&] { net_nt_socket_set(nt, socket, 1, random() % 2 == 0); },
            [&] { net_nt_timer_set(nt, timer, static_cast<int>(random() % 3), &counted, callback::run); },
            [&] { net_nt_command_set(nt, command, &counted, callback::run); },
            [&] { net_nt_command_exec(command); },
            [&] { net_nt_sync_call(nt, socket, &counted, callback::run); },
        };
        for (int round = 0; round < 200; ++round) {
            net_nt_socket_add(nt, socket, pair.here, nt_flag_read, &served, callback::run);
            for (int step = 0; step < 10; ++step)
                steps[random() % std::size(steps)]();
            // Every other round goes on once the loop has met the record.
            const int before = served.runs();
            net_nt_command(nt, socket);
            EXPECT_TRUE(round % 2 || served.reaches(before + 1));
            net_nt_socket_rem(nt, socket);
            net_nt_timer_set(nt, timer, 0, nullptr, nullptr);
            net_nt_command_set(nt, command, nullptr, nullptr);
        }
    });
}

}  // namespace
