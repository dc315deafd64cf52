/// Start and stop of the library, by reference count. Every other call needs a started library.
#pragma once

#include "core/api.h"

/// Starts the library, or joins it when it runs; calls nest. Returns when the library is up: a call that meets the last
/// net_free() still taking it down waits for the new start. Any thread.
/// @return the version text, at most 31 characters, always the same; never null. The library's, not to be released.
INET_API const char* net_init() noexcept;

/// Undoes one net_init(); the last one stops the library and names every socket still open on the error log and the
/// console, "not closed socket: %d". Without a start to undo it does nothing. Any thread.
INET_API void net_free() noexcept;

/// Runs the self-test of that exact name between net_init() and net_free(); null runs "auto", the only one there is. An
/// unknown name runs nothing.
INET_API void dll_test(const char* name) noexcept;
