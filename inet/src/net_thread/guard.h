// Who may touch a record. The loop takes the guard for a callback without ever waiting for it; whoever changes the
// record waits for the loop, unless it is that very callback.
#pragma once

#include "core/thread.h"
#include "inet/net_thread.h"

#include <atomic>

namespace net {

using guard_word = std::atomic<uint32_t>;

/// For the loop: false when another thread is changing the record, which is then left for the next pass.
inline bool take_for_loop(guard_word& guard) noexcept {
    uint32_t found = nt_guard_free;
    return guard.compare_exchange_strong(found, nt_guard_loop);
}

inline void release_guard(guard_word& guard) noexcept { guard.store(nt_guard_free); }

/// A setter's hold on a record.
class record_change {
public:
    record_change(nt_ctx* nt, guard_word& guard) noexcept : guard_(guard), owned_(take(nt, guard)) {}
    ~record_change() {
        if (owned_) release_guard(guard_);
    }
    record_change(const record_change&) = delete;
    record_change& operator=(const record_change&) = delete;

private:
    // The loop's hold, found on the loop's own thread, is the callback we are called from: it covers the change, and
    // the loop ends it.
    static bool take(nt_ctx* nt, guard_word& guard) noexcept {
        for (;;) {
            uint32_t found = nt_guard_free;
            if (guard.compare_exchange_strong(found, nt_guard_other)) return true;
            if (found == nt_guard_loop && !net_nt_need_invoke(nt)) return false;
            core_sleep(0);
        }
    }

    guard_word& guard_;
    bool owned_;
};

}  // namespace net
