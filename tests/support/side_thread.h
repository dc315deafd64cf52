// Threads and events of the runtime for tests that need a second thread.
#pragma once

#include "core/memory.h"
#include "core/thread.h"

#include <cstdint>
#include <functional>
#include <utility>

namespace test {

/// Runs a function on a thread; its end waits for it.
class side_thread {
public:
    explicit side_thread(std::function<void()> function) : function_(std::move(function)) {
        thread_ = core_thread_start(
            this, [](void* arg, thread_ctx*) { static_cast<side_thread*>(arg)->function_(); }, nullptr, CORE_HERE);
    }
    side_thread(const side_thread&) = delete;
    side_thread& operator=(const side_thread&) = delete;
    ~side_thread() { core_thread_stop(thread_); }

private:
    std::function<void()> function_;
    thread_ctx* thread_;
};

/// Runs a function on four threads at once and waits for all of them.
inline void on_four_threads(const std::function<void()>& function) {
    const side_thread a(function), b(function), c(function), d(function);
}

class event {
public:
    event() = default;
    event(const event&) = delete;
    event& operator=(const event&) = delete;
    ~event() { _event_free(handle_); }

    void set() const { event_set(handle_); }
    /// @return false when it was not set in time
    bool wait(uint32_t milliseconds = 60'000) const { return event_wait(handle_, milliseconds) == 1; }

private:
    event_ctx* handle_ = _event_create(CORE_HERE);
};

}  // namespace test
