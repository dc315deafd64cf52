// Scenarios in which each allocation fails in turn, for what no fuzz target reaches. A scenario checks what is promised
// for lack of memory and releases everything it got.
#include "support/fault.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "core/array.h"
#include "core/module.h"
#include "inet/net_tcp.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace {

struct scenario_t {
    const char* name;
    void (*run)();
    size_t allocations;  ///< of which at least so many are made to fail
};

// core

void open_a_missing_module() { EXPECT_EQ(core_dll_open("no such module", nullptr, CORE_HERE), nullptr); }

// common, avc

// inet: sockets, the network thread

template <class T>
void release(T** items) {
    for (T** item = items; item && *item; ++item)
        core_mfree(*item);
    core_array_free(reinterpret_cast<void**>(items));
}

void open_sockets() {
    const int before = test::open_sockets();
    {
        const test::tcp_socket socket;
        EXPECT_TRUE(socket >= 0 || socket_get_error_code() == socket_error_no_buffers);
        const auto [here, there] = test::socket_pair::open();
        EXPECT_TRUE(here >= 0 || socket_get_error_code() == socket_error_no_buffers);
        int fds[2] = {-1, -1};
        socket_rtp_pair(&fds[0], &fds[1]);
        const test::tcp_socket held[] = {test::tcp_socket(here), test::tcp_socket(there), test::tcp_socket(fds[0]),
                                         test::tcp_socket(fds[1])};
        release(net_socket_get_if(CORE_HERE));
        release(net_socket_get_if_addr(CORE_HERE));
        core_mfree(net_hostip(CORE_HERE));
        core_mfree(net_hostname(CORE_HERE));
    }
    EXPECT_EQ(test::open_sockets(), before);
}

void accept_connections() {
    const unsigned short port = test::free_port();
    const int before = test::open_sockets();
    {
        const test::network_thread nt;
        const test::tcp_socket client;
        net::tcp_ctx* tcp = nullptr;
        if (client >= 0 && port != 0 && net::net_tcp_create(tcp, nt, CORE_HERE) == 0) {
            const int listens = net::net_tcp_listen2(tcp, "127.0.0.1", port, nullptr, nullptr);
            EXPECT_EQ(listens, tcp->socket ? 0 : -1);
            net_tcp_connect(client, "127.0.0.1", port);
            EXPECT_TRUE(listens != 0 || test::await(client, test::watch::read)) << "it is closed in any case";
        }
        net::net_tcp_close(tcp);
        EXPECT_EQ(tcp, nullptr);
    }
    EXPECT_EQ(test::open_sockets(), before);
}

void use_a_network_thread() {
    const test::socket_pair pair;
    if (pair.here < 0) return;
    pair.poke();
    const int before = test::open_sockets();
    test::callback read, called;
    {
        const test::network_thread nt;
        net::socket_ctx* socket = nullptr;
        net::timer_ctx* timer = nullptr;
        net::net_nt_timer_set(nt, timer, 3600, &called, test::callback::run);
        net::command_ctx* command = net::net_nt_command_create(nt, &called, test::callback::run);
        net::net_nt_command_exec(command);
        EXPECT_TRUE(!command || called.reaches(1));
        const bool queued = net::net_nt_sync_call(nt, nullptr, &called, test::callback::run) == 1;
        EXPECT_TRUE(!queued || called.reaches(command ? 2 : 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the loop has most likely come to its wait
        net::net_nt_socket_add(nt, socket, pair.here, net::nt_flag_read, &read, test::callback::run);
        EXPECT_TRUE(!socket || read.reaches(1, test::less_than_a_wait))
            << "what the loop has no memory for is not left for a whole wait";
        net::net_nt_socket_rem(nt, socket);
    }
    EXPECT_EQ(test::open_sockets(), before);
}

// inet: RTP

// inet: RTSP

constexpr scenario_t scenarios[] = {
    // core
    {"Module", open_a_missing_module, 1},
    // common, avc
    // inet: sockets, the network thread
    {"Sockets", open_sockets, 8},
    {"Listener", accept_connections, 10},
    {"NetworkThread", use_a_network_thread, 12},
    // inet: RTP
    // inet: RTSP
};

class Starved : public testing::TestWithParam<scenario_t> {};

TEST_P(Starved, KeepsItsPromisesAndHoldsNothing) {
    size_t nth = 0;
    for (bool hit = true; hit && !HasFailure();) {
        SCOPED_TRACE(testing::Message() << "allocation " << ++nth << " fails");
        const size_t held = core_mem_blocks();
        const test::failing_allocation fault(nth);
        GetParam().run();
        hit = fault.hit();
        EXPECT_EQ(core_mem_blocks(), held);
    }
    EXPECT_GT(nth, GetParam().allocations);
}

INSTANTIATE_TEST_SUITE_P(, Starved, testing::ValuesIn(scenarios), [](const auto& tested) { return tested.param.name; });

}  // namespace
