// Start and stop by count, of the library and of families that are started on their own.
#pragma once

#include "core/thread.h"

#include <atomic>
#include <cstdint>

namespace net {

/// Calls nest, on any threads. The first start brings up, the last stop takes down; who comes meanwhile waits, by
/// polls of 1 ms.
class lifecycle {
public:
    /// Returns when it is up.
    template <class Up>
    void start(Up bring_up) noexcept {
        const life_count joined = count_start();
        if (joined.starts != 1) return wait_until_running(joined.life);
        wait_until_running(0);
        bring_up();
        running_ = joined.life;
    }

    /// Without a start to undo it does nothing.
    template <class Down>
    void stop(Down take_down) noexcept {
        if (!count_stop()) return;
        take_down();
        running_ = 0;
    }

private:
    // Starts are counted together with the number of the life they belong to, in one word: a start that meets the last
    // stop of the old life must know that it waits for another one.
    struct alignas(uint64_t) life_count {  // as the atomic word is
        uint32_t life = 0;
        uint32_t starts = 0;
    };

    void wait_until_running(uint32_t life) const noexcept {
        while (running_ != life)
            core_sleep(1);
    }

    life_count count_start() noexcept {
        life_count found = count_;
        life_count next;
        do {
            next = {.life = found.starts == 0 ? found.life + 1 : found.life, .starts = found.starts + 1};
            if (next.life == 0) next.life = 1;
        } while (!count_.compare_exchange_weak(found, next));
        return next;
    }

    /// @return true for the last stop of the life that runs
    bool count_stop() noexcept {
        life_count found = count_;
        life_count next;
        do {
            if (found.starts == 0 || found.life != running_) return false;
            next = {.life = found.life, .starts = found.starts - 1};
        } while (!count_.compare_exchange_weak(found, next));
        return next.starts == 0;
    }

    std::atomic<life_count> count_ = life_count{};
    std::atomic<uint32_t> running_ = 0;  ///< the life; 0 while it is down
};

}  // namespace net
