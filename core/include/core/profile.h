/// The profile bus: parts of a program meet by name. Whoever opens a name with a callback subscribes to it; whoever
/// opens it without one can put parameter lists, ask for an answer, and wake the source. Names are exact. Any thread.
#pragma once

#include "core/api.h"
#include "core/param.h"

#include <cstdint>

struct profile_ctx;

/// What reaches a subscriber's callback.
enum profile_event_t : uint32_t {
    profile_put = 0,   ///< a list was put; nothing is answered
    profile_ask = 1,   ///< somebody asks; answer by core_profile_answer()
    profile_woken = 2  ///< somebody wants the source to send; `params` is null
};

/// @param params  ends at type 0; lives only for the call
typedef void (*profile_callback)(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params);

/// Opens a name for putting and asking. @return null for a null name or when memory is out. Close with profile_close().
INET_API profile_ctx* core_profile_open(const char* name, const char* file, int line) noexcept;
INET_API profile_ctx* profile_open(const char* name) noexcept;

/// Opens a name and subscribes to it: `callback` runs on the thread that puts, asks or wakes, on one thread at a time,
/// never for what is put through this very handle. It may use the bus as it likes. What it puts may lead to a call
/// within the call, up to 16 deep. Where callbacks on several threads would wait for each other, the last one does not
/// reach the other's subscriber.
INET_API profile_ctx* core_profile_open2(const char* name, void* arg, profile_callback callback, const char* file,
                                         int line) noexcept;

/// Leaves, releases the handle and nulls it. When it returns the callback does not run on another thread and will not
/// be called again; called inside that very callback it returns at once and the callback may finish. So it does for the
/// second of two callbacks that close each other.
INET_API void profile_close(profile_ctx*& profile) noexcept;

/// Hands a list to every other subscriber of the name, in the order in which they came, and keeps a copy of its text
/// and integer entries as the name's last data. @return the number of subscribers reached.
INET_API uint32_t core_profile_put(profile_ctx* profile, const param_t* params) noexcept;

/// Copy of the list last put under the handle's name (profile_data: under a name), text and integer entries; null when
/// nothing was put since the name came to life, or memory is out. One block: release it with core_mfree().
INET_API param_t* core_profile_data(profile_ctx* profile, const char* file, int line) noexcept;
INET_API param_t* profile_data(const char* name, const char* file, int line) noexcept;

/// Asks the other subscribers of the name in order until one answers. @return the answer, a text for core_mfree(), or
/// null.
INET_API char* profile_request(profile_ctx* profile, const param_t* params, const char* file, int line) noexcept;

/// Answers the request that the calling callback is serving; the text is copied. Elsewhere it does nothing.
INET_API void core_profile_answer(profile_ctx* profile, const char* text) noexcept;

/// Tells every other subscriber of the name that somebody wants it to send. @return the number of subscribers reached.
INET_API uint32_t core_profile_wake(profile_ctx* profile) noexcept;

/// Asks the archive player behind the name to play from `start` (microseconds UTC) at `speed` times real time: puts the
/// entries "command" = "play", "start" (integer) and "speed" (text, decimal). @return the number of subscribers
/// reached.
INET_API uint32_t core_archive_play(profile_ctx* profile, uint64_t start, double speed) noexcept;
