// A network thread for tests, and ways to wait for what it does.
#pragma once

#include "core/memory.h"
#include "inet/net_thread.h"

#include <chrono>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>

namespace test {

/// Of the loop, when nothing wakes it: longer than a machine stalls.
inline constexpr std::chrono::seconds less_than_a_wait(4);

/// Counts on one thread what another waits for.
class counter {
public:
    void add() {
        const std::lock_guard held(mutex_);
        ++value_;
        changed_.notify_all();
    }
    /// Waits until the count is at least `value`; false after five seconds.
    bool reaches(int value, std::chrono::milliseconds patience = std::chrono::seconds(5)) {
        std::unique_lock held(mutex_);
        return changed_.wait_for(held, patience, [&] { return value_ >= value; });
    }
    int value() {
        const std::lock_guard held(mutex_);
        return value_;
    }
    static void count(void* arg) { static_cast<counter*>(arg)->add(); }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int value_ = 0;
};

class network_thread {
public:
    network_thread() { net::net_nt_start(nt, CORE_HERE); }
    ~network_thread() { net::net_nt_stop(nt); }
    network_thread(const network_thread&) = delete;
    network_thread& operator=(const network_thread&) = delete;

    operator net::nt_ctx*() const { return nt; }

    /// Returns when the loop has run a whole pass.
    void pass() {
        counter called;
        for (int round = 1; round <= 2; ++round) {
            net::net_nt_sync_call(nt, nullptr, &called, counter::count);
            EXPECT_TRUE(called.reaches(round));
        }
    }

    /// Runs a function on the loop's thread and waits for its end.
    template <class Function>
    void run(Function function) {
        struct {
            Function& function;
            counter done;
        } call{function, {}};
        net::net_nt_sync_call(nt, nullptr, &call, [](void* arg) {
            auto* todo = static_cast<decltype(call)*>(arg);
            todo->function();
            todo->done.add();
        });
        EXPECT_TRUE(call.done.reaches(1));
    }

    net::nt_ctx* nt = nullptr;
};

}  // namespace test
