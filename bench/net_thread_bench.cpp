// The network thread beside what the system needs for the same work: waking another thread and getting an answer, and
// echoing on 511 sockets.
#include "core/memory.h"
#include "inet/net_socket.h"
#include "inet/net_thread.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

constexpr int socket_count = 511;

struct socket_pair {
    socket_pair() {
        net_socket_pair(2, 1, 6, fds, CORE_HERE);
        for (const int fd : fds)
            socket_noNagle(fd);
    }
    ~socket_pair() {
        for (const int fd : fds)
            net_socket_close(fd);
    }
    socket_pair(const socket_pair&) = delete;
    socket_pair& operator=(const socket_pair&) = delete;
    void set_options() const {
        for (const int fd : fds)
            socket_options(fd);
    }
    int fds[2] = {-1, -1};
};

bool echo_once(int fd) {
    char bytes[64];
    const ssize_t count = recv(fd, bytes, sizeof bytes, 0);
    return count > 0 && send(fd, bytes, static_cast<size_t>(count), MSG_NOSIGNAL) == count;
}

/// One timed round trip, begun when the other thread has had the time to fall asleep.
template <class Order>
void time_round_trip(benchmark::State& state, Order order, int answers) {
    using clock = std::chrono::steady_clock;
    const auto settled = clock::now() + std::chrono::microseconds(50);
    while (clock::now() < settled) {
    }
    char byte = 0;
    const auto start = clock::now();
    order();
    recv(answers, &byte, 1, 0);
    state.SetIterationTime(std::chrono::duration<double>(clock::now() - start).count());
}

// Floor of the wake-up: one byte there, waited for with poll, and one byte back.
void wake_floor_socket_pair(benchmark::State& state) {
    const socket_pair there, back;
    std::thread other([&] {
        char byte;
        pollfd waited = {.fd = there.fds[1], .events = POLLIN, .revents = 0};
        while (poll(&waited, 1, -1) == 1 && recv(there.fds[1], &byte, 1, 0) == 1)
            send(back.fds[0], &byte, 1, 0);
    });
    const char byte = 0;
    for (auto _ : state)
        time_round_trip(
            state, [&] { send(there.fds[0], &byte, 1, 0); }, back.fds[1]);
    shutdown(there.fds[0], SHUT_WR);
    other.join();
}
BENCHMARK(wake_floor_socket_pair)->UseManualTime()->Iterations(20000);

// The same with commands of a network thread; the answer comes back over a socket as above. Two commands take turns: an
// order that comes before the answering callback has returned would not be delivered.
void wake_command_exec(benchmark::State& state) {
    const socket_pair back;
    net::nt_ctx* nt = nullptr;
    net::net_nt_start(nt, CORE_HERE);
    int answer = back.fds[0];
    net::command_ctx* commands[2];
    for (auto& command : commands) {
        command = net::net_nt_command_create(nt, &answer, [](void* arg, net::command_ctx*) {
            const char byte = 0;
            send(*static_cast<int*>(arg), &byte, 1, 0);
        });
    }
    size_t turn = 0;
    for (auto _ : state)
        time_round_trip(
            state, [&] { net::net_nt_command_exec(commands[turn++ % 2]); }, back.fds[1]);
    net::net_nt_stop(nt);
}
BENCHMARK(wake_command_exec)->UseManualTime()->Iterations(20000);

/// 511 pairs whose first ends are echoed; a round sends to all and waits for all answers.
struct echo_pairs {
    echo_pairs() : pairs(socket_count) {
        for (const auto& pair : pairs)
            pair.set_options();
    }
    void round() const {
        const char message[32] = {};
        char answer[64];
        for (const auto& pair : pairs)
            send(pair.fds[1], message, sizeof message, 0);
        for (const auto& pair : pairs) {
            pollfd waited = {.fd = pair.fds[1], .events = POLLIN, .revents = 0};
            while (recv(pair.fds[1], answer, sizeof answer, 0) <= 0)
                poll(&waited, 1, 1000);
        }
    }
    std::vector<socket_pair> pairs;
};

// Floor of the echo: a bare poll loop over the same sockets.
void echo_511_floor_poll_loop(benchmark::State& state) {
    const echo_pairs echo;
    std::atomic<bool> ended = false;
    std::thread server([&] {
        std::vector<pollfd> polled;
        for (const auto& pair : echo.pairs)
            polled.push_back({.fd = pair.fds[0], .events = POLLIN, .revents = 0});
        while (!ended) {
            poll(polled.data(), polled.size(), 100);
            for (const auto& one : polled) {
                if (one.revents & POLLIN) echo_once(one.fd);
            }
        }
    });
    for (auto _ : state)
        echo.round();
    state.SetItemsProcessed(state.iterations() * socket_count);
    ended = true;
    server.join();
}
BENCHMARK(echo_511_floor_poll_loop)->UseRealTime();

void echo_511_network_thread(benchmark::State& state) {
    echo_pairs echo;
    net::nt_ctx* nt = nullptr;
    net::net_nt_start(nt, CORE_HERE);
    std::vector<net::socket_ctx*> registered(socket_count);
    for (int i = 0; i < socket_count; ++i) {
        auto& pair = echo.pairs[static_cast<size_t>(i)];
        net::net_nt_socket_add(nt, registered[static_cast<size_t>(i)], pair.fds[0], net::nt_flag_read, &pair,
                               [](void* arg, uint32_t) { echo_once(static_cast<socket_pair*>(arg)->fds[0]); });
    }
    for (auto _ : state)
        echo.round();
    state.SetItemsProcessed(state.iterations() * socket_count);
    net::net_nt_stop(nt);
}
BENCHMARK(echo_511_network_thread)->UseRealTime();

}  // namespace
