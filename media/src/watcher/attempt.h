// One attempt to fetch a source, whatever its scheme: from connecting to the end of the connection, on a network
// thread. A scheme is a class of its own behind this interface (rtsp.h).
#pragma once

#include "core/owned.h"
#include "media/watcher.h"

#include <cstdarg>
#include <cstdio>
#include <span>

namespace media::fetch {

struct address_t;
class name_lookup;

struct ending_t {
    outcome_t what = outcome_t::ok;
    char text[256] = "";  ///< empty when all went well

    ending_t() noexcept = default;
    INET_PRINTF(3, 4) ending_t(outcome_t outcome, const char* format, ...) noexcept : what(outcome) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
    }
};

template <class T>
using held = core::owned<T, T::destroy>;

/// What is wanted of an attempt.
struct order_t {
    net::nt_ctx* nt;
    const address_t& address;
    const address_t& asked;  ///< before the source said that it is elsewhere
    name_lookup& lookup;
    transport_t transport;
    uint64_t timeout;   ///< microseconds
    uint64_t duration;  ///< microseconds of media that are still wanted; 0 is without end
    uint32_t kinds;
    bool one_of_a_kind;
    bool sets_in_slices;
    const char* save_as;  ///< as in watcher::settings_t
};

/// A body that is written to a file.
struct saved_t {
    uint64_t bytes = 0;
    uint64_t size = 0;  ///< 0 when the source does not tell
    bool complete = false;
};

/// Receives what an attempt brings.
class attempt_owner {
public:
    /// @return 0 when it has enough
    virtual int take(const watched_t& got) noexcept = 0;
    virtual void tell(const watch_event_t& event) noexcept = 0;
    /// It has ended: take_leave of it from outside of its calls.
    virtual void ended() noexcept = 0;

protected:
    ~attempt_owner() = default;
};

/// Made with core::create(). Deleted by its owner from outside of its calls, whenever that is.
class attempt {
public:
    virtual ~attempt() = default;
    static void operator delete(void* block) noexcept { core_mfree(block); }

    virtual void start() noexcept = 0;
    /// @param now  core_timer()
    /// @return when it is to be called next
    virtual uint64_t tick(uint64_t now) noexcept = 0;
    /// Takes leave of the source and ends with this result.
    virtual void leave(const ending_t& result) noexcept = 0;

    virtual bool has_ended() const noexcept = 0;
    virtual const ending_t& result() const noexcept = 0;
    /// The source does not send the way that was ordered.
    virtual bool wants_tcp() const noexcept = 0;
    /// Where the source says that it is instead; null for none.
    virtual const char* moved_to() const noexcept = 0;
    virtual saved_t saved() const noexcept { return {}; }
    /// Of the tracks that were set up. @return how many there are
    virtual size_t counts(std::span<track_counts_t> out) const noexcept = 0;
};

}  // namespace media::fetch
