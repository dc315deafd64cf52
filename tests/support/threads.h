// Four threads at once, and events of the runtime.
#pragma once

#include "core/memory.h"
#include "core/owned.h"
#include "core/thread.h"

#include <cstdint>
#include <functional>
#include <thread>

namespace test {

/// Runs a function on four threads at once and waits for all of them.
inline void on_four_threads(const std::function<void()>& function) {
    const std::jthread a(function), b(function), c(function), d(function);
}

class event {
public:
    void set() const { event_set(handle_.get()); }
    /// @return false when it was not set in time
    bool wait(uint32_t milliseconds = 60'000) const { return event_wait(handle_.get(), milliseconds) == 1; }

private:
    core::owned<event_ctx, _event_free> handle_{_event_create(CORE_HERE)};
};

}  // namespace test
