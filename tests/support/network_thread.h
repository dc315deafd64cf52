// A network thread for tests, and callbacks to wait for.
#pragma once

#include "core/memory.h"
#include "inet/net_thread.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <vector>

namespace test {

/// What a record calls: counts its runs after it has done `then` in each. Another thread can wait for them.
class callback {
public:
    explicit callback(std::function<void()> in_it = [] {}) : then(std::move(in_it)) {}

    /// Of queued calls, timers and commands, and of sockets.
    static void run(void* arg) {
        auto* self = static_cast<callback*>(arg);
        self->then();
        const std::lock_guard held(self->mutex_);
        ++self->runs_;
        self->changed_.notify_all();
    }
    template <class Handle>
    static void run(void* arg, Handle*) {
        run(arg);
    }
    static void run(void* arg, uint32_t events) {
        static_cast<callback*>(arg)->events.push_back(events);
        run(arg);
    }

    /// Waits until it has run so often. False when that takes as long as the loop waits when nothing wakes it, nearly.
    bool reaches(int runs) {
        std::unique_lock held(mutex_);
        return changed_.wait_for(held, std::chrono::seconds(4), [&] { return runs_ >= runs; });
    }
    int runs() {
        const std::lock_guard held(mutex_);
        return runs_;
    }

    std::function<void()> then;
    std::vector<uint32_t> events;  ///< of a socket, in each run

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int runs_ = 0;
};

class network_thread {
public:
    network_thread() { net::net_nt_start(nt, CORE_HERE); }
    ~network_thread() { net::net_nt_stop(nt); }

    operator net::nt_ctx*() const { return nt; }

    /// Runs a function on the loop's thread and waits for its end.
    void run(std::function<void()> function) const {
        callback call(std::move(function));
        net::net_nt_sync_call(nt, nullptr, &call, callback::run);
        EXPECT_TRUE(call.reaches(1));
    }
    /// Returns when the loop has run a whole pass.
    void pass() const {
        run([] {});
        run([] {});
    }

    net::nt_ctx* nt = nullptr;
};

}  // namespace test
