// The insides of media::dash: its two kinds of thread meet here.
#pragma once

#include "avc/fcc.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_dash.h"
#include "media/dash.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>

namespace media {

/// NAME-NUMBER-WHICH-TIME. Another run has other ids: what a cache has kept of this one is not taken for it.
core::owned_text dash_id(const char* name, uint32_t number, uint64_t which) noexcept;

/// Removes the segments of earlier runs of that number from ./temp, and their folders. Before any context is opened.
void remove_leftovers(uint32_t number) noexcept;

/// The longest time without a request after which somebody may still want a stream, or an answer.
inline constexpr uint64_t longest_unasked = 25'000'000;

inline bool is_packable(const stream& of) noexcept {
    format_t format;
    return of.format(kind_t::video, &format, nullptr) && format.fcc == av::fcc_h264;
}

/// Who watches by DASH. A player has no session: it asks for one answer after the other, over any number of
/// connections. A peer watches what it was sent something of within the last 10 s. Any thread.
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

struct dash::inside {
    /// A stream that is packed.
    struct channel {
        inside* of = nullptr;
        stream* from = nullptr;
        core::owned_text id;         ///< of its track; null while nothing runs
        profile_ctx* bus = nullptr;  ///< of the packing thread, as are the next two
        cursor reader;
        net::dash_ctx* held = nullptr;        ///< keeps the context while the stream is packed
        std::atomic<uint64_t> asked = 0;      ///< core_timer() of the last request
        std::atomic<bool> is_failed = false;  ///< it cannot be packed

        ~channel() { stream::drop(from); }
    };

    /// A recording, whose ranges are packed when somebody asks.
    struct archive {
        inside* of = nullptr;
        core::owned_text name;
        core::owned_text id;
    };

    /// A range that the control thread opens.
    struct opening {
        inside* of = nullptr;
        core::owned_text token;
        uint64_t start = 0;
        uint64_t end = 0;
        bool is_done = false;  ///< without success
        uint64_t asked = 0;    ///< core_timer() of the last request

        bool is(const char* which, uint64_t from, uint64_t to) const noexcept {
            return std::strcmp(token.get(), which) == 0 && start == from && end == to;
        }
    };

    inside(station& all, const settings_t& how) noexcept : streams(all), settings(how) {}

    void run(thread_ctx* thread) noexcept;
    void step(channel& each, uint64_t now) noexcept;
    void put_picture(channel& each, const entry_t& entry) noexcept;
    void leave(channel& each) noexcept;

    static void on_request(void* arg, http_exchange& asked) noexcept;
    static void on_recorded(void* arg, http_exchange& asked) noexcept;
    void answer_range(const archive& of, std::string_view range, std::string_view path, http_exchange& asked) noexcept;
    bool order(const archive& of, uint64_t start, uint64_t end, http_exchange& asked) noexcept;
    void open(opening& range) noexcept;
    static void answer_manifest(const channel& each, http_exchange& asked) noexcept;
    void answer_segment(const void* of, std::string_view path, http_exchange& asked) noexcept;
    bool comes_next(net::dash_ctx* ctx, std::string_view name) noexcept;

    bool enter() noexcept;
    void exit() noexcept;
    bool admit(http_exchange& asked) noexcept;

    station& streams;
    settings_t settings;
    core::vector<core::owned_object<channel>> channels;
    core::vector<core::owned_object<archive>> archives;
    core::vector<core::owned_object<opening>> openings;
    audience watchers;
    event_ctx* news = nullptr;
    thread_ctx* packer = nullptr;
    std::mutex lock;  ///< of the openings, the timelines, and the next three
    bool running = false;
    uint32_t visitors = 0;  ///< that use contexts: the end of the packing waits for them
    std::condition_variable left;
};

}  // namespace media
