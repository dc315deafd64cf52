// Who watches by DASH. A player has no session: it asks for one answer after the other, over any number of connections.
#pragma once

#include "core/owned.h"
#include "core/time.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace media {

/// A peer watches what it was sent something of within the last 10 s. Any thread.
class audience {
public:
    /// @param peer  its address, dotted
    void saw(const void* what, const char* peer) noexcept {
        const uint64_t now = core_timer();
        const std::lock_guard held(lock_);
        const auto is_it = [&](const viewer& each) { return each.what == what && std::strcmp(each.peer, peer) == 0; };
        const auto known = std::ranges::find_if(viewers_, is_it);
        if (known != viewers_.end()) {
            known->last = now;
            return;
        }
        forget(now);
        viewer made{.what = what, .peer = {}, .last = now};
        std::snprintf(made.peer, sizeof made.peer, "%s", peer);
        try {
            if (viewers_.size() < most) viewers_.push_back(made);
        } catch (const std::bad_alloc&) {
            // It is not counted.
        }
    }

    uint32_t count() noexcept {
        const std::lock_guard held(lock_);
        forget(core_timer());
        return static_cast<uint32_t>(viewers_.size());
    }

private:
    static constexpr uint64_t longest_pause = 10'000'000;
    static constexpr size_t most = 1024;

    struct viewer {
        const void* what;
        char peer[16];
        uint64_t last;  ///< core_timer() of its last answer
    };

    void forget(uint64_t now) noexcept {
        std::erase_if(viewers_, [&](const viewer& each) { return now > each.last + longest_pause; });
    }

    std::mutex lock_;
    core::vector<viewer> viewers_;
};

}  // namespace media
