// The open ends of RTSP over HTTP: where the GET connection is that a POST connection belongs to.
#pragma once

#include "inet/sockaddr.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace camera {

class viewer;
class worker;

/// Shared by all workers; any thread.
class tunnels {
public:
    void add(std::string_view cookie, in_addr peer, worker& at, const viewer& get) {
        const std::lock_guard held(lock_);
        if (!closed_) ends_.push_back({std::string(cookie), peer, &at, &get});
    }

    void remove(const viewer& get) {
        const std::lock_guard held(lock_);
        std::erase_if(ends_, [&](const end& each) { return each.get == &get; });
    }

    /// Calls `visit` with the thread that has the GET end of that cookie from that host, the latest one: until it
    /// returns, that thread is not stopped. @return false when there is none.
    template <class Visit>
    bool find(std::string_view cookie, in_addr peer, Visit visit) const {
        const std::lock_guard held(lock_);
        const auto found = std::find_if(ends_.rbegin(), ends_.rend(), [&](const end& each) {
            return each.cookie == cookie && each.peer.s_addr == peer.s_addr;
        });
        if (found == ends_.rend()) return false;
        visit(*found->at);
        return true;
    }

    /// No more ends are found: the threads are about to stop.
    void close() {
        const std::lock_guard held(lock_);
        ends_.clear();
        closed_ = true;
    }

private:
    struct end {
        std::string cookie;
        in_addr peer;
        worker* at;
        const viewer* get;
    };

    mutable std::mutex lock_;
    std::vector<end> ends_;
    bool closed_ = false;
};

}  // namespace camera
