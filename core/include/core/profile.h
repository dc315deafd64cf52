/// The profile bus connects parts of a program by name. A handle opened with a callback subscribes to its name. Every
/// handle can put parameter lists, ask for an answer, and wake the source. Names are exact. Any thread.
#pragma once

#include "core/api.h"
#include "core/param.h"

#include <cstdint>

struct profile_ctx;

/// What reaches a subscriber's callback.
enum profile_event_t : uint32_t {
    profile_put = 0,   ///< a list was put; nothing is answered
    profile_ask = 1,   ///< a handle asks; answer with core_profile_answer()
    profile_woken = 2  ///< a handle wants the source to send; `params` is null
};

/// @param params  ends at type 0; valid until the callback returns
typedef void (*profile_callback)(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params);

/// Opens a name for putting and asking. @return null for a null name or when memory is out. Close with profile_close().
INET_API profile_ctx* core_profile_open(const char* name, const char* file, int line) noexcept;
INET_API profile_ctx* profile_open(const char* name) noexcept;

/// Opens a name and subscribes to it. `callback` runs on the thread that puts, asks or wakes, on one thread at a time:
///   - It does not run for what is put through this handle.
///   - It may use the bus. What it puts may call it again inside the call, up to 16 deep.
///   - When callbacks on several threads would wait for each other, the last put, ask or wake does not reach the
///     subscriber that it would wait for.
INET_API profile_ctx* core_profile_open2(const char* name, void* arg, profile_callback callback, const char* file,
                                         int line) noexcept;

/// Unsubscribes, releases the handle and nulls it. After the call the callback is not running on another thread, and is
/// not called again. Called inside that callback it returns at once, and the callback finishes. When two callbacks
/// close each other, the second call returns at once, too.
INET_API void profile_close(profile_ctx*& profile) noexcept;

/// Hands a list to every other subscriber of the name, in the order in which they subscribed. A copy of its text and
/// integer entries is kept as the name's last data. @return the number of subscribers reached.
INET_API uint32_t core_profile_put(profile_ctx* profile, const param_t* params) noexcept;

/// Copy of the text and integer entries of the list last put under the handle's name (profile_data: under `name`). It
/// is one block for core_mfree(). When the last handle of a name is closed, its last data is forgotten. @return null
/// when nothing was put since the name's first open handle was opened, for a name without one, or when memory is out.
INET_API param_t* core_profile_data(profile_ctx* profile, const char* file, int line) noexcept;
INET_API param_t* profile_data(const char* name, const char* file, int line) noexcept;

/// Asks the other subscribers of the name in order until one answers. @return the answer, a text for core_mfree(), or
/// null.
INET_API char* profile_request(profile_ctx* profile, const param_t* params, const char* file, int line) noexcept;

/// Answers the request, from inside a callback with profile_ask. The text is copied. Elsewhere the call does nothing.
INET_API void core_profile_answer(profile_ctx* profile, const char* text) noexcept;

/// Tells every other subscriber of the name to send (profile_woken). @return the number of subscribers reached.
INET_API uint32_t core_profile_wake(profile_ctx* profile) noexcept;

/// Asks the archive player behind the name to play from `start` (microseconds UTC) at `speed` times real time: puts the
/// entries "command" = "play", "start" (integer) and "speed" (text, decimal). @return the number of subscribers
/// reached.
INET_API uint32_t core_archive_play(profile_ctx* profile, uint64_t start, double speed) noexcept;
