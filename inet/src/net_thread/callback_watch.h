// Names callbacks that hold the loop, in debug builds: an assertion starts and stops the watch, so that release builds
// have none of it.
#pragma once

#include "core/log.h"
#include "core/time.h"

#include <cassert>
#include <cstdint>

namespace net {

class callback_watch {
public:
    explicit callback_watch([[maybe_unused]] const char* kind) noexcept : kind_(kind) { assert(start()); }
    ~callback_watch() { assert(stop()); }
    callback_watch(const callback_watch&) = delete;
    callback_watch& operator=(const callback_watch&) = delete;

    static constexpr uint64_t longest = 500'000;  // microseconds

private:
    bool start() noexcept {
        started_ = core_timer();
        return true;
    }

    bool stop() const noexcept {
        const uint64_t held = core_timer() - started_;
        if (held > longest) {
            core_log_err("network thread: a %s callback held the loop for %llu ms", kind_,
                         static_cast<unsigned long long>(held / 1000));
        }
        return true;
    }

    const char* kind_;
    uint64_t started_ = 0;
};

}  // namespace net
