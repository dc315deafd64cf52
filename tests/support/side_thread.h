// Threads for tests that need a second one, and events of the runtime.
#pragma once

#include "support/held.h"

#include "core/memory.h"
#include "core/thread.h"

#include <cstdint>
#include <functional>
#include <thread>

namespace test {

/// Runs a function on a thread; its end waits for it.
using side_thread = std::jthread;

/// Runs a function on four threads at once and waits for all of them.
inline void on_four_threads(const std::function<void()>& function) {
    const side_thread a(function), b(function), c(function), d(function);
}

class event {
public:
    void set() const { event_set(handle_.get()); }
    /// @return false when it was not set in time
    bool wait(uint32_t milliseconds = 60'000) const { return event_wait(handle_.get(), milliseconds) == 1; }

private:
    held<event_ctx, _event_free> handle_{_event_create(CORE_HERE)};
};

}  // namespace test
