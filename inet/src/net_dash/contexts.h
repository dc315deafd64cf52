// The contexts that are open, and what they are made of.
#pragma once

#include "net_dash/packer.h"
#include "net_dash/segments.h"

#include "core/log.h"
#include "core/profile.h"
#include "inet/net_graph.h"

#include <atomic>
#include <mutex>
#include <string_view>

namespace net::dash {

inline constexpr size_t most_contexts = 256;
inline constexpr size_t most_ranges = 8;
inline constexpr size_t most_retired = 3;  ///< of one track
inline constexpr uint64_t most_range_bytes = 1ULL << 30;

/// What is copied out of the registry.
struct track {
    core::string token;
    core::string id;
    core::string keys[4];
    uint32_t width = 0, height = 0;
    uint8_t profile = 0;
};

}  // namespace net::dash

struct net::dash_ctx {
    dash_ctx(dash::track of, uint64_t from, uint64_t to) noexcept;
    ~dash_ctx();
    dash_ctx(const dash_ctx&) = delete;
    dash_ctx& operator=(const dash_ctx&) = delete;

    bool is_range() const noexcept { return start != 0; }
    /// Whether who asks for this gets the context. Under the lock of the contexts.
    bool serves(std::string_view token) const noexcept { return !is_retired && !is_leaving && track.token == token; }

    /// Those of a range are all the same whatever number they have.
    bool is_named(std::string_view wanted) const noexcept {
        return wanted == name || (is_range() && wanted == std::string_view(name, plain_name));
    }

    const dash::track track;
    const uint64_t start, end;
    char name[128] = {};       ///< set before anybody else knows the context, as is what follows
    size_t plain_name = 0;     ///< its length without the number
    char directory[144] = {};  ///< "./temp/NAME"

    uint32_t users = 1;                    ///< under the lock of the contexts, as is what follows
    bool is_leaving = false;               ///< nobody finds it any more; its name is taken until its files have gone
    std::atomic<uint64_t> last_access;     ///< seconds UTC
    std::atomic<uint64_t> last_put;        ///< core_timer() of the last list that came of a range
    std::atomic<bool> is_open = false;     ///< its opener is done with it; what follows is then the guard's
    std::atomic<bool> is_over = false;     ///< nothing more comes of a range
    std::atomic<bool> is_retired = false;  ///< nobody gets it any more: its parameter sets are no longer those
                                           ///< of the track, or it could not be opened
    std::atomic<bool> is_failed = false;

    dash::segment_list segments;
    dash::packer pack;

    profile_ctx* profile = nullptr;
    core::owned<Graph, Graph::destroy> graph;
};

namespace net::dash {

/// All contexts, in the order in which they were opened. The lock is never held while a callback is waited for.
struct contexts_t {
    std::mutex lock;
    std::mutex sweeping;     ///< one pass of the guard at a time; no callback takes it
    log_ctx* log = nullptr;  ///< set from the first start to the last stop, as is the guard
    uint64_t started = 0;    ///< microseconds UTC
    thread_ctx* guard = nullptr;
    event_ctx* wake_guard = nullptr;
    bool is_up = false;  ///< under the lock, as is what follows
    dash_ctx* all[most_contexts] = {};
    size_t count = 0;
};
contexts_t& contexts() noexcept;
inline log_ctx* log() noexcept { return contexts().log; }

void bring_up() noexcept;
void take_down() noexcept;

void touch(dash_ctx& ctx) noexcept;

/// The first context that fits, with one more user.
template <class Fits>
dash_ctx* use(Fits fits) noexcept {
    contexts_t& of = contexts();
    const std::lock_guard hold(of.lock);
    for (size_t i = 0; i < of.count; ++i) {
        if (of.all[i]->is_leaving || !fits(*of.all[i])) continue;
        ++of.all[i]->users;
        return of.all[i];
    }
    return nullptr;
}

/// A context that is made and put beside the others, or the one that somebody else has made meanwhile. Null when the
/// bounds are reached or memory is out. @param made  set when it was made: its opener plays it
dash_ctx* add(track of, uint64_t start, uint64_t end, bool& made, const char* file, int line) noexcept;

/// Makes the directory and has the pictures come. @return false when there are none to come
bool play(dash_ctx& ctx) noexcept;
/// No pictures come any more; what is left is cut. Not under a lock, and not inside a callback of the context.
void stop_playing(dash_ctx& ctx) noexcept;
void remove_files(dash_ctx& ctx) noexcept;

/// The MPD; null when there is none yet, or memory is out. May throw std::bad_alloc.
char* make_manifest(dash_ctx& ctx, const char* file, int line);
dash_property_t describe(const dash_ctx& ctx) noexcept;

/// One pass of the guard: releases what nobody uses, and ends ranges.
void sweep() noexcept;
void start_guard() noexcept;
void stop_guard() noexcept;
/// Has it look now.
void call_guard() noexcept;

}  // namespace net::dash
