#include "inet/net_thread.h"

#include "net_thread/loop.h"
#include "support/log_lines.h"
#include "support/network_thread.h"
#include "support/sockets.h"

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
using namespace std::chrono_literals;
using test::callback;
using test::less_than_a_wait;
using test::network_thread;
using test::socket_pair;

/// A clock that stands still until it is set.
struct test_clock {
    explicit test_clock(double seconds) {
        set(seconds);
        core_time_set_clock([] { return ++asked, us.load(); });
    }
    ~test_clock() { core_time_set_clock(nullptr); }
    static void set(double seconds) { us = static_cast<uint64_t>(seconds * 1'000'000); }

    static inline std::atomic<uint64_t> us = 0;
    static inline std::atomic<int> asked = 0;
};

/// The clock comes to a time, and the loop takes note of it.
void come_to(double seconds, const network_thread& nt) {
    test_clock::set(seconds);
    net_nt_unlock(nt);
    nt.pass();
}

// A second call shows what is left when the first did nothing about it; the last removes the socket.
TEST(Socket, EachKindOfReadinessHasItsEvent) {
    const socket_pair pair;
    socket_pair ended, reset;
    const test::tcp_socket accepting, client, refused;
    pair.poke();
    ended.there.close();
    net_udp_send_msg(reset.here, "unread", nullptr);
    EXPECT_TRUE(test::await(reset.there, test::watch::read));
    reset.there.close();
    ASSERT_EQ(net_tcp_listen(accepting, "127.0.0.1", 0), 0);
    ASSERT_EQ(net_tcp_connect(client, "127.0.0.1", net_socket_get_near_port(accepting)), 0);
    ASSERT_EQ(net_tcp_connect(refused, "127.0.0.1", test::free_port()), 0);
    const struct {
        const char* what;
        int fd, flags;
        std::vector<uint32_t> events;
        int signals = 0;
    } cases[] = {
        {"bytes", pair.here, nt_flag_read, {nt_event_read, nt_event_read}},
        {"signals, told as one", pair.here, nt_flag_read, {nt_event_read | nt_event_signal, nt_event_read}, 3},
        {"both", pair.here, nt_flag_read | nt_flag_write, {nt_event_read | nt_event_write}},
        {"hang-up", ended.here, nt_flag_read, {nt_event_read}},
        {"reset", reset.here, nt_flag_read, {nt_event_read}},
        {"connection", accepting, nt_flag_listening, {nt_event_accept, nt_event_accept}},
        {"connected", client, nt_flag_connecting | nt_flag_write, {nt_event_connected, nt_event_write}},
        {"refused", refused, nt_flag_connecting, {nt_event_connected}},
    };
    const network_thread nt;
    for (const auto& [what, fd, flags, events, signals] : cases) {
        SCOPED_TRACE(what);
        socket_ctx* socket = nullptr;
        callback called;
        called.then = [&, last = events.size()] {
            EXPECT_EQ(net_nt_need_invoke(nt), 0);
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
        EXPECT_EQ(called.events, events);
        nt.run([&] { EXPECT_TRUE(nt.nt->sockets.empty()) << "it is released"; });
    }
    EXPECT_EQ(net_socket_get_error(refused), socket_error_refused);
}

TEST(Socket, RemovedByAnotherCallbackItIsNotCalledThoughItIsReady) {
    const socket_pair pair;
    socket_ctx *first = nullptr, *second = nullptr;
    const network_thread nt;
    callback dropped, dropping([&] { net_nt_socket_rem(nt, second), net_nt_socket_rem(nt, first); });
    nt.run([&] {
        net_nt_socket_add(nt, first, pair.here, nt_flag_write, &dropping, callback::run);
        net_nt_socket_add(nt, second, pair.there, nt_flag_write, &dropped, callback::run);
    });
    EXPECT_TRUE(dropping.reaches(1));
    nt.pass();
    EXPECT_EQ(dropping.runs() + dropped.runs(), 1);
}

TEST(Socket, ClosedTooEarlyItIsNamedOnceAndNotWatched) {
    const test_clock clock(50);
    socket_pair pair;
    callback reader;
    const network_thread nt;
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, pair.here, nt_flag_read, &reader, callback::run);
    nt.pass();
    test::log_lines log("error");
    const int fd = pair.here;
    pair.here.close();
    nt.pass();
    nt.pass();
    const int asked = test_clock::asked;
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(test_clock::asked - asked, 20) << "every pass asks a few times, and one was still under way";
    EXPECT_EQ(log.take(), std::vector<std::string>{"network thread: socket " + std::to_string(fd) +
                                                   " was closed before it was removed"});
    EXPECT_LE(reader.runs(), 1) << "by Wine, whose wait ends with the socket's closing as if there were data";
}

TEST(WatchSets, HoldAtMost512OfEachAndTheLaterCallDecides) {
    watch_sets sets;
    const socket_pair pair;
    pair.poke();
    ASSERT_TRUE(test::await(pair.here, test::watch::read));
    for (const int found : {3, 1, 2, 0}) {
        sets.set(pair.here, found & platform::watch_t::read, found & platform::watch_t::write);
        EXPECT_EQ(sets.wait(0), found != 0);
        EXPECT_EQ(sets.found(pair.here), found);
    }

    // Descriptors that do not exist are found closed, which shows who is in.
    sets.clear();
    constexpr int none = 1 << 20;
    for (int i = 0; i < 600; ++i)
        sets.set(none + i, true, false);
    sets.set(none + 511, false, false);
    sets.set(none + 512, true, false);
    for (int i = 600; i < 1200; ++i)
        sets.set(none + i, false, true);
    EXPECT_EQ(sets.wait(0), 1023);
    for (const auto& [i, in] : {std::pair(510, true), {511, false}, {512, true}, {513, false}, {1110, true}})
        EXPECT_EQ(sets.found(none + i), in ? platform::watch_t::closed : 0) << i;
}

/// A network thread with records that nothing but an order calls.
struct scene {
    scene() {
        pair.poke();
        net_nt_socket_add(nt, quiet, pair.here, 0, &called, callback::run);
        net_nt_socket_add(nt, later, pair.there, 0, &giving, callback::run);
        command = net_nt_command_create(nt, &called, callback::run);
        giver = net_nt_command_create(nt, &giving, callback::run);
    }

    socket_pair pair;
    callback called, giving;
    const network_thread nt;
    socket_ctx *quiet = nullptr, *later = nullptr, *added = nullptr;
    command_ctx *command = nullptr, *giver = nullptr;
};

TEST(Loop, LeavesNothingThatIsOrderedForAWholeWait) {
    const std::pair<const char*, void (*)(scene&)> orders[] = {
        {"call", [](scene& s) { net_nt_sync_call(s.nt, nullptr, &s.called, callback::run); }},
        {"signal", [](scene& s) { net_nt_command(s.nt, s.quiet); }},
        {"socket", [](scene& s) { net_nt_socket_add(s.nt, s.added, s.pair.there, 2, &s.called, callback::run); }},
        {"command", [](scene& s) { net_nt_command_exec(s.command); }},
        {"its time", [](scene& s) { net_nt_command_at(s.command, 1); }},
        {"wake", [](scene& s) { net_nt_socket_set(s.nt, s.quiet, 1, 0), net_nt_unlock(s.nt); }},
    };
    const std::pair<const char*, void (*)(scene&)> moments[] = {
        {"while it starts", [](scene& s) { s.giving.then(); }},
        {"while it waits", [](scene& s) { s.nt.pass(), s.giving.then(); }},
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
                ASSERT_TRUE(s.called.reaches(1, less_than_a_wait)) << what << ' ' << when;
            }
        }
    }
}

TEST(Loop, EndingARecordWaitsForItsRunningCallback) {
    const test_clock clock(50);
    const socket_pair pair;
    std::atomic<bool> left = false;
    callback entered, busy([&] {
        callback::run(&entered);
        std::this_thread::sleep_for(20ms);
        left = true;
    });
    const network_thread nt;
    socket_ctx* socket = nullptr;
    timer_ctx* timer = nullptr;
    command_ctx* command = net_nt_command_create(nt, &busy, callback::run);
    net_nt_socket_add(nt, socket, pair.here, 0, &busy, callback::run);
    net_nt_timer_set(nt, timer, 1, &busy, callback::run);
    const std::pair<std::function<void()>, std::function<void()>> records[] = {
        {[&] { net_nt_command(nt, socket); }, [&] { net_nt_socket_rem(nt, socket); }},
        {[&] { net_nt_command_exec(command); }, [&] { net_nt_command_set(nt, command, nullptr, nullptr); }},
        {[&] { test_clock::set(51), net_nt_unlock(nt); }, [&] { net_nt_timer_set(nt, timer, 0, nullptr, nullptr); }},
    };
    for (int runs = 1; const auto& [begin, end] : records) {
        begin();
        ASSERT_TRUE(entered.reaches(runs));
        end();
        EXPECT_TRUE(left.exchange(false)) << runs;
        nt.pass();
        EXPECT_EQ(busy.runs(), runs++) << "it is not called again";
    }
    EXPECT_TRUE(!socket && !timer && !command);
    nt.run([&] { EXPECT_TRUE(nt.nt->sockets.empty() && nt.nt->timers.empty() && nt.nt->commands.empty()); });
}

TEST(Stop, ReleasesEveryRecordDropsQueuedCallsAndLeavesSocketsOpen) {
    const socket_pair pair;
    const size_t held = core_mem_blocks();
    callback entered, leave, dropped, busy([&] {
        callback::run(&entered);
        leave.reaches(1);
    });
    network_thread nt;
    net_nt_sync_call(nt, nullptr, &busy, callback::run);
    ASSERT_TRUE(entered.reaches(1));
    socket_ctx* socket = nullptr;
    timer_ctx* timer = nullptr;
    net_nt_socket_add(nt, socket, pair.here, nt_flag_read, &dropped, callback::run);
    net_nt_timer_set(nt, timer, 1, &dropped, callback::run);
    EXPECT_NE(net_nt_command_create(nt, &dropped, callback::run), nullptr);
    std::thread stopper([&] { net_nt_stop(nt.nt); });
    // What is queued after the stop began is not run; the call that holds the loop ends afterwards.
    while (!core_thread_iscancel(nt.nt->thread))
        std::this_thread::yield();
    net_nt_sync_call(nt, nullptr, &dropped, callback::run);
    callback::run(&leave);
    stopper.join();
    EXPECT_EQ(nt.nt, nullptr);
    EXPECT_EQ(dropped.runs(), 0);
    EXPECT_GE(test::value_of(pair.here, test::option::type), 0);
    EXPECT_EQ(core_mem_blocks(), held);
}

TEST(Stop, InACallbackDoesNotWaitForItself) {
    const socket_pair pair;
    const size_t held = core_mem_blocks();
    nt_ctx* nt = nullptr;
    net_nt_start(nt, CORE_HERE);
    callback stopping([&] { net_nt_stop(nt); });
    // Set off by a byte: a call that orders the stop would still be using the context when the loop releases it.
    socket_ctx* socket = nullptr;
    net_nt_socket_add(nt, socket, pair.here, nt_flag_read, &stopping, callback::run);
    pair.poke();
    ASSERT_TRUE(stopping.reaches(1));
    EXPECT_EQ(nt, nullptr);
    const auto patience = std::chrono::steady_clock::now() + 5s;
    while (core_mem_blocks() != held && std::chrono::steady_clock::now() < patience)
        std::this_thread::yield();
    EXPECT_EQ(core_mem_blocks(), held);
}

TEST(Timer, NeverFiresEarlyNorASecondLate) {
    for (const double start : {1000.0, 1000.1, 1000.5, 1000.999}) {
        const test_clock clock(start);
        callback called;
        const network_thread nt;
        timer_ctx* timer = nullptr;
        net_nt_timer_set(nt, timer, 3, &called, callback::run);
        come_to(start + 2.999, nt);
        EXPECT_EQ(called.runs(), 0) << start;
        come_to(start + 4, nt);
        EXPECT_EQ(called.runs(), 1) << start;
    }
}

TEST(Timer, FiresOncePerPassUntilItHasCaughtUpUnlessItsCallbackSetsIt) {
    const test_clock clock(50);
    std::string order;
    timer_ctx *a = nullptr, *b = nullptr, *ending = nullptr, *renewed = nullptr;
    network_thread nt;
    callback fire_a([&] { order += 'a'; }), fire_b([&] { order += 'b'; });
    callback end([&] { order += 'e', net_nt_timer_set(nt, ending, 0, nullptr, nullptr); });
    callback renew([&] { order += 'r', net_nt_timer_set(nt, renewed, 3, &renew, callback::run); });
    nt.run([&] {
        net_nt_timer_set(nt, a, 1, &fire_a, callback::run);
        net_nt_timer_set(nt, b, 2, &fire_b, callback::run);
        net_nt_timer_set(nt, ending, 1, &end, callback::run);
        net_nt_timer_set(nt, renewed, 1, &renew, callback::run);
    });
    come_to(54, nt);
    EXPECT_TRUE(fire_a.reaches(4));
    nt.pass();
    EXPECT_EQ(order, "aberabaa");
    EXPECT_TRUE(a->due == 55 && renewed->due == 57 && !ending);
    net_nt_stop(nt.nt);
}

TEST(Command, OrdersCoalesceThoseOfItsCallbackAreNotDeliveredAndItCanBeChanged) {
    command_ctx* command = nullptr;
    callback first([&] { net_nt_command_exec(command); }), second([&] { net_nt_command_destroy(command); });
    const network_thread nt;
    command = net_nt_command_create(nt, &first, callback::run);
    nt.run([&] {
        for (int i = 0; i < 5; ++i)
            net_nt_command_exec(command);
    });
    nt.pass();
    nt.pass();
    net_nt_command_set(nt, command, &second, callback::run);
    net_nt_command_exec(command);
    EXPECT_TRUE(second.reaches(1));
    EXPECT_EQ(first.runs(), 1);
    nt.pass();
    nt.run([&] { EXPECT_TRUE(nt.nt->commands.empty()) << "destroyed in its callback"; });
}

TEST(Command, ComesAtItsTimeAndNotBefore) {
    const test_clock clock(50);
    command_ctx* command = nullptr;
    callback called;
    called.then = [&] { net_nt_command_at(command, called.runs() == 0 ? 53'000'000 : 0); };
    const network_thread nt;
    command = net_nt_command_create(nt, &called, callback::run);
    const struct {
        const char* why;
        double now;
        uint64_t set;
        int runs;
    } steps[] = {{"not yet", 50, 50'000'001, 0},           {"taken back", 51, 0, 0},  {"set anew", 51, 51'000'000, 1},
                 {"a replaced time", 51.5, 53'000'000, 1}, {"it", 53, 53'000'000, 2}, {"once", 54, 0, 2}};
    for (const auto& [why, now, set, runs] : steps) {
        net_nt_command_at(command, set);
        come_to(now, nt);
        EXPECT_EQ(called.runs(), runs) << why;
    }
}

// By the wait's own end, which nobody brings but who sets the timer to an earlier time.
TEST(Timer, SetToAnEarlierTimeItWakesTheWaitingLoop) {
    callback called;
    const network_thread nt;
    timer_ctx* timer = nullptr;
    net_nt_timer_set(nt, timer, 3600, &called, callback::run);
    nt.pass();
    net_nt_timer_set(nt, timer, 1, &called, callback::run);
    EXPECT_TRUE(called.reaches(1, less_than_a_wait));
}

TEST(Calls, RunInOrderAndOneThatQueuesItselfLetsTheLoopGoOn) {
    std::string order;
    callback a([&] { order += 'a'; }), b([&] { order += 'b'; }), again;
    const network_thread nt;
    again.then = [&] {
        if (again.runs() < 99) net_nt_sync_call(nt, nullptr, &again, callback::run);
        if (again.runs() == 0) order += '0';
    };
    for (callback* call : {&again, &b, &a, &b, &a, &a})
        EXPECT_EQ(net_nt_sync_call(nt, nullptr, call, callback::run), 1);
    EXPECT_TRUE(again.reaches(100, less_than_a_wait)) << "without waiting in between";
    nt.run([&] { EXPECT_EQ(order, "0babaa"); });
}

// Each call is posted as soon as the one before it has run, which is when the queue may have been looked at already.
TEST(Thread, RunsWhatIsPostedOnItsOwnThreadAndMissesNothing) {
    net::Thread thread;
    callback called([&] { EXPECT_EQ(net_nt_need_invoke(thread.nt), 0); });
    thread.start();
    thread.start();
    ASSERT_NE(thread.command, nullptr);
    for (int posts = 1; posts <= 5000; ++posts) {
        core_cmd_exec(
            thread.queue, [](void*, void* arg) { callback::run(arg); }, &called);
        net_nt_command_exec(thread.command);
        ASSERT_TRUE(called.reaches(posts, less_than_a_wait));
    }
    thread.stop();
    EXPECT_TRUE(!thread.nt && !thread.command);
}

// Every kind of record is made, changed, signalled and removed by several threads while the loop serves it.
TEST(Stress, RecordsComeAndGoWhileTheLoopRuns) {
    const network_thread nt;
    std::atomic<uint64_t> commands = 0;
    const auto count = [](void* arg, command_ctx*) { ++*static_cast<std::atomic<uint64_t>*>(arg); };
    const auto worker = [&](unsigned seed) {
        std::minstd_rand random(seed);
        const socket_pair pair;
        callback served([&] { test::drain(pair.here); });
        socket_ctx* socket = nullptr;
        timer_ctx* timer = nullptr;
        command_ctx* command = nullptr;
        const auto ignore = [](void*, timer_ctx*) {};
        const std::function<void()> steps[] = {
            [&] { net_nt_command(nt, socket); },
            [&] { net_nt_socket_set(nt, socket, 1, random() % 2 == 0); },
            [&] { pair.poke(); },
            [&] { net_nt_timer_set(nt, timer, static_cast<int>(random() % 3), nullptr, ignore); },
            [&] { net_nt_command_set(nt, command, &commands, count); },
            [&] { net_nt_command_exec(command); },
            [&] { net_nt_sync_call(nt, socket, nullptr, [](void*) {}); },
            [&] { net_nt_unlock(nt); },
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
    };
    std::vector<std::thread> workers;
    for (unsigned seed = 1; seed <= 4; ++seed)
        workers.emplace_back(worker, seed);
    for (auto& thread : workers)
        thread.join();
    EXPECT_GT(commands, 0u);
}

}  // namespace
